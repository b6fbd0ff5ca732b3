// Tags of files and subtrees through the bulk handle, kord_move, kord_delete
// and kord_cleanup_attached against a real SQLite file, and how the library
// finds that file through the configuration.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>

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

TEST_F(KordTagsTest, SetGetDeleteCommitAndFini) {
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
  EXPECT_EQ(tagsOf(file), "unknown") << "not before the commit";
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", value, sizeof value), 0);  // but the handle sees it
  EXPECT_STREQ(value, "STDAUDIO");
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO .s.tbp=1");

  ASSERT_EQ(kord_bulk_deltag(h.get(), ".s.tbp"), 0);
  EXPECT_NE(kord_bulk_deltag(h.get(), ".s.tbp"), 0) << "the tag is gone already";
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO");
  char small[5];  // values are truncated to the buffer, always terminated
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", small, sizeof small), 0);
  EXPECT_STREQ(small, "STDA");
  EXPECT_NE(kord_bulk_gettag(h.get(), ".s.filetype", small, 0), 0);

  // Uncommitted changes die with the handle.
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "changed"), 0);
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/never.mp3").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  h.reset();
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO");
  EXPECT_EQ(tagsOf(at("p1/never.mp3")), "unknown");
}

TEST_F(KordTagsTest, SetpathRefusesPathsOutsideTheRootAndMalformedPaths) {
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/ok.mp4").c_str()), 0);
  for (const std::string& bad : {std::string("/etc/passwd"), root() + "x/a.mp4", std::string("relative/a.mp4"),
                                 at("p1/../../escape.mp4"), at("p1//a.mp4"), at("p1/dir/"), std::string()}) {
    EXPECT_NE(kord_bulk_setpath(h.get(), bad.c_str()), 0) << bad;
    EXPECT_EQ(kord::lastError().status, kord::Status::kBadArgument) << bad;
    EXPECT_NE(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0) << "nothing stays selected after " << bad;
  }
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(at("p1/ok.mp4")), "unknown");
  EXPECT_EQ(kord_bulk_setpath(h.get(), root().c_str()), 0) << "the root itself is below the root";
}

// Subtree operations take the directory and what is below it, never a
// sibling sharing its prefix or a name that LIKE or GLOB would read as a pattern.
TEST_F(KordTagsTest, RecursiveTagMoveAndDeleteTouchTheSubtreeOnly) {
  const std::vector<std::string> inside = {at("p1/a/b/one.mp4"), at("p1/a/b/deep/two.mp4")};
  const std::vector<std::string> outside = {at("p1/a/bc/three.mp4"), at("p1/a/b.mp4"), at("p1/a/b%/x.mp4"),
                                            at("p1/a/b_/x.mp4"), at("p1/a/b[1]*.mp4")};
  for (const auto& f : inside) tag(f, {{".s.invisible", "0"}});
  for (const auto& f : outside) tag(f, {{".s.invisible", "0"}});
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/a/b").c_str()), 0);  // a directory the database does not know
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.invisible", "1"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(at("p1/a/b")), ".s.invisible=1");
  for (const auto& f : inside) EXPECT_EQ(tagsOf(f), ".s.invisible=1") << f;
  for (const auto& f : outside) EXPECT_EQ(tagsOf(f), ".s.invisible=0") << f;

  ASSERT_EQ(kord_move(at("p1/a/b").c_str(), at("p2/z").c_str()), 0) << kord::lastError().message;
  EXPECT_THAT(files(at("p2")), ElementsAre(at("p2/z"), at("p2/z/deep/two.mp4"), at("p2/z/one.mp4")));
  EXPECT_EQ(files(at("p1")).size(), outside.size());
  // A single file onto a known one: the destination's old tags go, as rename(2) replaces it.
  tag(at("p1/a/b.mp4"), {{".s.hash", "4"}});
  ASSERT_EQ(kord_move(at("p1/a/b.mp4").c_str(), at("p2/z/one.mp4").c_str()), 0);
  EXPECT_EQ(tagsOf(at("p2/z/one.mp4")), ".s.hash=4 .s.invisible=0");
  EXPECT_EQ(tagsOf(at("p1/a/b.mp4")), "unknown");
  // Unknown source: no error, no change. Into itself or out of the root: refused.
  EXPECT_EQ(kord_move(at("p1/nothing").c_str(), at("p1/elsewhere").c_str()), 0);
  EXPECT_NE(kord_move(at("p2/z").c_str(), at("p2/z/deep/deeper").c_str()), 0);
  EXPECT_NE(kord_move(at("p2/z").c_str(), "/elsewhere/z"), 0);
  EXPECT_EQ(files().size(), 7u);

  ASSERT_EQ(kord_delete(at("p2/z").c_str()), 0) << kord::lastError().message;
  ASSERT_EQ(kord_delete(at("p1/a/b[1]*.mp4").c_str()), 0);
  ASSERT_EQ(kord_delete(at("p1/a/b%").c_str()), 0);
  EXPECT_THAT(files(), ElementsAre(at("p1/a/b_/x.mp4"), at("p1/a/bc/three.mp4")));
  EXPECT_EQ(kord_delete(at("p1/unknown").c_str()), 0);
  EXPECT_NE(kord_delete("not/absolute"), 0);
}

