// The watch layer on a real inotify instance: table, watcher thread and event loop.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <mutex>
#include <utility>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"
#include "watch/event_loop.h"
#include "watch/watcher_thread.h"

namespace zibd {
namespace {

using test::waitFor;
using Paths = std::vector<std::string>;

class WatchTest : public test::SandboxTest {
 protected:
  void SetUp() override { test::resetFaults(); ASSERT_TRUE(table_.fsInitWatch().ok()); }
  std::string at(const std::string& relative) const { return sandbox_ / relative; }
  void mkdirs(std::initializer_list<const char*> dirs) { for (const char* dir : dirs) sandbox_.mkdirs(dir); }
  int wd(const std::string& relative) { return table_.descriptorOf(at(relative).c_str()); }
  Paths watched() { return sorted(table_.watchedPaths()); }
  static Paths sorted(Paths paths) { std::ranges::sort(paths); return paths; }
  // The watch descriptor of the next event; -1 when none comes within a second.
  int nextEventDescriptor() {
    struct pollfd pfd = {table_.descriptor(), POLLIN, 0};
    alignas(inotify_event) char buf[4096];
    if (::poll(&pfd, 1, 1000) != 1 || ::read(pfd.fd, buf, sizeof buf) < 16) return -1;
    return reinterpret_cast<const inotify_event*>(buf)->wd;
  }

