// The file-type map, and the tagging of single files that it drives.
#include "scan/tagging.h"

#include <gmock/gmock.h>

#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

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
  // The parse result, then the records newest line first, without the broken one.
  const struct { std::string text; int result; std::string records; } cases[] = {
      {"avi,mpg,MP4:STDVIDEO:/usr/bin/prof:-v:\nmp3:STDAUDIO:/a:--in:--fast\n", 0,
       "mp3/STDAUDIO//a/[--in][--fast] ; avi,mpg,MP4/STDVIDEO//usr/bin/prof/[-v]"},
      // Trailing blanks after a final colon are no argument; inner blanks, empty arguments, commands stay.
      {"a:T:cmd: \t\r\nb:T:cmd: x \nc:T:cmd::\nd:T:cmd:x::y:\ne:T::x\n", 0,
       "e/T//[x] ; d/T/cmd/[x][][y] ; c/T/cmd/[] ; b/T/cmd/[ x] ; a/T/cmd/"},
      {"  \tmp3, ogg,,:STDAUDIO:p:\n:STDIMAGE:p:\n", 0, "/STDIMAGE/p/ ; mp3, ogg,,/STDAUDIO/p/"},
      // Comments and blank lines count; the broken line's record stays.
      {"# header\n\n   \t# indented\n \t \nmp4:STDVIDEO:p:\n" + bad, 6, "mp4/STDVIDEO/p/"},
      {"mp3\n", 1, ""},
      {"jpg:STDIMAGE\n", 1, ""},
      {"ok:T:c:\n" + bad, 2, "ok/T/c/"},
      // Lines count per 300-byte read: 298 characters and newline fit; after 299 the newline is a blank line.
      {"#" + std::string(297, 'x') + "\n" + no_colon, 2, ""},
      {"#" + std::string(298, 'x') + "\n" + no_colon, 3, ""},
      {"#" + std::string(349, 'x') + "\n", 2, ""},  // the rest of a long comment has no colon
      // A long record is read as two: 299 characters (150 fields), then the rest.
      {repeat("x:", 200) + "\n" + no_colon, 3, "/x/x/" + repeat("[x]", 48) + " ; x/x/x/" + repeat("[x]", 147)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 60));
    FileTypeMap map;
    EXPECT_EQ(test::parseMap(map, c.text), c.result == 0 ? "" : "Parse error on line " + std::to_string(c.result) + " of map");
    // The broken line's record was already in the map when its fields failed.
    EXPECT_TRUE(c.result == 0 || !map.empty());
    EXPECT_EQ(listed(map, c.result != 0 ? 1 : 0), c.records);
  }
}

TEST(FileTypeMapTest, FindIgnoresCaseAndAsksTheLastHitFirst) {
  FileTypeMap map;
  ASSERT_EQ(test::parseMap(map, "mp4,avi,jpg:STDVIDEO:v:\nmp4,m4a,,:STDAUDIO:a:\n"), "");
  const FileTypeRecord *audio = map.records().at(0).get(), *video = map.records().at(1).get();
  EXPECT_EQ(map.find("mp4"), audio);  // the later line
  EXPECT_EQ(map.find("AVI"), video);
  EXPECT_EQ(map.find("MP4"), video);  // the last hit is asked first
  EXPECT_THAT(map.find("flac"), ::testing::IsNull());
  EXPECT_EQ(map.find("mp4"), video);  // a miss leaves the last hit alone
  EXPECT_EQ(map.find(""), audio);     // "name." has the empty extension
  EXPECT_THAT(map.find("jp"), ::testing::IsNull());
  EXPECT_THAT(map.find("jpgx"), ::testing::IsNull());
  map.clear();
  EXPECT_TRUE(map.empty());
  EXPECT_THAT(map.find("mp4"), ::testing::IsNull());  // the last hit is forgotten too
}

class TaggingTest : public test::ScanTest {
 protected:
  // The tagging's errno: 0, or ECANCELED for a stop.
  int tag(const std::string& path, const Visibility& visibility = {}) { return tagger_.tagFile(path.c_str(), visibility).code(); }

  std::atomic<int> abort_{0};
  KordBulk bulk_{kord_bulk_init()};
  Tagger tagger_{types_, rules_, bulk_, abort_};
};

