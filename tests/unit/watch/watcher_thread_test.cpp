#include "watch/watcher_thread.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "common/fs_error.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd {
namespace {

class WatcherTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    root_ = sandbox_.path();
    ASSERT_EQ(table_.fsInitWatch(), kFsOk);
    sandbox_.mkdirs("p/a/a1");
    sandbox_.mkdirs("p/b/b1");
    sandbox_.mkdirs("p/c");
  }

  std::string at(const std::string& relative) const { return root_ + "/" + relative; }

  // Runs one step on a thread of its own with the table's mutex held by the
  // test, so that the add stops inside its first directory until release().
  void startBlockedAdd(const std::string& path) {
    queue_.fsQueueAddWatch(path);
    table_.mutex().lock();
    locked_ = true;
    worker_ = std::thread([this] { worker_result_ = watcher_.step(); });
    // take() records the add in progress as it unqueues it.
    ASSERT_TRUE(test::waitFor([&] { return queue_.queued().empty(); }));
  }
  void release() {
    if (locked_) table_.mutex().unlock();
    locked_ = false;
  }
  void TearDown() override {
    release();
    if (worker_.joinable()) worker_.join();
  }

  std::atomic<int> running_{1};
  WatchRequestQueue queue_;
  WatchTable table_{queue_.addAbortedFlag()};
  WatcherThread watcher_{queue_, table_, running_};
  std::string root_;
  std::thread worker_;
  bool locked_ = false;
  bool worker_result_ = false;
};

TEST_F(WatcherTest, AddsAndRemovesWholeTrees) {
  queue_.fsQueueAddWatch(at("p"));
  ASSERT_TRUE(watcher_.step());
  EXPECT_EQ(table_.watchedPaths().size(), 6u);
  EXPECT_FALSE(queue_.fsWatchAddAborted());
  queue_.fsQueueRemoveWatch(at("p/a"));
  ASSERT_TRUE(watcher_.step());
  EXPECT_EQ(table_.watchedPaths().size(), 4u);
}

TEST_F(WatcherTest, PartitionGoneBeforeItsAddRunsOnlyRemoves) {
  queue_.fsQueueAddWatch(at("p"));
  queue_.fsQueueAddWatch(at("p/c"));
  queue_.fsQueueRemoveWatch(at("p"));
  const auto queued = queue_.queued();
  ASSERT_EQ(queued.size(), 2u);
  EXPECT_EQ(queued[0].path, at("p/c"));
  EXPECT_EQ(queued[1].operation, WatchRequest::Operation::kRemove);
  EXPECT_EQ(queued[1].path, at("p"));
  ASSERT_TRUE(watcher_.step());
  ASSERT_TRUE(watcher_.step());
  EXPECT_TRUE(table_.watchedPaths().empty());
}

TEST_F(WatcherTest, RemovalDuringTheAddStopsItAndWaitsForIt) {
  startBlockedAdd(at("p"));
  std::atomic<bool> removed{false};
  std::thread remover([&] {
    queue_.fsQueueRemoveWatch(at("p"));
    removed.store(true);
  });
  ASSERT_TRUE(test::waitFor([&] { return queue_.queued().size() == 1; }));
  EXPECT_TRUE(queue_.fsWatchAddAborted());
  // The add cannot end while its first directory waits for the table.
  EXPECT_FALSE(removed.load());
  release();
  remover.join();
  worker_.join();
  EXPECT_TRUE(worker_result_);
  EXPECT_FALSE(queue_.fsWatchAddAborted());
  // The root was being added when the remove came; the walk stopped at the
  // next directory.
  EXPECT_EQ(table_.watchedPaths(), std::vector<std::string>{at("p")});
  ASSERT_TRUE(watcher_.step());
  EXPECT_TRUE(table_.watchedPaths().empty());
}

TEST_F(WatcherTest, OnlyARemovalAboveTheAddStopsIt) {
  startBlockedAdd(at("p"));
  // Below the tree being added: queued, but no stop and no wait.
  queue_.fsQueueRemoveWatch(at("p/a"));
  EXPECT_FALSE(queue_.fsWatchAddAborted());
  release();
  worker_.join();
  EXPECT_EQ(table_.watchedPaths().size(), 6u);
  ASSERT_TRUE(watcher_.step());
  EXPECT_EQ(table_.watchedPaths().size(), 4u);

  startBlockedAdd(at("p/b"));
  std::thread remover([&] { queue_.fsQueueRemoveWatch(root_); });
  ASSERT_TRUE(test::waitFor([&] { return queue_.fsWatchAddAborted(); }));
  release();
  remover.join();
  worker_.join();
}

TEST_F(WatcherTest, StopEmptiesTheQueueAndEndsTheThread) {
  queue_.fsQueueAddWatch(at("p"));
  queue_.fsQueueRemoveWatch(at("p/c"));
  queue_.fsStopWatcher();
  EXPECT_TRUE(queue_.queued().empty());
  // Until an add finishes, every add stops at once.
  sandbox_.mkdirs("q");
  EXPECT_EQ(table_.fsAddWatch(at("q").c_str()), kFsStopped);
  queue_.finishAdd();
  EXPECT_EQ(table_.fsAddWatch(at("q").c_str()), kFsOk);

  // A thread waiting for requests leaves on the stop that follows the
  // running flag.
  std::thread thread([&] { watcher_.run(); });
  queue_.fsQueueAddWatch(at("p"));
  ASSERT_TRUE(test::waitFor([&] { return queue_.queued().empty() && !queue_.addInProgress(); }));
  EXPECT_EQ(table_.watchedPaths().size(), 7u);
  running_.store(0);
  queue_.fsStopWatcher();
  thread.join();
  EXPECT_FALSE(watcher_.step());
}

}  // namespace
}  // namespace zibd