  std::atomic<int> running_{1};
  WatchRequestQueue queue_;
  WatchTable table_{queue_.addAbortedFlag()};
};

TEST_F(WatchTest, TreeAddWatchesEveryVisibleDirectoryOnceFindsItByPathAndRemovesIt) {
  mkdirs({"m/Artist/Album", "m/Artist/Other", "m/.kord/meta", "m/.hidden"});
  sandbox_.write("m/Artist/song.mp3");
  ASSERT_TRUE(table_.fsAddWatchTree(at("m").c_str(), true).ok());
  const Paths all{at("m"), at("m/Artist"), at("m/Artist/Album"), at("m/Artist/Other")};
  EXPECT_EQ(watched(), all);
  const int calls = test::callCount(test::Call::kInotifyAddWatch);
  EXPECT_TRUE(table_.fsAddWatchTree(at("m").c_str(), true).ok());
  EXPECT_EQ(test::callCount(test::Call::kInotifyAddWatch), calls) << "a known directory was watched again";
  EXPECT_EQ(table_.indexedDescriptors().size(), all.size());
  // A trailing '/' is the same directory, a mere prefix is not, an ancestor has no watch.
  const int album = wd("m/Artist/Album");
  EXPECT_GT(album, 0);
  EXPECT_EQ(wd("m/Artist/Album/"), album);
  for (const char* other : {"m/ArtistXAlbum", "m/Artist/Alb"}) EXPECT_EQ(wd(other), -1) << other;
  EXPECT_EQ(table_.descriptorOf(sandbox_.path().c_str()), 0);
  sandbox_.write("m/Artist/Album/new.mp3");
  EXPECT_EQ(nextEventDescriptor(), album);
  // A removal takes the subtree out of the table, the index and the kernel.
  const int artist = wd("m/Artist");
  EXPECT_TRUE(table_.fsRemoveWatch(at("m/Artist").c_str()).ok());
  EXPECT_EQ(watched(), Paths{at("m")});
  EXPECT_EQ(std::ranges::count_if(table_.indexedDescriptors(), [&](int d) { return d == artist || d == album; }), 0);
  EXPECT_EQ(nextEventDescriptor(), artist);  // IN_IGNORED
  EXPECT_EQ(table_.fsRemoveWatch(at("m/Artist").c_str()).code(), ENOENT);
}

TEST_F(WatchTest, OutOfWatchesStopsTheTreeAndKeepsWhatIsWatched) {
  mkdirs({"m/a/a1", "m/b/b1", "m/c", "n/x"});
  test::ScopedFault fault(test::Call::kInotifyAddWatch, ENOSPC, -1, 3);  // the root and two more succeed
  EXPECT_EQ(table_.fsAddWatchTree(at("m").c_str(), true).code(), ENOSPC);
  EXPECT_EQ(table_.watchedPaths().size(), 3u);
  sandbox_.write("m/file");
  EXPECT_EQ(nextEventDescriptor(), wd("m"));
}

class WatcherTest : public WatchTest {
 protected:
  void SetUp() override { WatchTest::SetUp(); mkdirs({"p/a/a1", "p/b/b1", "p/c"}); }
  WatcherThread watcher_{queue_, table_, running_};
};

// A removal at or above the tree being added stops the add and waits for it; one below does neither.
TEST_F(WatcherTest, RemovalDuringAnAdd) {
  const struct { std::string removed; bool stops; std::size_t watched_after_add, watched_after_removal; } cases[] = {
      {at("p"), true, 1, 0}, {sandbox_.path(), true, 1, 0}, {at("p/a"), false, 6, 4}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.removed);
    queue_.fsQueueAddWatch(at("p"));
    // Holding the table's mutex keeps the add in its first directory.
    std::unique_lock<Mutex> hold(table_.mutex());
    std::thread adder([&] { watcher_.step(); });
    ASSERT_TRUE(waitFor([&] { return queue_.addInProgress(); }));
    std::atomic<bool> returned{false}, add_over_on_return{false};
    std::thread remover([&] {
      queue_.fsQueueRemoveWatch(c.removed);
      add_over_on_return = !queue_.addInProgress();
      returned = true;
    });
    ASSERT_TRUE(waitFor([&] { return queue_.queued().size() == 1 && (c.stops || returned); }));
    EXPECT_EQ(queue_.fsWatchAddAborted(), c.stops);
    hold.unlock();
    adder.join();
    ASSERT_TRUE(waitFor([&] { return returned.load(); })) << "the removal never returned";
    remover.join();
    EXPECT_EQ(add_over_on_return, c.stops);
    EXPECT_FALSE(queue_.fsWatchAddAborted());
    EXPECT_EQ(watched().size(), c.watched_after_add);
    ASSERT_TRUE(watcher_.step());
    EXPECT_EQ(watched().size(), c.watched_after_removal);
  }
}

// A removed tree is not walked any more: its queued add goes.
TEST_F(WatcherTest, RemovalDropsAQueuedAddAndStopEmptiesTheQueueAndEndsTheThread) {
  queue_.fsQueueAddWatch(at("p"));
  queue_.fsQueueRemoveWatch(at("p"));
  EXPECT_EQ(queue_.queued().size(), 1u);
  queue_.fsStopWatcher();
  EXPECT_TRUE(queue_.queued().empty());
  EXPECT_TRUE(table_.fsAddWatch(at("p").c_str()).isStopped());  // until an add finishes
  queue_.finishAdd();
  std::atomic<bool> ended{false};
  std::thread thread([&] { watcher_.run(), ended = true; });
  queue_.fsQueueAddWatch(at("p"));
  EXPECT_TRUE(waitFor([&] { return watched().size() == 6u; }));
  running_.store(0);
  queue_.fsStopWatcher();
  ASSERT_TRUE(waitFor([&] { return ended.load(); })) << "the thread did not end";
  thread.join();
  EXPECT_FALSE(watcher_.step());
}

// Each notice as "<change> file|dir <path>[ from <old path>]", relative to the tree.
struct RecordingNotices : ChangeNotices {
  explicit RecordingNotices(std::string root) : tree(std::move(root) + "/") {}
  Status fsHandleChange(const char* path, const char* old_path, std::uint32_t flags) override {
    std::string n = flags & FS_CHANGE_CREATED ? "created " : flags & FS_CHANGE_WRITTEN ? "written "
                    : flags & FS_CHANGE_DELETED ? "deleted " : "moved ";
    n += (flags & FS_CHANGE_DIR ? "dir " : flags & FS_CHANGE_FILE ? "file " : "") + relative(path);
    notices.push_back(old_path ? n + " from " + relative(old_path) : n);
    return Status();
  }
  void fsFlushChanges() override { ++flushes; }
  std::string relative(const std::string& p) const { return p.substr(p.rfind(tree, 0) == 0 ? tree.size() : 0); }
  std::string tree;
  Paths notices;
  int flushes = 0;
};

class EventLoopTest : public WatchTest {
 protected:
  void SetUp() override {
    WatchTest::SetUp();
    mkdirs({"w/x", "w/y", "w/d/sub", "outside/in/deeper", "outside/in/.hidden"});
    ASSERT_TRUE(table_.fsAddWatchTree(at("w").c_str(), true).ok());
  }
  void rename(const char* from, const char* to) { ASSERT_EQ(::rename(at(from).c_str(), at(to).c_str()), 0) << from; }
  template <typename Pred>
  bool pumpUntil(Pred pred) {
    return waitFor([&] { return pred() || (loop_.step(), pred()); }, std::chrono::seconds(10),
                   std::chrono::milliseconds(0));
  }
  // The notices so far, once a marker file written after them is reported (inotify keeps order).
  Paths taken() {
    const std::string marker = "marker" + std::to_string(markers_++);
    sandbox_.write("w/" + marker);
    Paths& seen = notices_.notices;
    EXPECT_TRUE(pumpUntil([&] { return !seen.empty() && seen.back() == "written file " + marker; }));
    std::erase_if(seen, [&](const std::string& n) { return n.find(marker) != std::string::npos; });
    return std::exchange(seen, {});
  }

