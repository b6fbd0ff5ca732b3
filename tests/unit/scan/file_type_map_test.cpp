#include "scan/file_type_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/support/sandbox.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsNull;

class FileTypeMapTest : public test::SandboxTest {
 protected:
  // Loads text as a map file; the parse result (0 or a line number).
  int load(const std::string& text) {
    sandbox_.write("map.ini", text);
    std::FILE* file = std::fopen((sandbox_ / "map.ini").c_str(), "r");
    if (!file) ADD_FAILURE() << "cannot open the map file";
    const int result = file ? map_.load(file) : -1;
    if (file) std::fclose(file);
    return result;
  }

  const FileTypeRecord& record(std::size_t index) const { return *map_.records().at(index); }

  FileTypeMap map_;
};

TEST_F(FileTypeMapTest, ReadsFieldsAndListsRecordsInReverseLineOrder) {
  ASSERT_EQ(load("avi,mpg,MP4:STDVIDEO:/usr/bin/prof:-v:\n"
                 "mp3:STDAUDIO:/usr/bin/aprof:--in:--fast\n"),
            0);
  ASSERT_EQ(map_.records().size(), 2u);
  EXPECT_EQ(record(0).type, "STDAUDIO");
  EXPECT_THAT(record(0).profiler_arguments, ElementsAre("--in", "--fast"));
  const FileTypeRecord& video = record(1);
  EXPECT_THAT(video.extensions, ElementsAre("avi", "mpg", "MP4"));
  EXPECT_EQ(video.type, "STDVIDEO");
  EXPECT_EQ(video.profiler_command, "/usr/bin/prof");
  EXPECT_THAT(video.profiler_arguments, ElementsAre("-v"));
  EXPECT_EQ(video.pending_count, 0);
}

TEST_F(FileTypeMapTest, SplitsArgumentsDroppingOnlyTheFieldAfterAFinalColon) {
  ASSERT_EQ(load("a:T:cmd: \t\r\n"  // no arguments: trailing blanks are not an argument
                 "b:T:cmd: x \n"    // blanks inside the line stay
                 "c:T:cmd::\n"      // one empty argument
                 "d:T:cmd:x::y:\n"  // an empty one between two colons stays
                 "e:T::x\n"),       // empty command
            0);
  ASSERT_EQ(map_.records().size(), 5u);
  EXPECT_THAT(record(4).profiler_arguments, ElementsAre());
  EXPECT_THAT(record(3).profiler_arguments, ElementsAre(" x"));
  EXPECT_THAT(record(2).profiler_arguments, ElementsAre(""));
  EXPECT_THAT(record(1).profiler_arguments, ElementsAre("x", "", "y"));
  EXPECT_EQ(record(0).profiler_command, "");
  EXPECT_THAT(record(0).profiler_arguments, ElementsAre("x"));
}

TEST_F(FileTypeMapTest, KeepsExtensionPiecesAsWritten) {
  ASSERT_EQ(load("  \tmp3, ogg,,:STDAUDIO:p:\n"
                 ":STDIMAGE:p:\n"),
            0);
  EXPECT_THAT(record(1).extensions, ElementsAre("mp3", " ogg", "", ""));
  EXPECT_THAT(record(0).extensions, ElementsAre(""));
}

TEST_F(FileTypeMapTest, SkipsCommentsAndBlankLinesButCountsThem) {
  EXPECT_EQ(load("# header\n"
                 "\n"
                 "   \t# indented comment\n"
                 " \t \n"
                 "mp4:STDVIDEO:p:\n"
                 "mp3:STDAUDIO:prof\n"),
            6);
  // The broken line's record was already in the map when its fields failed.
  ASSERT_EQ(map_.records().size(), 2u);
  EXPECT_THAT(record(0).extensions, ElementsAre("mp3"));
  EXPECT_EQ(record(1).type, "STDVIDEO");
}

TEST_F(FileTypeMapTest, NeedsThreeColons) {
  EXPECT_EQ(load("mp3\n"), 1);
  map_.clear();
  EXPECT_EQ(load("jpg:STDIMAGE\n"), 1);
  map_.clear();
  EXPECT_EQ(load("ok:T:c:\nmp3:STDAUDIO:prof\n"), 2);
}

// Lines are counted per read of the 300-byte buffer.
TEST_F(FileTypeMapTest, CountsLongLinesAsSeveralLines) {
  const std::string bad = "mp3:STDAUDIO:prof\n";
  // 298 characters and the newline fit one read.
  EXPECT_EQ(load("#" + std::string(297, 'x') + "\n" + bad), 2);
  map_.clear();
  // 299 characters fill the buffer; the newline is read as a blank line.
  EXPECT_EQ(load("#" + std::string(298, 'x') + "\n" + bad), 3);
  map_.clear();
  // A long comment goes on as an ordinary line, which has no colon.
  EXPECT_EQ(load("#" + std::string(349, 'x') + "\n"), 2);
  map_.clear();
  // A long record is read as two records: "x:x:...:x" (299 characters, 150
  // fields) and ":x:x:...x:" (the rest, starting with an empty extension).
  std::string long_line;
  while (long_line.size() < 400) long_line += "x:";
  EXPECT_EQ(load(long_line + "\n" + bad), 3);
  ASSERT_EQ(map_.records().size(), 3u);
  EXPECT_THAT(record(2).extensions, ElementsAre("x"));
  EXPECT_EQ(record(2).profiler_arguments.size(), 150u - 3);
  EXPECT_THAT(record(1).extensions, ElementsAre(""));
  EXPECT_EQ(record(1).profiler_arguments.size(), 50u - 2);
}

