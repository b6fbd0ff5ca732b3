#include "watch/event_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "common/fs_error.h"
#include "tests/support/sandbox.h"
#include "tests/unit/watch/fakes.h"

namespace zibd {
namespace {

struct Notice {
  std::string path;
  std::string old_path;  // "" for none
  std::uint32_t flags;
  bool operator==(const Notice&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Notice& n) {
  return out << "{" << n.path << ", " << n.old_path << ", 0x" << std::hex << n.flags << std::dec << "}";
}

class RecordingNotices : public ChangeNotices {
 public:
  int fsHandleChange(const char* path, const char* old_path, std::uint32_t flags) override {
    notices.push_back({path, old_path ? old_path : "", flags});
    return 0;
  }
  void fsFlushChanges() override { ++flushes; }
  std::vector<Notice> notices;
  int flushes = 0;
};

constexpr std::uint32_t kCreatedFile = FS_CHANGE_CREATED | FS_CHANGE_FILE;
constexpr std::uint32_t kWrittenFile = FS_CHANGE_WRITTEN | FS_CHANGE_FILE;
constexpr std::uint32_t kDeletedFile = FS_CHANGE_DELETED | FS_CHANGE_FILE;

class EventLoopTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    root_ = sandbox_.path();
    ASSERT_EQ(termination_.open(O_NONBLOCK), 0);
    ASSERT_EQ(table_.fsInitWatch(), kFsOk);
    sandbox_.mkdirs("w/x");
    sandbox_.mkdirs("w/y");
    sandbox_.mkdirs("w/d/sub");
    sandbox_.mkdirs("outside/in/deeper");
    ASSERT_EQ(table_.fsAddWatchTree(at("w").c_str(), true), kFsOk);
  }

  std::string at(const std::string& relative) const { return root_ + "/" + relative; }

