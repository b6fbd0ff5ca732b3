// Views: directories of links that follow the committed tags.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/file_descriptor.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using std::filesystem::exists;

constexpr const char* kView = "zibprof.4242.STDVIDEO.0.1";
constexpr const char* kCondition = "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'";

class KordViewTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
  }
  // Tags a file as the scanner tags a new file of the given batch.
  static void pending(const std::string& path, const std::string& batch = "0", const char* type = "STDVIDEO") {
    tag(path, {{".s.hash", "0011"}, {".s.tbp", "1"}, {".s.filetype", type}, {".s.batchidx", batch}});
  }
  static std::string makeView(const char* name = kView, const char* condition = kCondition) {
    EXPECT_EQ(kord_view_create(name), 0) << kord::lastError().message;
    EXPECT_EQ(kord_view_set_cond(name, condition), 0) << kord::lastError().message;
    char path[100] = "";  // the daemon's buffer
    EXPECT_NE(kord_view_get_path(name, path, sizeof path), 0) << kord::lastError().message;
    return path;
  }
  static bool known(const char* name) {
    char path[100];
    return kord_view_get_path(name, path, sizeof path) != 0;
  }
};

// A new view is filled through SQL; names and values are taken literally.
TEST_F(KordViewTest, HoldsOneAbsoluteLinkPerMatchingFileNamedAfterIt) {
  pending(at("p1/Media/a.mp4"));
  pending(at("p1/Media/sub/b.mkv"));
  pending(at("p1/Media/other/b.mkv"));  // same name, different file
  pending(at("p1/Media/c.mp4"), "1");
  pending(at("p1/Media/d.mp3"), "0", "STDAUDIO");
  pending(at("p1/Media/swapped.mp4"), "STDVIDEO", "0");  // only a wrong binding of the values matches
  const std::string dir = makeView();
  EXPECT_EQ(dir, sandbox_ / (std::string("views/") + kView));
  EXPECT_THAT(linkTargets(dir),
              ElementsAre(at("p1/Media/a.mp4"), at("p1/Media/other/b.mkv"), at("p1/Media/sub/b.mkv")));
  // Profilers see the file's own name and extension.
  for (const auto& [name, target] : linksIn(dir)) EXPECT_TRUE(name.ends_with(target.substr(target.rfind('/') + 1)));
  tag(at("p1/quote.mp4"), {{"it's", "x"}, {"%", "_"}});
  tag(at("p1/other.mp4"), {{"its", "x"}, {"a", "_"}});
  EXPECT_THAT(linkTargets(makeView("quotes", "@it's@ exists and @%@='_'")), ElementsAre(at("p1/quote.mp4")));
}

