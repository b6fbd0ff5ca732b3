#include "scan/tagging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

using ::testing::AnyOf;
using ::testing::MatchesRegex;

// Fixed inputs with hashes worked out independently of this code. Bytes above
// 127 count negative on every target.
TEST(TagHashTest, SignExtendsEveryByteOnEveryTarget) {
  EXPECT_EQ(tagHash("\xff", ""), 5381U * 33 - 1);
  EXPECT_EQ(tagHash("/var/uuidmount/ab12/Media/plain.mkv", "20240229235959"),
            0x5993b0c7e33d296fULL);
  EXPECT_EQ(tagHash("/var/uuidmount/ab12/Media/caf\xc3\xa9 \xc3\xa0 la plage.mkv", "20240229235959"),
            0x80035591ec32644aULL);
}

class TaggingTest : public test::ScanTest {
 protected:
  int tag(const std::string& path, const Visibility& visibility = {}) {
    return tagger_.tagFile(path.c_str(), visibility);
  }

  std::atomic<int> abort_{0};
  KordBulk bulk_{kord_bulk_init()};
  Tagger tagger_{types_, rules_, bulk_, abort_};
};

TEST_F(TaggingTest, NewFileGetsIdentityVisibilityAndItsPlaceInABatch) {
  const std::string film = media("p1/Media/film.MKV");
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(tag(film), 0);
  const std::time_t after = std::time(nullptr);

  EXPECT_EQ(getTag(film, kTagToProfile), "1");
  EXPECT_EQ(getTag(film, kTagFileType), "STDVIDEO");
  EXPECT_EQ(getTag(film, kTagBatchIndex), "0");
  EXPECT_EQ(getTag(film, kTagInvisible), "0");
  EXPECT_EQ(getTag(film, kTagModified), "absent");
  char expected_before[17], expected_after[17];
  std::snprintf(expected_before, sizeof expected_before, "%016llx",
                static_cast<unsigned long long>(tagHash(film, timeText(before))));
  std::snprintf(expected_after, sizeof expected_after, "%016llx",
                static_cast<unsigned long long>(tagHash(film, timeText(after))));
  EXPECT_THAT(getTag(film, kTagHash), AnyOf(expected_before, expected_after));
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 1);
  EXPECT_EQ(tagger_.newFiles(), 1);
}

TEST_F(TaggingTest, FilesOutsideTheRulesOrTheMapGetNoTags) {
  rules_.rules[at("p2/Music")] = kCategoryMusic;
  const std::string unknown = media("p1/Media/notes.txt");
  const std::string no_extension = media("p1/Media/README");
  const std::string hidden_dir_dot = media("p1/Media.d/film");
  const std::string picture = media("p1/Media/photo.jpg");    // pictures not enabled on p1
  const std::string film_in_music = media("p2/Music/film.avi");  // only music there
  const std::string no_rule = media("p2/Other/song.mp3");
  for (const std::string& path :
       {unknown, no_extension, hidden_dir_dot, picture, film_in_music, no_rule}) {
    EXPECT_EQ(tag(path), 0);
    EXPECT_EQ(tagsOf(path), "unknown") << path;
  }
  const std::string song = media("p2/Music/song.mp3");
  EXPECT_EQ(tag(song), 0);
  EXPECT_EQ(getTag(song, kTagFileType), "STDAUDIO");
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);
}

TEST_F(TaggingTest, ProfiledFileIsLeftAloneUntilItsTimeChangesAndKeepsItsIdentity) {
  const std::string film = media("p1/film.mkv", 1700000000);
  ASSERT_EQ(tag(film), 0);
  const std::string hash = getTag(film, kTagHash);
  // What the profiler run leaves after marking the file.
  ASSERT_NO_FATAL_FAILURE(KordTest::tag(film, {{kTagModified, timeText(1700000000)}}));
  {
    test::Handle h = open();
    ASSERT_EQ(kord_bulk_setpath(h.get(), film.c_str()), 0);
    for (const char* name : {kTagToProfile, kTagFileType, kTagBatchIndex})
      ASSERT_EQ(kord_bulk_deltag(h.get(), name), 0);
    ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  }
  const std::string profiled = tagsOf(film);
  typeRecord("STDVIDEO").pending_count = 0;

  EXPECT_EQ(tag(film), 0);
  EXPECT_EQ(tagsOf(film), profiled);
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);

  setMtime(film, 1700000100);
  EXPECT_EQ(tag(film), 0);
  EXPECT_EQ(getTag(film, kTagToProfile), "1");
  EXPECT_EQ(getTag(film, kTagBatchIndex), "0");
  EXPECT_EQ(getTag(film, kTagHash), hash);
  EXPECT_EQ(getTag(film, kTagModified), timeText(1700000000));
  EXPECT_EQ(tagger_.newFiles(), 1);
}

