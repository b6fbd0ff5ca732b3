// Tags of single files and of subtrees through the bulk handle, kord_move and
// kord_delete, against a real SQLite file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;

class KordTagsTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
  }
};

TEST_F(KordTagsTest, SetGetDeleteAndTheFailingGetOfAnAbsentTag) {
  const std::string file = at("p1/Media/movie.mp4");
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), file.c_str()), 0) << kord::lastError().message;
  char value[32] = "untouched";
  // A file new to the database has no tags: this is how the scanner tells new files.
  EXPECT_NE(kord_bulk_gettag(h.get(), ".s.mdt", value, sizeof value), 0);
  EXPECT_EQ(kord::lastError().status, kord::Status::kNotFound);
  EXPECT_STREQ(value, "untouched");

  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "STDVIDEO"), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "STDAUDIO"), 0);  // replaces
  // The handle sees its own uncommitted change.
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", value, sizeof value), 0);
  EXPECT_STREQ(value, "STDAUDIO");
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO .s.tbp=1");

  ASSERT_EQ(kord_bulk_deltag(h.get(), ".s.tbp"), 0);
  EXPECT_NE(kord_bulk_deltag(h.get(), ".s.tbp"), 0) << "the tag is gone already";
  EXPECT_NE(kord_bulk_gettag(h.get(), ".s.tbp", value, sizeof value), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO");

  // Values are truncated to the buffer, always terminated.
  char small[5];
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", small, sizeof small), 0);
  EXPECT_STREQ(small, "STDA");
  EXPECT_NE(kord_bulk_gettag(h.get(), ".s.filetype", small, 0), 0);
}

TEST_F(KordTagsTest, UncommittedChangesAreDiscardedByFini) {
  const std::string file = at("p1/a.mp3");
  tag(file, {{".s.hash", "0123456789abcdef"}});
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), file.c_str()), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.hash", "changed"), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  h.reset();
  EXPECT_EQ(tagsOf(file), ".s.hash=0123456789abcdef");
  EXPECT_EQ(tagsOf(at("p1/never-tagged.mp3")), "unknown");
}

TEST_F(KordTagsTest, SetpathRefusesPathsOutsideTheRootAndMalformedPaths) {
  Handle h = open();
  for (const std::string& bad :
       {std::string("/etc/passwd"), root() + "x/a.mp4", std::string("relative/a.mp4"),
        at("p1/../../escape.mp4"), at("p1//a.mp4"), at("p1/dir/"), std::string()}) {
    EXPECT_NE(kord_bulk_setpath(h.get(), bad.c_str()), 0) << bad;
    EXPECT_EQ(kord::lastError().status, kord::Status::kBadArgument) << bad;
  }
  EXPECT_NE(kord_bulk_setpath(h.get(), nullptr), 0);
  // After a failed selection nothing is selected: no tag lands on an earlier path.
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/ok.mp4").c_str()), 0);
  ASSERT_NE(kord_bulk_setpath(h.get(), "/etc/passwd"), 0);
  EXPECT_NE(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(at("p1/ok.mp4")), "unknown");
  // The root itself is below the root.
  EXPECT_EQ(kord_bulk_setpath(h.get(), root().c_str()), 0);
}

TEST_F(KordTagsTest, RecursiveTagCoversTheSubtreeButNotSiblingsSharingItsPrefix) {
  const std::vector<std::string> inside = {at("p1/a/b"), at("p1/a/b/one.mp4"),
                                           at("p1/a/b/deep/two.mp4")};
  const std::vector<std::string> outside = {at("p1/a/bc/three.mp4"), at("p1/a/b.mp4"),
                                            at("p1/a/b%/x.mp4"), at("p1/a/b_/x.mp4"),
                                            at("p1/a/other.mp4")};
  for (const auto& f : inside) tag(f, {{".s.invisible", "0"}});
  for (const auto& f : outside) tag(f, {{".s.invisible", "0"}});

  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/a/b").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.invisible", "1"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  for (const auto& f : inside) EXPECT_EQ(tagsOf(f), ".s.invisible=1") << f;
  for (const auto& f : outside) EXPECT_EQ(tagsOf(f), ".s.invisible=0") << f;
}

TEST_F(KordTagsTest, RecursiveTagOnAnUnknownDirectoryTagsItAndKnownFilesBelow) {
  tag(at("p2/Media/x.jpg"), {{".s.hash", "1"}});
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p2").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.invisible", "1"), 0);
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p2/Media").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.invisible", "0"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(at("p2")), ".s.invisible=1");
  EXPECT_EQ(tagsOf(at("p2/Media")), ".s.invisible=0");
  EXPECT_EQ(tagsOf(at("p2/Media/x.jpg")), ".s.hash=1 .s.invisible=0");
}

