// Views: directories of links that follow the committed tags.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "common/file_descriptor.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kView = "zibprof.4242.STDVIDEO.0.1";
constexpr const char* kCondition =
    "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'";
constexpr std::size_t kViewPathSize = 100;  // the daemon's buffer

class KordViewTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
  }

  // Tags a file as the scanner tags a new video of the given batch.
  void pending(const std::string& path, const std::string& batch, const char* type = "STDVIDEO") {
    tag(path, {{".s.hash", "0011223344556677"},
               {".s.invisible", "0"},
               {".s.tbp", "1"},
               {".s.filetype", type},
               {".s.batchidx", batch}});
  }

  std::string makeView(const char* name = kView, const char* condition = kCondition) {
    EXPECT_EQ(kord_view_create(name), 0) << kord::lastError().message;
    EXPECT_EQ(kord_view_set_cond(name, condition), 0) << kord::lastError().message;
    char path[kViewPathSize];
    EXPECT_NE(kord_view_get_path(name, path, sizeof path), 0) << kord::lastError().message;
    return path;
  }
};

TEST_F(KordViewTest, HoldsOneAbsoluteLinkPerMatchingFile) {
  pending(at("p1/Media/a.mp4"), "0");
  pending(at("p1/Media/sub/b.mkv"), "0");
  pending(at("p1/Media/other/b.mkv"), "0");  // same name, different file
  pending(at("p1/Media/c.mp4"), "1");
  pending(at("p1/Media/d.mp3"), "0", "STDAUDIO");
  const std::string dir = makeView();
  EXPECT_LT(dir.size(), kViewPathSize);
  EXPECT_EQ(dir, sandbox_ / (std::string("views/") + kView));
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/Media/a.mp4"), at("p1/Media/other/b.mkv"),
                                            at("p1/Media/sub/b.mkv")));
  for (const auto& [name, target] : linksIn(dir)) {
    EXPECT_EQ(target.front(), '/');
    // The file's own name (and extension) stays visible to profilers.
    EXPECT_THAT(name, ::testing::EndsWith(target.substr(target.rfind('/') + 1)));
  }
}