// kord_cleanup_attached: the check decides, the stop flag interrupts. The
// check is a plain function pointer, so its state lives here.
std::vector<std::string> g_checked;
int* g_stop = nullptr;

int dropNamesWithGone(const char* path) {
  g_checked.push_back(path);
  if (g_stop && g_checked.size() == 300) std::atomic_ref<int>(*g_stop).store(1);
  return std::string(path).find("gone") != std::string::npos ? 1 : 0;
}

// A concurrent rename between the check and the drop.
int moveAwayThenDrop(const char* path) {
  g_checked.push_back(path);
  return kord_move(path, (std::string(path) + ".moved").c_str()) == 0 ? 1 : 0;
}

class KordCleanupTest : public KordTagsTest {
 protected:
  void TearDown() override {
    g_checked.clear();
    g_stop = nullptr;
  }
  int cleanup(const std::string& dir, kord_check_fn check = dropNamesWithGone) {
    return kord_cleanup_attached(dir.c_str(), &stop_, check);
  }
  int stop_ = 0;
};

TEST_F(KordCleanupTest, DropsExactlyTheFilesTheCheckRejectsBelowThePath) {
  for (const char* f : {"p1", "p1/keep.mp4", "p1/gone.mp4", "p1/sub/gone-too.mp3", "p1x/gone.mp4", "p2/gone.mp4"})
    tag(at(f), {{".s.hash", "1"}});
  ASSERT_EQ(cleanup(at("p1")), 0) << kord::lastError().message;
  EXPECT_THAT(g_checked, ElementsAre(at("p1"), at("p1/gone.mp4"), at("p1/keep.mp4"), at("p1/sub/gone-too.mp3")));
  EXPECT_THAT(files(), ElementsAre(at("p1"), at("p1/keep.mp4"), at("p1x/gone.mp4"), at("p2/gone.mp4")));

  g_checked.clear();
  ASSERT_EQ(cleanup(at("p1"), moveAwayThenDrop), 0);
  EXPECT_EQ(g_checked.size(), 2u);
  EXPECT_THAT(files(), ElementsAre(at("p1.moved"), at("p1.moved/keep.mp4"), at("p1x/gone.mp4"), at("p2/gone.mp4")))
      << "kept under their new names";
  EXPECT_NE(cleanup("relative"), 0);
  EXPECT_NE(cleanup(root(), nullptr), 0);
}

