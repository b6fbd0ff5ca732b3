// The host tag store on a real SQLite file, and the daemon's threads at once (TSan too).
#include <gmock/gmock.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <atomic>
#include <thread>
#include "common/file_descriptor.h"
#include "host/kord/condition.h"
#include "host/kord/failure.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {
using ::testing::ElementsAre;
using std::filesystem::exists;
using namespace std::string_view_literals;

class KordTagsTest : public KordTest { void SetUp() override { KordTest::SetUp(); configure(); } };

TEST_F(KordTagsTest, BulkHandleSetsGetsAndDeletesTagsOfFilesBelowTheRoot) {
  const std::string file = at("p1/Media/movie.mp4");
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), file.c_str()), 0) << kord::lastError().message;
  char value[32];
  // A file new to the database has no tags: this is how the scanner tells new files.
  EXPECT_NE(kord_bulk_gettag(h.get(), ".s.mdt", value, sizeof value), 0);
  EXPECT_EQ(kord::lastError().status, kord::Status::kNotFound);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "STDVIDEO"), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "STDAUDIO"), 0);  // replaces
  EXPECT_EQ(tagsOf(file), "unknown") << "not before the commit";
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", value, sizeof value), 0);  // but the handle sees it
  EXPECT_STREQ(value, "STDAUDIO");
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO .s.tbp=1");
  ASSERT_EQ(kord_bulk_deltag(h.get(), ".s.tbp"), 0);
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO");
  char small[5];  // truncated to the buffer, always terminated
  ASSERT_EQ(kord_bulk_gettag(h.get(), ".s.filetype", small, sizeof small), 0);
  EXPECT_STREQ(small, "STDA");
  for (const std::string& bad : {std::string("/etc/passwd"), root() + "x/a.mp4", std::string("relative/a.mp4"),
                                 at("p1/../../escape.mp4"), at("p1//a.mp4"), at("p1/dir/"), std::string()}) {
    EXPECT_NE(kord_bulk_setpath(h.get(), bad.c_str()), 0) << bad;
    EXPECT_EQ(kord::lastError().status, kord::Status::kBadArgument) << bad;
    EXPECT_NE(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0) << "nothing stays selected after " << bad;
  }
  EXPECT_EQ(kord_bulk_setpath(h.get(), root().c_str()), 0) << "the root itself is below the root";
  // Uncommitted changes die with the handle.
  ASSERT_EQ(kord_bulk_setpath(h.get(), file.c_str()), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.filetype", "changed"), 0);
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/never.mp3").c_str()), 0);
  ASSERT_EQ(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0);
  h.reset();
  EXPECT_EQ(tagsOf(file), ".s.filetype=STDAUDIO");
  EXPECT_EQ(files(), std::vector<std::string>{file});
}