TEST_F(TaggingTest, NewFilesWithinTheRulesAndMapGetIdentityVisibilityAndABatchOfWhichTheFirstHoldsNinetyNine) {
  const std::string film = media("p1/Media/film.MKV", 1700000000);
  const std::time_t before = std::time(nullptr);
  EXPECT_EQ(tag(film), 0);
  const std::time_t after = std::time(nullptr);
  // The identity hashes the path and the time of the first tagging.
  auto tags = [&](std::time_t when) {
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(tagHash(film, timeText(when))));
    return std::string(".s.batchidx=0 .s.filetype=STDVIDEO .s.hash=") + hash + " .s.invisible=0 .s.tbp=1";
  };
  EXPECT_THAT(tagsOf(film), ::testing::AnyOf(tags(before), tags(after)));
  // Hashes worked out by hand; bytes above 127 count negative whatever the signedness of char.
  EXPECT_EQ(tagHash("\xff", ""), 5381U * 33 - 1);
  EXPECT_EQ(tagHash("/var/uuidmount/ab12/Media/plain.mkv", "20240229235959"), 0x5993b0c7e33d296fULL);
  EXPECT_EQ(tagHash("/var/uuidmount/ab12/Media/caf\xc3\xa9 \xc3\xa0 la plage.mkv", "20240229235959"),
            0x80035591ec32644aULL);
  for (int i = 2; i <= 100; ++i) ASSERT_EQ(tag(media("p1/v/" + std::to_string(i) + ".avi")), 0);
  EXPECT_EQ(getTag(at("p1/v/99.avi"), kTagBatchIndex), "0");
  EXPECT_EQ(getTag(at("p1/v/100.avi"), kTagBatchIndex), "1");
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 100);
  EXPECT_EQ(tagger_.newFiles(), 100);
  // Nothing is tagged outside the rules or the map, or once aborted.
  rules_.rules[at("p2/Music")] = kCategoryMusic;
  // Pictures are not enabled on p1, only music below p2/Music.
  for (const char* name : {"p1/Media/notes.txt", "p1/Media/README", "p1/Media.d/film", "p1/Media/photo.jpg",
                           "p2/Music/film.avi", "p2/Other/song.mp3"}) {
    EXPECT_EQ(tag(media(name)), 0);
    EXPECT_EQ(tagsOf(at(name)), "unknown") << name;
  }
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 100);
  EXPECT_EQ(tag(media("p2/Music/song.mp3")), 0);
  EXPECT_EQ(getTag(at("p2/Music/song.mp3"), kTagFileType), "STDAUDIO");
  abort_ = 1;
  EXPECT_EQ(tag(media("p1/film.mkv")), ECANCELED);
  EXPECT_EQ(tagsOf(at("p1/film.mkv")), "unknown");
}

TEST_F(TaggingTest, VisibilityIsGivenOnceAndAProfiledFileIsTaggedAgainOnlyWhenItsTimeChanges) {
  const Visibility managed{Visibility::Kind::kInsideDirectory, at("p1/Media")}, hidden{Visibility::Kind::kInvisible, {}};
  for (const auto& [name, expected] : {std::pair{"p1/Media/a.mkv", "0"}, {"p1/Media2/b.mkv", "1"}, {"p1/c.mkv", "1"}}) {
    ASSERT_EQ(tag(media(name, 1700000000), managed), 0);
    EXPECT_EQ(getTag(at(name), kTagInvisible), expected) << name;
  }
  ASSERT_EQ(tag(media("p1/Media/d.mkv"), hidden), 0);
  EXPECT_EQ(getTag(at("p1/Media/d.mkv"), kTagInvisible), "1");
  // Marked by its profiler run, the way the scanner leaves it.
  const std::string film = at("p1/Media/a.mkv"), hash = getTag(film, kTagHash);
  ASSERT_NO_FATAL_FAILURE(KordTest::tag(film, {{kTagModified, timeText(1700000000)}}));
  test::Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), film.c_str()), 0);
  for (const char* name : {kTagToProfile, kTagFileType, kTagBatchIndex}) ASSERT_EQ(kord_bulk_deltag(h.get(), name), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  const std::string profiled = tagsOf(film);
  typeRecord("STDVIDEO").pending_count = 0;
  EXPECT_EQ(tag(film, hidden), 0);
  EXPECT_EQ(tagsOf(film), profiled);
  setMtime(film, 1700000100);
  EXPECT_EQ(tag(film, hidden), 0);
  EXPECT_EQ(tagsOf(film), ".s.batchidx=0 .s.filetype=STDVIDEO .s.hash=" + hash + " .s.invisible=0 .s.mdt=" +
                              timeText(1700000000) + " .s.tbp=1");
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 1);
  EXPECT_EQ(tagger_.newFiles(), 4);
}

TEST_F(TaggingTest, CleanupDropsWhatIsGoneOrNoLongerWanted) {
  rules_.rules[at("p2")] = kCategoryPictures;
  for (const char* kept : {"p1/film.mkv", "p1/song.mp3", "p2/photo.JPG"})
    EXPECT_FALSE(tagger_.unwanted(media(kept).c_str())) << kept;
  EXPECT_TRUE(tagger_.unwanted(at("p1/gone.mkv").c_str()));
  for (const char* dropped : {"p1/README", "p1/notes.txt", "p2/film.mkv"})
    EXPECT_TRUE(tagger_.unwanted(media(dropped).c_str())) << dropped;
  rules_.rules.clear();
  EXPECT_TRUE(tagger_.unwanted(at("p1/film.mkv").c_str()));  // no rule at all
  // The C callback answers for the Tagger of the running cleanup only.
  EXPECT_EQ(Tagger::cleanupCheck(at("p1/film.mkv").c_str()), 0);
  Tagger::CleanupScope scope(tagger_);
  EXPECT_EQ(Tagger::cleanupCheck(at("p1/film.mkv").c_str()), 1);
}

}  // namespace
}  // namespace zibd