TEST_F(TaggingTest, FirstBatchOfATypeHoldsNinetyNineFiles) {
  for (int i = 1; i <= 100; ++i) {
    const std::string path = media("p1/v/" + std::to_string(i) + ".avi");
    ASSERT_EQ(tag(path), 0);
    if (i == 99) {
      EXPECT_EQ(getTag(path, kTagBatchIndex), "0");
    }
    if (i == 100) {
      EXPECT_EQ(getTag(path, kTagBatchIndex), "1");
    }
  }
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 100);
}

TEST_F(TaggingTest, VisibilityDecidesTheInvisibleTagOfNewFilesOnly) {
  const std::string inside = media("p1/Media/a.mkv");
  const std::string beside = media("p1/Media2/b.mkv");
  const std::string outside = media("p1/c.mkv");
  Visibility managed{Visibility::Kind::kInsideDirectory, at("p1/Media")};
  for (const std::string& path : {inside, beside, outside}) ASSERT_EQ(tag(path, managed), 0);
  EXPECT_EQ(getTag(inside, kTagInvisible), "0");
  EXPECT_EQ(getTag(beside, kTagInvisible), "1");
  EXPECT_EQ(getTag(outside, kTagInvisible), "1");

  const std::string all_hidden = media("p1/Media/d.mkv");
  ASSERT_EQ(tag(all_hidden, {Visibility::Kind::kInvisible, {}}), 0);
  EXPECT_EQ(getTag(all_hidden, kTagInvisible), "1");

  // A file profiled before keeps the visibility it got first.
  ASSERT_NO_FATAL_FAILURE(KordTest::tag(inside, {{kTagModified, timeText(1500000000)}}));
  setMtime(inside, 1600000000);
  ASSERT_EQ(tag(inside, {Visibility::Kind::kInvisible, {}}), 0);
  EXPECT_EQ(getTag(inside, kTagInvisible), "0");
}

TEST_F(TaggingTest, AbortStopsBeforeAnyLookup) {
  rules_.on_query = [](const std::string& path) { ADD_FAILURE() << "rules asked for " << path; };
  abort_ = 1;
  const std::string film = media("p1/film.mkv");
  EXPECT_EQ(tag(film), 1);
  EXPECT_EQ(tagsOf(film), "unknown");
}

TEST_F(TaggingTest, FileNamesAreTaggedByteForByte) {
  const std::string name = "p1/-x\n\t'\"|$(touch pwned)\xff\xfe" + std::string(200, 'n') + ".mkv";
  const std::string path = media(name);
  ASSERT_EQ(tag(path), 0);
  EXPECT_EQ(getTag(path, kTagFileType), "STDVIDEO");
  EXPECT_THAT(getTag(path, kTagHash), MatchesRegex("[0-9a-f]{16}"));
}

TEST_F(TaggingTest, CleanupDropsWhatIsGoneOrNoLongerWanted) {
  rules_.rules[at("p2")] = kCategoryPictures;
  const std::string film = media("p1/film.mkv");
  const std::string song = media("p1/song.mp3");
  const std::string picture = media("p2/photo.JPG");
  EXPECT_EQ(tagger_.unwanted(film.c_str()), 0);
  EXPECT_EQ(tagger_.unwanted(song.c_str()), 0);
  EXPECT_EQ(tagger_.unwanted(picture.c_str()), 0);

  EXPECT_EQ(tagger_.unwanted(at("p1/gone.mkv").c_str()), 1);
  EXPECT_EQ(tagger_.unwanted(media("p1/README").c_str()), 1);
  EXPECT_EQ(tagger_.unwanted(media("p1/notes.txt").c_str()), 1);
  EXPECT_EQ(tagger_.unwanted(media("p2/film.mkv").c_str()), 1);  // category off
  rules_.rules.clear();
  EXPECT_EQ(tagger_.unwanted(film.c_str()), 1);  // no rule at all

  // The C callback answers for the Tagger of the running cleanup only.
  EXPECT_EQ(Tagger::cleanupCheck(film.c_str()), 0);
  Tagger::CleanupScope scope(tagger_);
  EXPECT_EQ(Tagger::cleanupCheck(film.c_str()), 1);
}

}  // namespace
}  // namespace zibd