// Subtree operations never touch a sibling sharing the prefix or a name LIKE or GLOB would read as a pattern.
TEST_F(KordTagsTest, RecursiveTagMoveAndDeleteTouchTheSubtreeOnly) {
  const std::vector<std::string> inside = {at("p1/a/b/one.mp4"), at("p1/a/b/deep/two.mp4")};
  const std::vector<std::string> outside = {at("p1/a/bc/three.mp4"), at("p1/a/b.mp4"), at("p1/a/b%/x.mp4"),
                                            at("p1/a/b_/x.mp4"), at("p1/a/b[1]*.mp4")};
  for (const auto* set : {&inside, &outside})
    for (const auto& f : *set) tag(f, {{".s.invisible", "0"}});
  Handle h = open();
  ASSERT_TRUE(!kord_bulk_setpath(h.get(), at("p1/a/b").c_str()) &&  // a directory the database does not know
              !kord_bulk_settag_recursive(h.get(), ".s.invisible", "1") && !kord_bulk_commit(h.get()));
  EXPECT_EQ(tagsOf(at("p1/a/b")), ".s.invisible=1");
  for (const auto& f : inside) EXPECT_EQ(tagsOf(f), ".s.invisible=1") << f;
  for (const auto& f : outside) EXPECT_EQ(tagsOf(f), ".s.invisible=0") << f;
  ASSERT_EQ(kord_move(at("p1/a/b").c_str(), at("p2/z").c_str()), 0) << kord::lastError().message;
  EXPECT_THAT(files(at("p2")), ElementsAre(at("p2/z"), at("p2/z/deep/two.mp4"), at("p2/z/one.mp4")));
  // A file onto a known one: the destination's old tags go, as rename(2) replaces it.
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

// kord_cleanup_attached: the check is a plain function pointer, so its state is global.
std::vector<std::string> g_checked;
int g_stop = 0;
int dropNamesWithGone(const char* path) {  // and raises the stop flag at the 300th check
  g_checked.push_back(path);
  if (g_checked.size() == 300) std::atomic_ref<int>(g_stop).store(1);
  return std::string(path).find("gone") != std::string::npos ? 1 : 0;
}
int cleanup(const std::string& dir, kord_check_fn check = dropNamesWithGone) {
  return kord_cleanup_attached(dir.c_str(), &g_stop, check);
}

TEST_F(KordTagsTest, CleanupDropsWhatTheCheckRejectsBelowThePathAndStopsOnTheFlag) {
  for (const char* f : {"p1", "p1/keep.mp4", "p1/gone.mp4", "p1/sub/gone-too.mp3", "p1x/gone.mp4", "p2/gone.mp4"})
    tag(at(f), {{".s.hash", "1"}});
  ASSERT_EQ(cleanup(at("p1")), 0) << kord::lastError().message;
  EXPECT_THAT(g_checked, ElementsAre(at("p1"), at("p1/gone.mp4"), at("p1/keep.mp4"), at("p1/sub/gone-too.mp3")));
  EXPECT_THAT(files(), ElementsAre(at("p1"), at("p1/keep.mp4"), at("p1x/gone.mp4"), at("p2/gone.mp4")));
  // Renamed between the check and the drop: kept under the new names.
  auto rename = [](const char* path) { return kord_move(path, (std::string(path) + ".moved").c_str()) == 0 ? 1 : 0; };
  ASSERT_EQ(cleanup(at("p1"), rename), 0);
  EXPECT_THAT(files(), ElementsAre(at("p1.moved"), at("p1.moved/keep.mp4"), at("p1x/gone.mp4"), at("p2/gone.mp4")));
  EXPECT_NE(cleanup("relative"), 0);
  // Files are checked a chunk at a time (fewer than 300); the flag is polled before every file.
  Handle h = open();
  for (int i = 1000; i < 1600; ++i)
    ASSERT_TRUE(!kord_bulk_setpath(h.get(), at("p2/gone/f" + std::to_string(i)).c_str()) &&
                !kord_bulk_settag(h.get(), ".s.hash", "x"));
  ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  g_checked.clear();
  EXPECT_NE(cleanup(at("p2/gone")), 0);
  EXPECT_EQ(g_checked.size(), 300u);
  ASSERT_EQ(files(at("p2/gone")).size(), 300u);
  EXPECT_EQ(files(at("p2/gone")).front(), at("p2/gone/f1300")) << "the decisions so far are kept";
  g_checked.clear();
  EXPECT_NE(cleanup(at("p2/gone")), 0) << "raised before the start";
  EXPECT_TRUE(g_checked.empty());
  g_stop = 0;
  ASSERT_EQ(cleanup(at("p2/gone"), [](const char* path) { return g_checked.emplace_back(path).empty() ? 1 : 0; }), 0);
  EXPECT_EQ(g_checked.size(), 300u) << "each kept file checked once";
  EXPECT_EQ(files(at("p2/gone")).size(), 300u);
}

// The database is the one kord.ini names, followed on its changes and the update signal; without, calls fail.
TEST_F(KordTest, FollowsTheConfigurationAndFailsWithoutOne) {
  auto commit = [](kord_bulk_t* h, const std::string& path) {
    return !kord_bulk_setpath(h, path.c_str()) && !kord_bulk_settag(h, ".s.tbp", "1") && !kord_bulk_commit(h);
  };
  auto signal = [&] { ::close(::open((sandbox_ / "update").c_str(), O_RDONLY | O_CLOEXEC)); };  // inotify
  auto noDatabase = [&](const std::string& why) {
    SCOPED_TRACE(why);
    Handle h = open();
    EXPECT_FALSE(commit(h.get(), at("p1/a.mp4")));
    EXPECT_EQ(kord::lastError().status, kord::Status::kNoDatabase);
    int stop = 0;
    EXPECT_TRUE(kord_move(at("p1/a").c_str(), at("p1/b").c_str()) && kord_delete(at("p1/a.mp4").c_str()) &&
                kord_view_create("v") && kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }));
  };
  Handle h = open();  // the scanner opens its handle before storage is chosen
  noDatabase("no file");
  configure("p1");
  signal();
  ASSERT_TRUE(commit(h.get(), at("p1/a.mp4"))) << kord::lastError().message;
  struct stat st;
  EXPECT_EQ(::stat(database("p1").c_str(), &st), 0) << "made on the chosen partition";
  configure("p2", "1700000100");
  signal();
  ASSERT_TRUE(commit(h.get(), at("p2/b.mp4"))) << kord::lastError().message;
  EXPECT_EQ(files(), std::vector<std::string>{at("p2/b.mp4")});
  configure("p1", "17");  // no signal: the change of the file alone is enough
  EXPECT_EQ(files(), std::vector<std::string>{at("p1/a.mp4")});
  // Same inode, size and modification time: only the signal tells.
  ASSERT_EQ(::stat((sandbox_ / "kord.ini").c_str(), &st), 0);
  configure("p2", "17");
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (sandbox_ / "kord.ini").c_str(), times, 0), 0);
  signal();
  ASSERT_TRUE(commit(h.get(), at("p2/c.mp4")));
  EXPECT_EQ(files(), (std::vector<std::string>{at("p2/b.mp4"), at("p2/c.mp4")}));
  // The daemon empties it when its disk goes away.
  for (const std::string& text : {std::string(""), std::string("dms-metadata-db-1 no colons\n"),
                                  "dms-metadata-db-1:relative/root:" + database() + "\n"}) {
    sandbox_.write("kord.ini", text);
    signal();
    noDatabase(text);
  }
  configure("p1");
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), ".s.tbp=1") << "nothing was touched meanwhile";
}