TEST_F(KordViewTest, CommitsMoveFilesInAndOutOfTheView) {
  Handle scanner = open();  // opened long before the view exists, as the daemon's is
  pending(at("p1/a.mp4"), "0");
  pending(at("p1/b.mp4"), "1");
  const std::string dir = makeView();
  ASSERT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4")));

  // Leaving: the profiler marking of one file.
  ASSERT_EQ(kord_bulk_setpath(scanner.get(), at("p1/a.mp4").c_str()), 0);
  ASSERT_EQ(kord_bulk_deltag(scanner.get(), ".s.tbp"), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"))) << "not before the commit";
  ASSERT_EQ(kord_bulk_commit(scanner.get()), 0);
  EXPECT_THAT(linkTargets(dir), IsEmpty());

  // Entering.
  ASSERT_EQ(kord_bulk_setpath(scanner.get(), at("p1/b.mp4").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag(scanner.get(), ".s.batchidx", "0"), 0);
  ASSERT_EQ(kord_bulk_commit(scanner.get()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4")));

  // A new file, tagged and committed in one go.
  pending(at("p1/new.mp4"), "0");
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4"), at("p1/new.mp4")));

  // Changes of tags the condition does not name leave the links alone.
  tag(at("p1/b.mp4"), {{".s.hash", "ffff"}});
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4"), at("p1/new.mp4")));

  // Rolled back changes never show.
  ASSERT_EQ(kord_bulk_setpath(scanner.get(), at("p1/new.mp4").c_str()), 0);
  ASSERT_EQ(kord_bulk_deltag(scanner.get(), ".s.filetype"), 0);
  scanner.reset();
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4"), at("p1/new.mp4")));
}

TEST_F(KordViewTest, MovesDeletesAndRecursiveTagsKeepLinksRight) {
  pending(at("p1/dir/a.mp4"), "0");
  pending(at("p1/dir/b.mp4"), "0");
  pending(at("p1/keep.mp4"), "0");
  const std::string dir = makeView();
  ASSERT_EQ(linksIn(dir).size(), 3u);

  ASSERT_EQ(kord_move(at("p1/dir").c_str(), at("p2/moved").c_str()), 0);
  EXPECT_THAT(linkTargets(dir),
              ElementsAre(at("p1/keep.mp4"), at("p2/moved/a.mp4"), at("p2/moved/b.mp4")));
  ASSERT_EQ(kord_move(at("p2/moved/a.mp4").c_str(), at("p2/renamed.mp4").c_str()), 0);
  EXPECT_THAT(linkTargets(dir),
              ElementsAre(at("p1/keep.mp4"), at("p2/moved/b.mp4"), at("p2/renamed.mp4")));

  ASSERT_EQ(kord_delete(at("p2/moved").c_str()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/keep.mp4"), at("p2/renamed.mp4")));

  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag_recursive(h.get(), ".s.batchidx", "9"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p2/renamed.mp4")));

  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }), 0);
  EXPECT_THAT(linksIn(dir), IsEmpty());
}

// The daemon's marking of a profiled batch: read at most 50 links a pass,
// mark each file, commit, and open the directory again.
TEST_F(KordViewTest, TheDaemonsMarkingLoopEmptiesTheViewInPasses) {
  constexpr int kFiles = 120;
  constexpr std::size_t kPerPass = 50;
  for (int i = 0; i < kFiles; ++i) {
    std::string relative = "p1/Media/v" + std::to_string(i) + ".mp4";
    sandbox_.write("uuidmount/" + relative, "x");
    pending(at(relative), "0");
  }
  pending(at("p1/Media/other-batch.mp4"), "1");
  const std::string dir = makeView();
  ASSERT_EQ(linksIn(dir).size(), static_cast<std::size_t>(kFiles));

  Handle h = open();
  std::multiset<std::string> marked;
  int passes = 0;
  for (bool ran_out = false; !ran_out && passes < 10;) {
    ++passes;
    std::vector<std::string> batch;
    DIR* d = ::opendir(dir.c_str());
    ASSERT_NE(d, nullptr);
    while (batch.size() < kPerPass) {
      const struct dirent* e = ::readdir(d);
      if (!e) {
        ran_out = true;
        break;
      }
      if (e->d_type != DT_LNK) continue;
      char resolved[PATH_MAX];
      if (::realpath((dir + "/" + e->d_name).c_str(), resolved)) batch.push_back(resolved);
    }
    ::closedir(d);
    for (const auto& file : batch) {
      ASSERT_EQ(kord_bulk_setpath(h.get(), file.c_str()), 0) << file;
      EXPECT_EQ(kord_bulk_deltag(h.get(), ".s.tbp"), 0);
      EXPECT_EQ(kord_bulk_deltag(h.get(), ".s.filetype"), 0);
      EXPECT_EQ(kord_bulk_settag(h.get(), ".s.mdt", "20240102030405"), 0);
      EXPECT_EQ(kord_bulk_deltag(h.get(), ".s.batchidx"), 0);
      ASSERT_EQ(kord_bulk_commit(h.get()), 0);
      marked.insert(file);
    }
  }
  EXPECT_EQ(passes, 3);
  EXPECT_EQ(marked.size(), static_cast<std::size_t>(kFiles));
  EXPECT_EQ(std::set<std::string>(marked.begin(), marked.end()).size(), marked.size())
      << "no file was marked twice";
  EXPECT_THAT(linksIn(dir), IsEmpty());
  EXPECT_EQ(tagsOf(at("p1/Media/v7.mp4")),
            ".s.hash=0011223344556677 .s.invisible=0 .s.mdt=20240102030405");
  EXPECT_EQ(tagsOf(at("p1/Media/other-batch.mp4")).find(".s.mdt"), std::string::npos);
}

TEST_F(KordViewTest, ConditionsAreCheckedAndAViewKeepsItsConditionOnARefusal) {
  pending(at("p1/a.mp4"), "0");
  const std::string dir = makeView();
  for (const char* bad :
       {"", "@.s.tbp@", "@.s.tbp@ exists or @x@ exists", "@.s.tbp@=1", "@.s.tbp@ exists and"}) {
    EXPECT_NE(kord_view_set_cond(kView, bad), 0) << bad;
    EXPECT_EQ(kord::lastError().status, kord::Status::kBadArgument) << bad;
  }
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4")));
  EXPECT_NE(kord_view_set_cond("no-such-view", kCondition), 0);
  EXPECT_NE(kord_view_set_cond(kView, nullptr), 0);

  // A new condition rebuilds the directory.
  ASSERT_EQ(kord_view_set_cond(kView, "@.s.batchidx@='1'"), 0);
  EXPECT_THAT(linksIn(dir), IsEmpty());
}

TEST_F(KordViewTest, GetPathRepairsTheDirectoryAndNeedsRoom) {
  pending(at("p1/a.mp4"), "0");
  pending(at("p1/b.mp4"), "0");
  const std::string dir = makeView();
  // Someone wiped /tmp, or left junk behind.
  for (const auto& [name, target] : linksIn(dir)) ::unlink((dir + "/" + name).c_str());
  ASSERT_EQ(::symlink("/nowhere", (dir + "/junk").c_str()), 0);
  char path[kViewPathSize];
  ASSERT_NE(kord_view_get_path(kView, path, sizeof path), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/b.mp4")));
  ASSERT_EQ(::system(("rm -rf '" + dir + "'").c_str()), 0);
  ASSERT_NE(kord_view_get_path(kView, path, sizeof path), 0);
  EXPECT_EQ(linksIn(dir).size(), 2u);

  char tiny[8];
  EXPECT_EQ(kord_view_get_path(kView, tiny, sizeof tiny), 0);
  EXPECT_EQ(kord_view_get_path("no-such-view", path, sizeof path), 0);
}

TEST_F(KordViewTest, CreateIsIdempotentAndDeleteRemovesTheDirectory) {
  pending(at("p1/a.mp4"), "0");
  const std::string dir = makeView();
  // A name left by an earlier daemon with the same process id is taken over.
  EXPECT_EQ(kord_view_create(kView), 0);
  EXPECT_EQ(linksIn(dir).size(), 1u);

  ASSERT_EQ(kord_view_delete(kView), 0) << kord::lastError().message;
  struct stat st;
  EXPECT_NE(::lstat(dir.c_str(), &st), 0) << "the directory is gone";
  char path[kViewPathSize];
  EXPECT_EQ(kord_view_get_path(kView, path, sizeof path), 0);
  EXPECT_NE(kord_view_delete(kView), 0);
  // Later commits do not bring it back.
  pending(at("p1/b.mp4"), "0");
  EXPECT_NE(::lstat(dir.c_str(), &st), 0);

  for (const char* bad : {"", "a/b", "..", "."}) EXPECT_NE(kord_view_create(bad), 0) << bad;
  EXPECT_NE(kord_view_create(nullptr), 0);
}

// Views left by a process that is gone (killed during a batch) stop
// receiving links: the next commit or view operation deletes them. So does a
// view made before the system was last booted.
TEST_F(KordViewTest, ViewsWhoseCreatorIsGoneOrOfAnEarlierBootAreDeleted) {
  pending(at("p1/a.mp4"), "0");
  Pipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    pipe.read_end.reset();
    char path[kViewPathSize];
    char ok = kord_view_create("dead") == 0 && kord_view_set_cond("dead", kCondition) == 0 &&
                      kord_view_get_path("dead", path, sizeof path) != 0
                  ? '1'
                  : '0';
    if (::write(pipe.write_end.get(), &ok, 1) != 1) ::_exit(1);
    for (;;) ::pause();
  }
  pipe.write_end.reset();
  char ok = 0;
  ASSERT_EQ(::read(pipe.read_end.get(), &ok, 1), 1);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
  ASSERT_EQ(ok, '1') << "the child could not make its view";
  const std::string dead_dir = sandbox_ / "views/dead";
  ASSERT_EQ(linksIn(dead_dir).size(), 1u);

  // The next commit that a view's condition cares about drops it.
  pending(at("p1/b.mp4"), "0");
  struct stat st;
  EXPECT_NE(::lstat(dead_dir.c_str(), &st), 0) << "the dead creator's directory is gone";
  char path[kViewPathSize];
  EXPECT_EQ(kord_view_get_path("dead", path, sizeof path), 0) << "and so is its record";
  const std::string live_dir = makeView("live", kCondition);
  EXPECT_EQ(linkTargets(live_dir), (std::vector<std::string>{at("p1/a.mp4"), at("p1/b.mp4")}));

  // The live view's creator (this process) as if it had run before a reboot
  // and its pid were now another process's.
  sqlite3* db = nullptr;
  ASSERT_EQ(::sqlite3_open(database().c_str(), &db), SQLITE_OK);
  ASSERT_EQ(::sqlite3_exec(db, "UPDATE views SET creator_boot = creator_boot + 1", nullptr,
                           nullptr, nullptr),
            SQLITE_OK);
  ::sqlite3_close(db);
  makeView("next", kCondition);
  EXPECT_NE(::lstat(live_dir.c_str(), &st), 0);
  EXPECT_EQ(kord_view_get_path("live", path, sizeof path), 0);
  EXPECT_EQ(linksIn(sandbox_ / "views/next").size(), 2u);
}

}  // namespace
}  // namespace zibd::test