  RecordingNotices notices_{at("w")};
  std::time_t now_ = 1700000000;
  int markers_ = 0;
  Pipe termination_ = [] { Pipe pipe; EXPECT_TRUE(pipe.open(O_NONBLOCK).ok()); return pipe; }();
  WatchEventLoop loop_{table_, &notices_, termination_.read_end.get(), nullptr, running_, [this] { return now_; }, 20};
};

TEST_F(EventLoopTest, FilesAndDirectoriesCreatedRenamedAndMoved) {
  FileDescriptor open_file(::open(at("w/x/a.mp3").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  ASSERT_TRUE(open_file);
  EXPECT_EQ(taken(), Paths{"created file x/a.mp3"});
  open_file.reset();
  for (const char* hidden : {"w/x/.hidden", "w/x/.kord/tagdb"}) sandbox_.write(hidden);
  EXPECT_EQ(taken(), Paths{"written file x/a.mp3"});
  EXPECT_GT(notices_.flushes, 0);
  // Renamed: deleted + written. Same name elsewhere: one move. A directory takes its watches.
  rename("w/x/a.mp3", "w/x/b.mp3");
  EXPECT_EQ(taken(), (Paths{"deleted file x/a.mp3", "written file x/b.mp3"}));
  rename("w/x/b.mp3", "w/y/b.mp3");
  EXPECT_EQ(taken(), Paths{"moved file y/b.mp3 from x/b.mp3"});
  rename("w/d", "w/x/e");
  sandbox_.write("w/x/e/sub/c.mp3");
  EXPECT_EQ(taken(), (Paths{"moved dir x/e from d", "created file x/e/sub/c.mp3", "written file x/e/sub/c.mp3"}));
  EXPECT_EQ(wd("w/d/sub"), -1);
  EXPECT_EQ(loop_.pendingMoves(), 0u);
}

// Moved out counts as deleted three seconds later.
TEST_F(EventLoopTest, DirectoriesAndFilesLeavingAndComingFollowTheTable) {
  sandbox_.write("w/x/a.mp3");
  taken();
  rename("w/x/a.mp3", "outside/a.mp3");
  rename("w/d", "outside/d");
  ASSERT_TRUE(pumpUntil([&] { return loop_.pendingMoves() == 2; }));
  EXPECT_EQ(taken(), Paths{});
  now_ += 2;
  loop_.step();
  EXPECT_EQ(notices_.notices, Paths{});
  now_ += 1;
  loop_.step();
  EXPECT_EQ(sorted(std::exchange(notices_.notices, {})), (Paths{"deleted dir d", "deleted file x/a.mp3"}));
  EXPECT_EQ(wd("w/d/sub"), -1);
  EXPECT_EQ(loop_.pendingMoves(), 0u);
  // Moved in from outside: watched with its subtree, hidden directories aside.
  rename("outside/in", "w/in");
  EXPECT_EQ(taken(), Paths{"created dir in"});
  EXPECT_GT(wd("w/in"), 0);
  EXPECT_GT(wd("w/in/deeper"), 0);
  EXPECT_EQ(wd("w/in/.hidden"), -1);
  // Created: watched at once, so that its files are seen. Deleted: unwatched.
  sandbox_.mkdirs("w/new");
  ASSERT_TRUE(pumpUntil([&] { return wd("w/new") > 0; }));
  sandbox_.write("w/new/a.mp3");
  ASSERT_EQ(::unlink(at("w/new/a.mp3").c_str()), 0);
  ASSERT_EQ(::rmdir(at("w/new").c_str()), 0);
  EXPECT_EQ(taken(), (Paths{"created dir new", "created file new/a.mp3", "written file new/a.mp3",
                            "deleted file new/a.mp3", "deleted dir new"}));
  EXPECT_EQ(wd("w/new"), -1);
}

}  // namespace
}  // namespace zibd