TEST_F(FileTypeMapTest, FindsExtensionsIgnoringCase) {
  ASSERT_EQ(load("jpg,png:STDIMAGE:i:\n"
                 "avi,,MP4:STDVIDEO:v:\n"),
            0);
  const FileTypeRecord* image = map_.find("JPG");
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->type, "STDIMAGE");
  ASSERT_NE(map_.find("mp4"), nullptr);
  EXPECT_EQ(map_.find("mp4")->type, "STDVIDEO");
  EXPECT_THAT(map_.find("jp"), IsNull());
  EXPECT_THAT(map_.find("jpgx"), IsNull());
  // A name ending in "." has the empty extension, which an empty piece lists.
  ASSERT_NE(map_.find(""), nullptr);
  EXPECT_EQ(map_.find("")->type, "STDVIDEO");
}

TEST_F(FileTypeMapTest, LaterLineWinsUntilTheEarlierOneIsTheLastHit) {
  ASSERT_EQ(load("mp4,avi:STDVIDEO:v:\n"
                 "mp4,m4a:STDAUDIO:a:\n"),
            0);
  FileTypeRecord* video = &*map_.records().at(1);
  FileTypeRecord* audio = &*map_.records().at(0);
  EXPECT_EQ(map_.find("mp4"), audio);
  EXPECT_EQ(map_.find("avi"), video);
  EXPECT_EQ(map_.find("MP4"), video);  // the last hit is asked first
  EXPECT_THAT(map_.find("flac"), IsNull());
  EXPECT_EQ(map_.find("mp4"), video);  // a miss leaves the last hit alone
  EXPECT_EQ(map_.find("m4a"), audio);
  EXPECT_EQ(map_.find("mp4"), audio);
}

TEST_F(FileTypeMapTest, ClearForgetsRecordsAndTheLastHit) {
  ASSERT_EQ(load("mp4:STDVIDEO:v:\n"), 0);
  ASSERT_NE(map_.find("mp4"), nullptr);
  map_.clear();
  EXPECT_TRUE(map_.empty());
  EXPECT_THAT(map_.find("mp4"), IsNull());
  ASSERT_EQ(load("mp3:STDAUDIO:a:\n"), 0);
  ASSERT_NE(map_.find("mp3"), nullptr);
  EXPECT_THAT(map_.find("mp4"), IsNull());
}

TEST(ExtensionOf, TakesTheTextAfterTheLastDotOfTheName) {
  EXPECT_STREQ(extensionOf("/a/b.mp3"), "mp3");
  EXPECT_STREQ(extensionOf("/a/b.tar.gz"), "gz");
  EXPECT_STREQ(extensionOf("/a/.hidden"), "hidden");
  EXPECT_STREQ(extensionOf("/a/name."), "");
  EXPECT_STREQ(extensionOf("clip.AVI"), "AVI");
  EXPECT_THAT(extensionOf("/a.d/noext"), IsNull());
  EXPECT_THAT(extensionOf("/a/b"), IsNull());
  EXPECT_THAT(extensionOf("plain"), IsNull());
  EXPECT_THAT(extensionOf(""), IsNull());
}

TEST(TypeEnabled, MatchesOnlyTheThreeCategoriesInTheMask) {
  FileTypeRecord record;
  const struct {
    const char* type;
    unsigned bit;
  } categories[] = {{"STDVIDEO", 1}, {"STDAUDIO", 2}, {"STDIMAGE", 4}};
  for (const auto& c : categories) {
    record.type = c.type;
    EXPECT_TRUE(typeEnabled(record, c.bit)) << c.type;
    EXPECT_TRUE(typeEnabled(record, 7)) << c.type;
    EXPECT_FALSE(typeEnabled(record, 7u & ~c.bit)) << c.type;
    EXPECT_FALSE(typeEnabled(record, 0)) << c.type;
  }
  for (const char* other : {"stdvideo", "STDTEXT", ""}) {
    record.type = other;
    EXPECT_FALSE(typeEnabled(record, ~0u)) << other;
  }
}

TEST_F(FileTypeMapTest, ShippedSampleCoversCommonMedia) {
  std::FILE* file = std::fopen(ZIBD_SOURCE_DIR "/sample/file-types.ini", "r");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(map_.load(file), 0);
  std::fclose(file);
  const struct {
    const char* extension;
    const char* type;
  } expected[] = {{"mp4", "STDVIDEO"}, {"mkv", "STDVIDEO"}, {"AVI", "STDVIDEO"},
                  {"ts", "STDVIDEO"},  {"mp3", "STDAUDIO"}, {"flac", "STDAUDIO"},
                  {"m4a", "STDAUDIO"}, {"jpg", "STDIMAGE"}, {"PNG", "STDIMAGE"}};
  for (const auto& e : expected) {
    const FileTypeRecord* found = map_.find(e.extension);
    ASSERT_NE(found, nullptr) << e.extension;
    EXPECT_EQ(found->type, e.type) << e.extension;
    EXPECT_EQ(found->profiler_command.rfind("/usr/lib/zibd/profile-", 0), 0u) << e.extension;
  }
  for (const auto& r : map_.records()) {
    for (const auto& ext : r->extensions) EXPECT_FALSE(ext.empty()) << r->type;
    EXPECT_TRUE(typeEnabled(*r, 7)) << r->type;
  }
}

}  // namespace
}  // namespace zibd