constexpr const char* kView = "zibprof.4242.STDVIDEO.0.1";
constexpr const char* kDaemon = "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'";

TEST_F(KordTagsTest, ConditionsMatchExactlyTheTagsTheyNameAndMalformedOnesAreRefused) {
  const struct { const char* text; std::vector<std::pair<std::string, std::string>> tags; bool matches; } cases[] = {
      {kDaemon, {{".s.batchidx", "0"}, {".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}}, true},
      {kDaemon, {{".s.tbp", ""}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}, {".s.hash", "x"}}, true},
      {kDaemon, {{".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO0"}, {".s.batchidx", "0"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "0"}, {".s.batchidx", "STDVIDEO"}}, false},
      {" @a@ = ''  and  @b c@ exists ", {{"a", ""}, {"b c", "1"}}, true},
      {" @a@ = ''  and  @b c@ exists ", {{"a", "x"}, {"b c", "1"}}, false},
      {"@a@='x y and z'", {{"a", "x y and z"}}, true}, {"@a@='x y and z'", {{"a", "x y"}}, false},
  };
  for (const auto& c : cases) EXPECT_EQ(kord::Condition::parse(c.text).matches(c.tags), c.matches) << c.text;
  // A NUL byte (possible through the C++ API) must not cut the SQL text short.
  for (std::string_view bad : {""sv, "   "sv, "@a@"sv, "@a@ exists or @b@ exists"sv, "@a@ exists and"sv,
                               "@a@ exists and and @b@ exists"sv, "@a@='x"sv, "@@ exists"sv, "@a exists"sv,
                               "a exists"sv, "@a@ existsx"sv, "@a@=x"sv, "@a@ exists @b@ exists"sv,
                               "@a@='x'and @b@ exists"sv, "@a@='x' trailing"sv, "@a@ exists AND @b@ exists"sv,
                               "@a@!='x'"sv, "@a\0b@='4'"sv, "@it's@='x\0y'"sv}) {
    std::vector<std::string> paths;
    EXPECT_THROW(kord::Condition::parse(bad), kord::Failure) << bad;
    EXPECT_EQ(kord::query(std::string(bad), &paths), kord::Status::kBadArgument) << bad;
    EXPECT_THAT(kord::lastError().message, ::testing::HasSubstr("bad condition")) << bad;
  }
}

// The scanner's handle, the main thread's moves and deletes and the bus thread's handles at once.
TEST_F(KordTagsTest, ScannerMainAndBusThreadsWorkSideBySide) {
  ASSERT_TRUE(kord_view_create("v") == 0 && kord_view_set_cond("v", "@.s.tbp@ exists") == 0);
  std::atomic<int> failures{0}; std::atomic<bool> scanned{false};
  auto ok = [&](bool failed) { failures += failed ? 1 : 0; };
  std::thread scanner([&] {
    Handle h = open();
    for (int i = 0; i < 300; ++i)
      ok(kord_bulk_setpath(h.get(), at("p1/s/f" + std::to_string(i)).c_str()) ||
         kord_bulk_settag(h.get(), ".s.tbp", "1") || kord_bulk_commit(h.get()));
    scanned = true;
  });
  std::thread main_thread([&] {
    for (int i = 0; i < 100; ++i) {
      const std::string from = at("p2/m/a" + std::to_string(i)), to = at("p2/m/b" + std::to_string(i));
      tag(from, {{".s.tbp", "1"}});
      ok(kord_move(from.c_str(), to.c_str()) || (i % 2 && kord_delete(to.c_str())));
    }
  });
  std::thread bus([&] {
    for (int i = 0, last = 0; !last; ++i) {  // the last round, after the scanner, hides all
      last = i >= 40 && scanned;
      Handle h = open();
      ok(kord_bulk_setpath(h.get(), at("p1/s").c_str()) ||
         kord_bulk_settag_recursive(h.get(), ".s.invisible", last || i % 2 ? "1" : "0") || kord_bulk_commit(h.get()));
    }
  });
  char dir[100];
  for (int i = 0; i < 20; ++i) ok(kord_view_get_path("v", dir, sizeof dir) == 0);
  for (std::thread* t : {&scanner, &main_thread, &bus}) t->join();
  EXPECT_EQ(failures.load(), 0) << kord::lastError().message;
  std::vector<std::string> pending;
  ASSERT_EQ(kord::query("@.s.tbp@ exists", &pending), kord::Status::kOk);
  EXPECT_EQ(pending.size(), 350u);
  EXPECT_EQ(files(at("p2/m")).size(), 50u);
  EXPECT_EQ(tagsOf(at("p1/s/f0")), ".s.invisible=1 .s.tbp=1");
  EXPECT_EQ(linkTargets(dir), pending) << "the view followed every commit";
}

class KordViewTest : public KordTagsTest {  // views: directories of links following committed tags
 protected:
  // Tags a file as the scanner tags a new file of the given batch.
  static void pending(const std::string& path, const std::string& batch = "0", const char* type = "STDVIDEO") {
    tag(path, {{".s.hash", "0011"}, {".s.tbp", "1"}, {".s.filetype", type}, {".s.batchidx", batch}});
  }
  static std::string makeView(const char* name = kView, const char* condition = kDaemon) {
    EXPECT_EQ(kord_view_create(name), 0) << kord::lastError().message;
    EXPECT_EQ(kord_view_set_cond(name, condition), 0) << kord::lastError().message;
    char path[100] = "";  // the daemon's buffer
    EXPECT_NE(kord_view_get_path(name, path, sizeof path), 0) << kord::lastError().message;
    return path;
  }
  static bool known(const char* name) { char path[100]; return kord_view_get_path(name, path, sizeof path) != 0; }
};

// A new view is filled through SQL (names and values literal); commits, moves, deletes, cleanups follow.
TEST_F(KordViewTest, HoldsALinkPerMatchingFileAndFollowsEveryChange) {
  Handle scanner = open();  // opened long before the view exists, as the daemon's is
  pending(at("p1/a.mp4"));
  pending(at("p1/sub/b.mkv"));
  pending(at("p1/dir/b.mkv"));  // same name, different file
  pending(at("p1/c.mp4"), "1");
  pending(at("p1/d.mp3"), "0", "STDAUDIO");
  pending(at("p1/swapped.mp4"), "STDVIDEO", "0");  // only a wrong binding of the values matches
  pending(at("p1/e.mp4"), "2");  // more videos than batch 0 files: the SQL probes the batch first
  const std::string dir = makeView();
  EXPECT_EQ(dir, sandbox_ / (std::string("views/") + kView));
  ASSERT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/dir/b.mkv"), at("p1/sub/b.mkv")));
  // Profilers see the file's own name and extension.
  for (const auto& [name, target] : linksIn(dir)) EXPECT_TRUE(name.ends_with(target.substr(target.rfind('/') + 1)));
  tag(at("p1/quote.mp4"), {{"it's", "x"}, {"%", "_"}});
  tag(at("p1/other.mp4"), {{"its", "x"}, {"a", "_"}});
  EXPECT_THAT(linkTargets(makeView("quotes", "@it's@ exists and @%@='_'")), ElementsAre(at("p1/quote.mp4")));
  ASSERT_TRUE(!kord_bulk_setpath(scanner.get(), at("p1/a.mp4").c_str()) && !kord_bulk_deltag(scanner.get(), ".s.tbp"));
  ASSERT_TRUE(!kord_bulk_setpath(scanner.get(), at("p1/c.mp4").c_str()) &&  // a new batch, after the profiler's mark
              !kord_bulk_settag(scanner.get(), ".s.batchidx", "0"));
  EXPECT_EQ(linkTargets(dir).front(), at("p1/a.mp4")) << "not before the commit";
  ASSERT_EQ(kord_bulk_commit(scanner.get()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/c.mp4"), at("p1/dir/b.mkv"), at("p1/sub/b.mkv")));
  // Tags the condition does not name leave the links alone; rolled back changes never show.
  tag(at("p1/c.mp4"), {{".s.hash", "ffff"}});
  ASSERT_EQ(kord_bulk_deltag(scanner.get(), ".s.filetype"), 0);
  scanner.reset();
  EXPECT_EQ(linkTargets(dir).size(), 3u);
  ASSERT_EQ(kord_move(at("p1/dir").c_str(), at("p2/moved").c_str()), 0);
  ASSERT_EQ(kord_move(at("p1/c.mp4").c_str(), at("p2/c.mp4").c_str()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/sub/b.mkv"), at("p2/c.mp4"), at("p2/moved/b.mkv")));
  ASSERT_EQ(kord_delete(at("p2/moved").c_str()), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/sub/b.mkv"), at("p2/c.mp4")));
  Handle h = open();
  ASSERT_TRUE(!kord_bulk_setpath(h.get(), at("p2").c_str()) &&
              !kord_bulk_settag_recursive(h.get(), ".s.batchidx", "9") && !kord_bulk_commit(h.get()));
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/sub/b.mkv")));
  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }), 0);
  EXPECT_THAT(linksIn(dir), ::testing::IsEmpty());
}

TEST_F(KordViewTest, ConditionsRepairsCreateAndDelete) {
  pending(at("p1/a.mp4"));
  pending(at("p1/b.mp4"));
  const std::string dir = makeView();
  // A refused condition leaves the view as it was; a new one rebuilds it.
  EXPECT_NE(kord_view_set_cond(kView, "@.s.tbp@ exists or @x@ exists"), 0);
  EXPECT_EQ(linksIn(dir).size(), 2u);
  ASSERT_EQ(kord_view_set_cond(kView, "@.s.batchidx@='1'"), 0);
  EXPECT_THAT(linksIn(dir), ::testing::IsEmpty());
  ASSERT_TRUE(kord_view_set_cond(kView, kDaemon) == 0 && linksIn(dir).size() == 2);
  // Someone wiped /tmp, or left junk behind: get_path rebuilds it.
  ASSERT_EQ(::unlink((dir + "/" + linksIn(dir).begin()->first).c_str()), 0);
  ASSERT_EQ(::symlink("/nowhere", (dir + "/junk").c_str()), 0);
  ASSERT_TRUE(known(kView));
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/b.mp4")));
  ASSERT_GT(std::filesystem::remove_all(dir), 0u);
  ASSERT_TRUE(known(kView));
  EXPECT_EQ(linksIn(dir).size(), 2u);
  // A name left by an earlier daemon with the same process id is taken over.
  EXPECT_EQ(kord_view_create(kView), 0);
  EXPECT_EQ(linksIn(dir).size(), 2u);
  ASSERT_EQ(kord_view_delete(kView), 0) << kord::lastError().message;
  EXPECT_FALSE(exists(dir) || known(kView));
  pending(at("p1/c.mp4"));
  EXPECT_FALSE(exists(dir)) << "later commits do not bring it back";
  for (const char* bad : {"", "a/b", "..", "."}) EXPECT_NE(kord_view_create(bad), 0) << bad;
}

// Views whose creator is gone or of an earlier boot: the next commit or view operation deletes them.
TEST_F(KordViewTest, ViewsWhoseCreatorIsGoneOrOfAnEarlierBootAreDeleted) {
  pending(at("p1/a.mp4"));
  Pipe pipe;
  ASSERT_TRUE(pipe.open().ok());
  const pid_t pid = ::fork();
  if (pid == 0 && ::write(pipe.write_end.get(), makeView("dead").empty() ? "0" : "1", 1) == 1) ::pause();
  if (pid == 0) ::_exit(1);
  pipe.write_end.reset();
  char ok = 0;
  ASSERT_EQ(::read(pipe.read_end.get(), &ok, 1), 1);
  ASSERT_TRUE(pid > 0 && ::kill(pid, SIGKILL) == 0 && ::waitpid(pid, nullptr, 0) == pid);
  ASSERT_EQ(ok, '1') << "the child could not make its view";
  ASSERT_EQ(linksIn(sandbox_ / "views/dead").size(), 1u);
  pending(at("p1/b.mp4"));
  EXPECT_FALSE(exists(sandbox_ / "views/dead") || known("dead")) << "its directory and record go";
  const std::string live = makeView("live");
  EXPECT_EQ(linksIn(live).size(), 2u);
  // This process's view as if made before a reboot, its pid now another process's.
  sqlite3* db = nullptr;
  ASSERT_EQ(::sqlite3_open(database().c_str(), &db), SQLITE_OK);
  EXPECT_EQ(::sqlite3_exec(db, "UPDATE views SET creator_boot = creator_boot + 1", 0, 0, 0), SQLITE_OK);
  ::sqlite3_close(db);
  EXPECT_EQ(linksIn(makeView("next")).size(), 2u);
  EXPECT_FALSE(exists(live) || known("live"));
}
}  // namespace
}  // namespace zibd::test