TEST_F(KordTagsTest, MoveRenamesTheSubtreeOnly) {
  tag(at("p1/a/b/one.mp4"), {{".s.hash", "1"}});
  tag(at("p1/a/b/sub/two.mp4"), {{".s.hash", "2"}});
  tag(at("p1/a/bc/three.mp4"), {{".s.hash", "3"}});
  tag(at("p1/a/b.mp4"), {{".s.hash", "4"}});

  ASSERT_EQ(kord_move(at("p1/a/b").c_str(), at("p1/z").c_str()), 0) << kord::lastError().message;
  EXPECT_THAT(files(at("p1")), ElementsAre(at("p1/a/b.mp4"), at("p1/a/bc/three.mp4"),
                                           at("p1/z/one.mp4"), at("p1/z/sub/two.mp4")));
  EXPECT_EQ(tagsOf(at("p1/z/sub/two.mp4")), ".s.hash=2");

  // A single file, onto a known file: the destination's old tags go, as rename(2) replaces it.
  ASSERT_EQ(kord_move(at("p1/a/b.mp4").c_str(), at("p1/z/one.mp4").c_str()), 0);
  EXPECT_EQ(tagsOf(at("p1/z/one.mp4")), ".s.hash=4");
  EXPECT_EQ(tagsOf(at("p1/a/b.mp4")), "unknown");

  // Moving what the database does not know is no error, and changes nothing.
  EXPECT_EQ(kord_move(at("p1/nothing").c_str(), at("p1/elsewhere").c_str()), 0);
  EXPECT_EQ(files(at("p1")).size(), 3u);

  // Into itself, or out of the root: refused, nothing changes.
  EXPECT_NE(kord_move(at("p1/z").c_str(), at("p1/z/sub/deeper").c_str()), 0);
  EXPECT_NE(kord_move(at("p1/z").c_str(), "/elsewhere/z"), 0);
  EXPECT_EQ(tagsOf(at("p1/z/sub/two.mp4")), ".s.hash=2");
}

TEST_F(KordTagsTest, DeleteDropsTheSubtreeOnly) {
  tag(at("p1/a/b"), {{".s.invisible", "1"}});
  tag(at("p1/a/b/one.mp4"), {{".s.hash", "1"}});
  tag(at("p1/a/bc/two.mp4"), {{".s.hash", "2"}});
  tag(at("p1/a/b[1]*.mp4"), {{".s.hash", "3"}});
  tag(at("p1/a/b.mp4"), {{".s.hash", "4"}});
  tag(at("p1/a/b%/x.mp4"), {{".s.hash", "5"}});
  ASSERT_EQ(kord_delete(at("p1/a/b").c_str()), 0) << kord::lastError().message;
  EXPECT_THAT(files(), ElementsAre(at("p1/a/b%/x.mp4"), at("p1/a/b.mp4"), at("p1/a/b[1]*.mp4"),
                                   at("p1/a/bc/two.mp4")));
  // Paths that LIKE or GLOB would read as patterns delete only themselves.
  ASSERT_EQ(kord_delete(at("p1/a/b[1]*.mp4").c_str()), 0);
  ASSERT_EQ(kord_delete(at("p1/a/b%").c_str()), 0);
  EXPECT_THAT(files(), ElementsAre(at("p1/a/b.mp4"), at("p1/a/bc/two.mp4")));
  EXPECT_EQ(kord_delete(at("p1/unknown").c_str()), 0);
  EXPECT_NE(kord_delete("not/absolute"), 0);
}

TEST_F(KordTagsTest, HostListingsAreSortedAndScoped) {
  tag(at("p2/b.mp3"), {{".s.tbp", "1"}, {".s.filetype", "STDAUDIO"}});
  tag(at("p1/a.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}});
  tag(at("p1/c.jpg"), {{".s.filetype", "STDIMAGE"}});
  EXPECT_THAT(files(), ElementsAre(at("p1/a.mp4"), at("p1/c.jpg"), at("p2/b.mp3")));
  EXPECT_THAT(files(at("p2")), ElementsAre(at("p2/b.mp3")));
  kord::Stats stats;
  ASSERT_EQ(kord::stats(&stats), kord::Status::kOk);
  EXPECT_EQ(stats.files, 3u);
  EXPECT_EQ(stats.to_be_profiled, 2u);
  using Count = std::pair<std::string, std::uint64_t>;
  EXPECT_THAT(stats.by_filetype,
              ElementsAre(Count{"STDAUDIO", 1}, Count{"STDIMAGE", 1}, Count{"STDVIDEO", 1}));
}

}  // namespace
}  // namespace zibd::test
