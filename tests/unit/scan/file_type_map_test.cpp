#include "scan/file_type_map.h"

#include <gmock/gmock.h>

#include <cstdio>

namespace zibd {
namespace {

using ::testing::IsNull;

// Loads text as a map file: the parse result (0 or a line number).
int load(FileTypeMap& map, std::string text) {
  std::FILE* file = ::fmemopen(text.data(), text.size(), "r");
  const int result = file ? map.load(file) : -1;
  if (file) std::fclose(file);
  return result;
}
// The records from the skip-th on, as "ext,ext/TYPE/command/[arg][arg]" joined by " ; ".
std::string listed(const FileTypeMap& map, std::size_t skip) {
  std::string text;
  for (std::size_t i = skip; i < map.records().size(); ++i) {
    const FileTypeRecord& r = *map.records().at(i);
    std::string exts, args;
    for (const std::string& e : r.extensions) exts += (&e == &r.extensions[0] ? "" : ",") + e;
    for (const std::string& a : r.profiler_arguments) args += "[" + a + "]";
    text += (i == skip ? "" : " ; ") + exts + "/" + r.type + "/" + r.profiler_command + "/" + args;
  }
  return text;
}
std::string repeat(const std::string& piece, int n) { return n > 0 ? piece + repeat(piece, n - 1) : ""; }

TEST(FileTypeMapTest, ParsesRecordsFieldsAndErrorLines) {
  const std::string bad = "mp3:STDAUDIO:prof\n", no_colon = "mp3\n";
  const struct {
    std::string text;
    int result;
    std::string records;  // newest line first, without the broken one
  } cases[] = {
      {"avi,mpg,MP4:STDVIDEO:/usr/bin/prof:-v:\nmp3:STDAUDIO:/a:--in:--fast\n", 0,
       "mp3/STDAUDIO//a/[--in][--fast] ; avi,mpg,MP4/STDVIDEO//usr/bin/prof/[-v]"},
      // Trailing blanks after a final colon are no argument; inner blanks and
      // empty arguments between colons stay; the command may be empty.
      {"a:T:cmd: \t\r\nb:T:cmd: x \nc:T:cmd::\nd:T:cmd:x::y:\ne:T::x\n", 0,
       "e/T//[x] ; d/T/cmd/[x][][y] ; c/T/cmd/[] ; b/T/cmd/[ x] ; a/T/cmd/"},
      {"  \tmp3, ogg,,:STDAUDIO:p:\n:STDIMAGE:p:\n", 0, "/STDIMAGE/p/ ; mp3, ogg,,/STDAUDIO/p/"},
      // Comments and blank lines count; the broken line's record stays.
      {"# header\n\n   \t# indented\n \t \nmp4:STDVIDEO:p:\n" + bad, 6, "mp4/STDVIDEO/p/"},
      {"mp3\n", 1, ""},
      {"jpg:STDIMAGE\n", 1, ""},
      {"ok:T:c:\n" + bad, 2, "ok/T/c/"},
      // Lines are counted per read of the 300-byte buffer: 298 characters and
      // the newline fit one read; 299 fill it and the newline is a blank line.
      {"#" + std::string(297, 'x') + "\n" + no_colon, 2, ""},
      {"#" + std::string(298, 'x') + "\n" + no_colon, 3, ""},
      {"#" + std::string(349, 'x') + "\n", 2, ""},  // the rest of a long comment has no colon
      // A long record is read as two: 299 characters (150 fields), then the rest.
      {repeat("x:", 200) + "\n" + no_colon, 3, "/x/x/" + repeat("[x]", 48) + " ; x/x/x/" + repeat("[x]", 147)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    FileTypeMap map;
    EXPECT_EQ(load(map, c.text), c.result);
    // The broken line's record was already in the map when its fields failed.
    EXPECT_TRUE(c.result == 0 || !map.empty());
    EXPECT_EQ(listed(map, c.result != 0 ? 1 : 0), c.records);
  }
}

TEST(FileTypeMapTest, FindIgnoresCaseAndAsksTheLastHitFirst) {
  FileTypeMap map;
  ASSERT_EQ(load(map, "mp4,avi,jpg:STDVIDEO:v:\nmp4,m4a,,:STDAUDIO:a:\n"), 0);
  FileTypeRecord* audio = &*map.records().at(0);
  FileTypeRecord* video = &*map.records().at(1);
  EXPECT_EQ(map.find("mp4"), audio);  // the later line
  EXPECT_EQ(map.find("AVI"), video);
  EXPECT_EQ(map.find("MP4"), video);  // the last hit is asked first
  EXPECT_THAT(map.find("flac"), IsNull());
  EXPECT_EQ(map.find("mp4"), video);  // a miss leaves the last hit alone
  EXPECT_EQ(map.find(""), audio);     // "name." has the empty extension
  EXPECT_THAT(map.find("jp"), IsNull());
  EXPECT_THAT(map.find("jpgx"), IsNull());
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_THAT(map.find("mp4"), IsNull());  // the last hit is forgotten too
  for (const auto& [path, extension] : {std::pair{"/a/b.tar.gz", "gz"}, {"/a/.hidden", "hidden"}, {"/a/name.", ""},
                                        {"/a.d/noext", "null"}, {"", "null"}}) {
    const char* got = extensionOf(path);
    EXPECT_STREQ(got ? got : "null", extension) << path;
  }
}

}  // namespace
}  // namespace zibd