  // Runs passes until pred holds; false after 10 seconds without.
  template <typename Pred>
  bool pumpUntil(Pred pred) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!pred()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      if (!loop().step()) return false;
    }
    return true;
  }
  bool pumpNotices(std::size_t count) {
    return pumpUntil([&] { return notices_.notices.size() >= count; });
  }
  // Runs passes until every event so far has been read: a marker file made
  // last in a watched directory has been reported.
  void drain() {
    const std::string marker = at("w/marker" + std::to_string(markers_++));
    FileDescriptor fd(::open(marker.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    ASSERT_TRUE(fd);
    fd.reset();
    ASSERT_TRUE(pumpUntil([&] {
      return std::any_of(notices_.notices.begin(), notices_.notices.end(),
                         [&](const Notice& n) { return n.path == marker && n.flags == kWrittenFile; });
    }));
    std::erase_if(notices_.notices, [&](const Notice& n) { return n.path == marker; });
  }

  WatchEventLoop& loop() {
    if (!loop_)
      loop_.emplace(table_, &notices_, termination_.read_end.get(), nullptr, running_, clock_.clock(), 20);
    return *loop_;
  }

  std::atomic<int> running_{1};
  std::atomic<int> aborted_{0};
  WatchTable table_{aborted_};
  RecordingNotices notices_;
  test::FakeClock clock_;
  Pipe termination_;
  std::optional<WatchEventLoop> loop_;
  std::string root_;
  int markers_ = 0;
};

TEST_F(EventLoopTest, RenameInsideADirectoryIsADeleteThenAWrite) {
  sandbox_.write("w/x/a.mp3", "x");
  sandbox_.write("w/x/.hidden", "x");
  drain();
  notices_.notices.clear();
  ASSERT_EQ(::rename(at("w/x/a.mp3").c_str(), at("w/x/b.mp3").c_str()), 0);
  ASSERT_TRUE(pumpNotices(2));
  drain();
  EXPECT_EQ(notices_.notices, (std::vector<Notice>{{at("w/x/a.mp3"), "", kDeletedFile},
                                                   {at("w/x/b.mp3"), "", kWrittenFile}}));
  EXPECT_EQ(loop().pendingMoves(), 0u);
}

TEST_F(EventLoopTest, CreateWriteAndHiddenNames) {
  FileDescriptor fd(::open(at("w/x/new.mp3").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  ASSERT_TRUE(fd);
  ASSERT_TRUE(pumpNotices(1));
  EXPECT_EQ(notices_.notices[0], (Notice{at("w/x/new.mp3"), "", kCreatedFile}));
  ASSERT_EQ(::write(fd.get(), "x", 1), 1);
  fd.reset();
  sandbox_.mkdirs("w/x/.kord/meta");
  sandbox_.write("w/x/.kord/tagdb", "x");
  ASSERT_TRUE(pumpNotices(2));
  drain();
  EXPECT_EQ(notices_.notices, (std::vector<Notice>{{at("w/x/new.mp3"), "", kCreatedFile},
                                                   {at("w/x/new.mp3"), "", kWrittenFile}}));
  EXPECT_GT(notices_.flushes, 0);
}

TEST_F(EventLoopTest, MoveBetweenWatchedDirectoriesIsOneMove) {
  sandbox_.write("w/x/a.mp3", "x");
  drain();
  notices_.notices.clear();
  ASSERT_EQ(::rename(at("w/x/a.mp3").c_str(), at("w/y/a.mp3").c_str()), 0);
  ASSERT_TRUE(pumpNotices(1));
  drain();
  EXPECT_EQ(notices_.notices,
            (std::vector<Notice>{{at("w/y/a.mp3"), at("w/x/a.mp3"), FS_CHANGE_MOVED | FS_CHANGE_FILE}}));
}

TEST_F(EventLoopTest, MovedDirectoryKeepsItsWatchesUnderTheNewPath) {
  ASSERT_EQ(::rename(at("w/d").c_str(), at("w/x/e").c_str()), 0);
  ASSERT_TRUE(pumpNotices(1));
  EXPECT_EQ(notices_.notices[0], (Notice{at("w/x/e"), at("w/d"), FS_CHANGE_MOVED | FS_CHANGE_DIR}));
  std::vector<std::string> watched = table_.watchedPaths();
  EXPECT_NE(std::find(watched.begin(), watched.end(), at("w/x/e/sub")), watched.end());
  EXPECT_EQ(std::find(watched.begin(), watched.end(), at("w/d/sub")), watched.end());
  sandbox_.write("w/x/e/sub/song.mp3", "x");
  ASSERT_TRUE(pumpNotices(3));
  EXPECT_EQ(notices_.notices[1], (Notice{at("w/x/e/sub/song.mp3"), "", kCreatedFile}));
}

TEST_F(EventLoopTest, MovedOutCountsAsDeletedThreeSecondsLater) {
  sandbox_.write("w/x/a.mp3", "x");
  drain();
  notices_.notices.clear();
  ASSERT_EQ(::rename(at("w/x/a.mp3").c_str(), at("outside/a.mp3").c_str()), 0);
  ASSERT_EQ(::rename(at("w/d").c_str(), at("outside/d").c_str()), 0);
  ASSERT_TRUE(pumpUntil([&] { return loop().pendingMoves() == 2; }));
  drain();
  clock_.seconds += 2;
  loop().step();
  EXPECT_TRUE(notices_.notices.empty());
  clock_.seconds += 1;
  loop().step();
  std::vector<Notice> expected{{at("w/x/a.mp3"), "", kDeletedFile},
                               {at("w/d"), "", FS_CHANGE_DELETED | FS_CHANGE_DIR}};
  std::vector<Notice> seen = notices_.notices;
  std::sort(seen.begin(), seen.end(), [](const Notice& a, const Notice& b) { return a.path < b.path; });
  std::sort(expected.begin(), expected.end(), [](const Notice& a, const Notice& b) { return a.path < b.path; });
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(table_.descriptorOf(at("w/d").c_str()), -1);
  EXPECT_EQ(table_.descriptorOf(at("w/d/sub").c_str()), -1);
  EXPECT_EQ(loop().pendingMoves(), 0u);
}

TEST_F(EventLoopTest, DirectoriesComingAndGoingFollowTheTable) {
  // Moved in from outside: a watch of its own, none below it.
  ASSERT_EQ(::rename(at("outside/in").c_str(), at("w/in").c_str()), 0);
  ASSERT_TRUE(pumpNotices(1));
  EXPECT_EQ(notices_.notices[0], (Notice{at("w/in"), "", FS_CHANGE_CREATED | FS_CHANGE_DIR}));
  EXPECT_GT(table_.descriptorOf(at("w/in").c_str()), 0);
  EXPECT_EQ(table_.descriptorOf(at("w/in/deeper").c_str()), -1);
  // Created: watched at once, so its files are seen.
  sandbox_.mkdirs("w/new");
  ASSERT_TRUE(pumpNotices(2));
  EXPECT_EQ(notices_.notices[1], (Notice{at("w/new"), "", FS_CHANGE_CREATED | FS_CHANGE_DIR}));
  sandbox_.write("w/new/a.mp3", "x");
  ASSERT_TRUE(pumpNotices(3));
  EXPECT_EQ(notices_.notices[2], (Notice{at("w/new/a.mp3"), "", kCreatedFile}));
  // Deleted: its watch goes.
  ASSERT_EQ(::unlink(at("w/new/a.mp3").c_str()), 0);
  ASSERT_EQ(::rmdir(at("w/new").c_str()), 0);
  ASSERT_TRUE(pumpUntil([&] { return notices_.notices.size() >= 6; }));
  EXPECT_EQ(notices_.notices[5], (Notice{at("w/new"), "", FS_CHANGE_DELETED | FS_CHANGE_DIR}));
  EXPECT_EQ(table_.descriptorOf(at("w/new").c_str()), -1);
}

TEST_F(EventLoopTest, EndsOnTheTerminationPipeOrTheRunningFlag) {
  EXPECT_TRUE(loop().step());
  const char zero = 0;
  ASSERT_EQ(::write(termination_.write_end.get(), &zero, 1), 1);
  EXPECT_FALSE(loop().step());
  char byte;
  ASSERT_EQ(::read(termination_.read_end.get(), &byte, 1), 1);
  EXPECT_TRUE(loop().step());
  running_.store(0);
  EXPECT_FALSE(loop().step());
}

// The whole road of a copied file: events, change handling, scan request.
class CopyIntoWatchedTreeTest : public EventLoopTest {
 protected:
  test::FakeScans scans_;
  test::FakeStorage storage_;
  ChangeHandler handler_{scans_, storage_, clock_.clock()};
  WatchEventLoop real_loop_{table_, &handler_, -1, nullptr, running_, clock_.clock(), 20};

  bool pumpRealUntil(const std::function<bool()>& pred) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!pred()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      real_loop_.step();
    }
    return true;
  }
  bool pending(const std::string& dir) {
    const auto& changes = handler_.pendingChanges();
    return std::any_of(changes.begin(), changes.end(),
                       [&](const ChangeHandler::PendingChange& c) { return c.directory == dir; });
  }
};

TEST_F(CopyIntoWatchedTreeTest, TenFilesGiveOneScanRequestAfterTheLastClose) {
  // A file created and still open holds its directory however long it waits.
  FileDescriptor open_file(::open(at("w/y/0.mp3").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  ASSERT_TRUE(open_file);
  ASSERT_TRUE(pumpRealUntil([&] { return pending(at("w/y")); }));
  clock_.seconds += 10;
  real_loop_.step();
  EXPECT_TRUE(scans_.requests().empty());
  ASSERT_EQ(::write(open_file.get(), "x", 1), 1);
  open_file.reset();

  for (int i = 0; i < 10; ++i) sandbox_.write("w/x/" + std::to_string(i) + ".mp3", "data");
  // Events come in order: once the marker's directory is pending, every
  // earlier event has been handled.
  sandbox_.write("w/d/marker", "x");
  ASSERT_TRUE(pumpRealUntil([&] { return pending(at("w/d")); }));
  clock_.seconds += 2;
  real_loop_.step();
  EXPECT_TRUE(scans_.requests().empty());
  clock_.seconds += 1;
  real_loop_.step();
  clock_.seconds += 10;
  real_loop_.step();
  using Requests = std::vector<std::pair<std::string, uint32_t>>;
  Requests requests = scans_.requests();
  std::sort(requests.begin(), requests.end());
  EXPECT_EQ(requests, (Requests{{at("w/d"), kScanChangedDirectory},
                                {at("w/x"), kScanChangedDirectory},
                                {at("w/y"), kScanChangedDirectory}}));
}

}  // namespace
}  // namespace zibd