TEST_F(KordViewTest, CommitsMovesDeletesAndCleanupsMoveFilesInAndOut) {
  Handle scanner = open();  // opened long before the view exists, as the daemon's is
  pending(at("p1/a.mp4"));
  pending(at("p1/b.mp4"), "1");
  pending(at("p1/dir/c.mp4"));
  const std::string dir = makeView();
  ASSERT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/dir/c.mp4")));
  ASSERT_EQ(kord_bulk_setpath(scanner.get(), at("p1/a.mp4").c_str()), 0);  // the profiler's mark
  ASSERT_EQ(kord_bulk_deltag(scanner.get(), ".s.tbp"), 0);
  ASSERT_EQ(kord_bulk_setpath(scanner.get(), at("p1/b.mp4").c_str()), 0);  // a new batch
  ASSERT_EQ(kord_bulk_settag(scanner.get(), ".s.batchidx", "0"), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/dir/c.mp4"))) << "not before the commit";
  ASSERT_EQ(kord_bulk_commit(scanner.get()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4"), at("p1/dir/c.mp4")));
  // Tags the condition does not name leave the links alone; rolled back changes never show.
  tag(at("p1/b.mp4"), {{".s.hash", "ffff"}});
  ASSERT_EQ(kord_bulk_deltag(scanner.get(), ".s.filetype"), 0);
  scanner.reset();
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4"), at("p1/dir/c.mp4")));

  ASSERT_EQ(kord_move(at("p1/dir").c_str(), at("p2/moved").c_str()), 0);
  ASSERT_EQ(kord_move(at("p1/b.mp4").c_str(), at("p2/b.mp4").c_str()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p2/b.mp4"), at("p2/moved/c.mp4")));
  ASSERT_EQ(kord_delete(at("p2/moved").c_str()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p2/b.mp4")));
  pending(at("p1/e.mp4"));
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p2").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.batchidx", "9"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/e.mp4")));
  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }), 0);
  EXPECT_THAT(linksIn(dir), IsEmpty());
}

TEST_F(KordViewTest, ConditionsRepairsCreateAndDelete) {
  pending(at("p1/a.mp4"));
  pending(at("p1/b.mp4"));
  const std::string dir = makeView();
  // A refused condition leaves the view as it was; a new one rebuilds it.
  EXPECT_NE(kord_view_set_cond(kView, "@.s.tbp@ exists or @x@ exists"), 0);
  EXPECT_EQ(linksIn(dir).size(), 2u);
  ASSERT_EQ(kord_view_set_cond(kView, "@.s.batchidx@='1'"), 0);
  EXPECT_THAT(linksIn(dir), IsEmpty());
  ASSERT_EQ(kord_view_set_cond(kView, kCondition), 0);
  // Someone wiped /tmp, or left junk behind: get_path rebuilds it.
  ASSERT_EQ(::unlink((dir + "/" + linksIn(dir).begin()->first).c_str()), 0);
  ASSERT_EQ(::symlink("/nowhere", (dir + "/junk").c_str()), 0);
  ASSERT_TRUE(known(kView));
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/b.mp4")));
  ASSERT_GT(std::filesystem::remove_all(dir), 0u);
  ASSERT_TRUE(known(kView));
  EXPECT_EQ(linksIn(dir).size(), 2u);
  char tiny[8];
  EXPECT_EQ(kord_view_get_path(kView, tiny, sizeof tiny), 0);
  // A name left by an earlier daemon with the same process id is taken over.
  EXPECT_EQ(kord_view_create(kView), 0);
  EXPECT_EQ(linksIn(dir).size(), 2u);
  ASSERT_EQ(kord_view_delete(kView), 0) << kord::lastError().message;
  EXPECT_FALSE(exists(dir));
  EXPECT_FALSE(known(kView));
  pending(at("p1/c.mp4"));
  EXPECT_FALSE(exists(dir)) << "later commits do not bring it back";
  for (const char* bad : {"", "a/b", "..", "."}) EXPECT_NE(kord_view_create(bad), 0) << bad;
}

// Views of a process that is gone (killed during a batch) or of an earlier
// boot stop receiving links: the next commit or view operation deletes them.
TEST_F(KordViewTest, ViewsWhoseCreatorIsGoneOrOfAnEarlierBootAreDeleted) {
  pending(at("p1/a.mp4"));
  Pipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const char ok = makeView("dead").empty() ? '0' : '1';
    if (::write(pipe.write_end.get(), &ok, 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  pipe.write_end.reset();
  char ok = 0;
  ASSERT_EQ(::read(pipe.read_end.get(), &ok, 1), 1);
  ASSERT_TRUE(::kill(pid, SIGKILL) == 0 && ::waitpid(pid, nullptr, 0) == pid);
  ASSERT_EQ(ok, '1') << "the child could not make its view";
  ASSERT_EQ(linksIn(sandbox_ / "views/dead").size(), 1u);
  pending(at("p1/b.mp4"));
  EXPECT_FALSE(exists(sandbox_ / "views/dead"));
  EXPECT_FALSE(known("dead")) << "its record is gone too";
  const std::string live = makeView("live");
  EXPECT_EQ(linksIn(live).size(), 2u);
  // This process's view as if made before a reboot, its pid now another process's.
  sqlite3* db = nullptr;
  ASSERT_EQ(::sqlite3_open(database().c_str(), &db), SQLITE_OK);
  EXPECT_EQ(::sqlite3_exec(db, "UPDATE views SET creator_boot = creator_boot + 1", nullptr, nullptr, nullptr),
            SQLITE_OK);
  ::sqlite3_close(db);
  EXPECT_EQ(linksIn(makeView("next")).size(), 2u);
  EXPECT_FALSE(exists(live));
  EXPECT_FALSE(known("live"));
}

}  // namespace
}  // namespace zibd::test