// Files are checked a chunk at a time (fewer than 300); the flag is polled before every file.
TEST_F(KordCleanupTest, StopsOnTheFlagKeepingTheDecisionsSoFarAndALaterRunFinishes) {
  Handle h = open();
  for (int i = 1000; i < 1600; ++i) {
    ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/gone/f" + std::to_string(i)).c_str()), 0);
    ASSERT_EQ(kord_bulk_settag(h.get(), ".s.hash", "x"), 0);
  }
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  g_stop = &stop_;
  EXPECT_NE(cleanup(root()), 0);
  EXPECT_EQ(g_checked.size(), 300u);
  EXPECT_EQ(files().size(), 300u);
  EXPECT_EQ(files().front(), at("p1/gone/f1300"));
  g_checked.clear();
  EXPECT_NE(cleanup(root()), 0) << "raised before the start";
  EXPECT_TRUE(g_checked.empty());
  stop_ = 0;
  g_stop = nullptr;
  ASSERT_EQ(cleanup(root(), [](const char* path) {
              g_checked.push_back(path);
              return 0;  // keeps it
            }),
            0);
  EXPECT_EQ(g_checked.size(), 300u) << "each file checked once";
  EXPECT_EQ(files().size(), 300u);
}

// Where the database lives: the configuration file, followed on its changes
// and on the update signal. Every call fails while there is none.
TEST_F(KordTest, FollowsTheConfigurationAndFailsWithoutOne) {
  auto commit = [](kord_bulk_t* h, const std::string& path) {
    return kord_bulk_setpath(h, path.c_str()) == 0 && kord_bulk_settag(h, ".s.tbp", "1") == 0 &&
           kord_bulk_commit(h) == 0;
  };
  auto noDatabase = [&](const std::string& why) {
    SCOPED_TRACE(why);
    Handle h = open();
    EXPECT_FALSE(commit(h.get(), at("p1/a.mp4")));
    EXPECT_EQ(kord::lastError().status, kord::Status::kNoDatabase);
    EXPECT_EQ(kord_bulk_commit(h.get()), 0) << "nothing to commit is no failure";
    EXPECT_NE(kord_move(at("p1/a").c_str(), at("p1/b").c_str()), 0);
    EXPECT_NE(kord_delete(at("p1/a.mp4").c_str()), 0);
    EXPECT_NE(kord_view_create("v"), 0);
    int stop = 0;
    EXPECT_NE(kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }), 0);
    std::vector<std::string> paths;
    EXPECT_EQ(kord::listFiles("/", &paths), kord::Status::kNoDatabase);
  };
  Handle h = open();  // the scanner opens its handle before storage is chosen
  noDatabase("no file");
  configure("p1");
  signalUpdate();
  ASSERT_TRUE(commit(h.get(), at("p1/a.mp4"))) << kord::lastError().message;
  struct stat st;
  EXPECT_EQ(::stat(database("p1").c_str(), &st), 0) << "made on the chosen partition";
  configure("p2", "1700000100");
  signalUpdate();
  ASSERT_TRUE(commit(h.get(), at("p2/b.mp4"))) << kord::lastError().message;
  EXPECT_EQ(files(), std::vector<std::string>{at("p2/b.mp4")});
  configure("p1", "17");  // no signal: the change of the file alone is enough
  EXPECT_EQ(files(), std::vector<std::string>{at("p1/a.mp4")});

  // Same inode, size and modification time: only the signal tells.
  ASSERT_EQ(::stat((sandbox_ / "kord.ini").c_str(), &st), 0);
  configure("p2", "17");
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (sandbox_ / "kord.ini").c_str(), times, 0), 0);
  signalUpdate();
  ASSERT_TRUE(commit(h.get(), at("p2/c.mp4")));
  EXPECT_EQ(files(), (std::vector<std::string>{at("p2/b.mp4"), at("p2/c.mp4")}));

  // The daemon empties it when its disk goes away.
  for (const std::string& text : {std::string(""), std::string("dms-metadata-db-1 no colons\n"),
                                  "dms-metadata-db-1:relative/root:" + database() + "\n"}) {
    sandbox_.write("kord.ini", text);
    signalUpdate();
    noDatabase(text);
  }
  configure("p1");
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), ".s.tbp=1") << "nothing was touched meanwhile";
}

}  // namespace
}  // namespace zibd::test
