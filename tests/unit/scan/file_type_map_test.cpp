#include "scan/file_type_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

namespace zibd {
namespace {

using ::testing::IsNull;

class FileTypeMapTest : public test::SandboxTest {
 protected:
  // Loads text as a map file: the parse result (0 or a line number).
  int load(const std::string& text) {
    sandbox_.write("map.ini", text);
    std::FILE* file = std::fopen((sandbox_ / "map.ini").c_str(), "re");
    if (!file) ADD_FAILURE() << "cannot open the map file";
    const int result = file ? map_.load(file) : -1;
    if (file) std::fclose(file);
    return result;
  }
  // The records from the skip-th on, as "ext,ext/TYPE/command/[arg][arg]" joined by " ; ".
  std::string listed(std::size_t skip) const {
    std::string text;
    for (std::size_t i = skip; i < map_.records().size(); ++i) {
      const FileTypeRecord& r = *map_.records().at(i);
      std::string exts, args;
      for (const std::string& e : r.extensions) exts += (&e == &r.extensions[0] ? "" : ",") + e;
      for (const std::string& a : r.profiler_arguments) args += "[" + a + "]";
      text += (i == skip ? "" : " ; ") + exts + "/" + r.type + "/" + r.profiler_command + "/" + args;
    }
    return text;
  }
  FileTypeMap map_;
};

std::string repeat(const std::string& piece, int n) { return n > 0 ? piece + repeat(piece, n - 1) : ""; }

TEST_F(FileTypeMapTest, ParsesRecordsFieldsAndErrorLines) {
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
    map_.clear();
    EXPECT_EQ(load(c.text), c.result);
    // The broken line's record was already in the map when its fields failed.
    EXPECT_TRUE(c.result == 0 || !map_.empty());
    EXPECT_EQ(listed(c.result != 0 ? 1 : 0), c.records);
  }
}

TEST_F(FileTypeMapTest, FindIgnoresCaseAndAsksTheLastHitFirst) {
  ASSERT_EQ(load("mp4,avi,jpg:STDVIDEO:v:\nmp4,m4a,,:STDAUDIO:a:\n"), 0);
  FileTypeRecord* audio = &*map_.records().at(0);
  FileTypeRecord* video = &*map_.records().at(1);
  EXPECT_EQ(map_.find("mp4"), audio);  // the later line
  EXPECT_EQ(map_.find("AVI"), video);
  EXPECT_EQ(map_.find("MP4"), video);  // the last hit is asked first
  EXPECT_THAT(map_.find("flac"), IsNull());
  EXPECT_EQ(map_.find("mp4"), video);  // a miss leaves the last hit alone
  EXPECT_EQ(map_.find(""), audio);     // "name." has the empty extension
  EXPECT_THAT(map_.find("jp"), IsNull());
  EXPECT_THAT(map_.find("jpgx"), IsNull());
  map_.clear();
  EXPECT_TRUE(map_.empty());
  EXPECT_THAT(map_.find("mp4"), IsNull());  // the last hit is forgotten too
}

TEST(ExtensionOf, TakesTheTextAfterTheLastDotOfTheName) {
  const std::pair<const char*, const char*> cases[] = {
      {"/a/b.mp3", "mp3"}, {"/a/b.tar.gz", "gz"}, {"/a/.hidden", "hidden"}, {"/a/name.", ""},
      {"clip.AVI", "AVI"}, {"/a.d/noext", nullptr}, {"/a/b", nullptr},   {"", nullptr}};
  for (const auto& [path, extension] : cases) {
    const char* got = extensionOf(path);
    EXPECT_EQ(got ? std::string(got) : "null", extension ? extension : "null") << path;
  }
}

TEST(TypeEnabled, MatchesOnlyTheThreeCategoriesInTheMask) {
  FileTypeRecord record;
  for (const auto& [type, bit] : {std::pair{"STDVIDEO", 1u}, {"STDAUDIO", 2u}, {"STDIMAGE", 4u}}) {
    record.type = type;
    EXPECT_TRUE(typeEnabled(record, bit)) << type;
    EXPECT_FALSE(typeEnabled(record, 7u & ~bit)) << type;
  }
  for (const char* other : {"stdvideo", "STDTEXT", ""}) {
    record.type = other;
    EXPECT_FALSE(typeEnabled(record, ~0u)) << other;
  }
}

}  // namespace
}  // namespace zibd
