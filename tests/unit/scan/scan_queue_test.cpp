#include "scan/scan_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"
#include "tests/unit/scan/scan_fakes.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;

class ScanQueueTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    for (const char* dir : {"a", "b", "b/c", "bc", "d"}) sandbox_.mkdirs(dir);
  }
  std::string at(const std::string& relative) const { return sandbox_ / relative; }
  // Takes everything that waits, as "kind:relative path".
  std::vector<std::string> drain() {
    std::vector<std::string> taken;
    while (queue_.size() > 0) {
      std::optional<ScanRequest> r = queue_.take();
      if (!r) break;
      taken.push_back(std::to_string(r->kind) + ":" + r->path.substr(sandbox_.path().size()));
    }
    return taken;
  }
  std::future<std::optional<ScanRequest>> takeAsync() {
    return std::async(std::launch::async, [this] { return queue_.take(); });
  }
  // The result of a take on another thread; a take that does not return is
  // a failure, and woken so that the test ends.
  std::optional<ScanRequest> result(std::future<std::optional<ScanRequest>>& take) {
    if (take.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "the take did not return";
      running_ = 0;
      queue_.wake();
    }
    return take.get();
  }
  bool reported(std::size_t n) const { return reports_.profiling().size() == n; }

  std::atomic<int> running_{1};
  test::FakeStorage storage_;
  test::FakeReports reports_;
  ScanQueue queue_{storage_, reports_, running_};
};

TEST_F(ScanQueueTest, PriorityOrderAndForcedRescanReplacingTheFirstOrdinaryScanOfItsPath) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("d"), kScanStorageRoot);
  queue_.enqueue(at("b"), kScanChangedDirectory);
  queue_.enqueue(at("a"), kScanRuleDirectory);  // no de-duplication
  EXPECT_THAT(drain(), ElementsAre("0:/b", "1:/a", "3:/d", "1:/a"));

  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("b"), kScanRuleDirectory);
  queue_.enqueue(at("a/"), kScanForcedRescan);
  queue_.enqueue(at("b"), kScanForcedRescan);
  queue_.enqueue(at("b"), kScanRuleDirectory);  // after a forced one: queued beside it
  EXPECT_THAT(drain(), ElementsAre("2:/a", "2:/b", "1:/a", "1:/b"));
}

TEST_F(ScanQueueTest, PathsAreResolvedAndUnresolvableOrUnknownKindsDropped) {
  ASSERT_EQ(::symlink(at("b/c").c_str(), at("link").c_str()), 0);
  queue_.enqueue(at("link/"), kScanRuleDirectory);
  queue_.enqueue(at("a/../d//"), kScanRuleDirectory);
  queue_.enqueue(at("missing"), kScanRuleDirectory);
  queue_.enqueue(std::string(5000, 'x'), kScanRuleDirectory);
  queue_.enqueue(at("a"), 4);
  EXPECT_THAT(drain(), ElementsAre("1:/b/c", "1:/d"));
  queue_.enqueue("/", kScanStorageRoot);
  std::optional<ScanRequest> root = queue_.take();
  ASSERT_TRUE(root);
  EXPECT_EQ(root->path, "");  // the root loses its '/' like every other path
}

TEST_F(ScanQueueTest, RemoveUnderKeepsSiblingsThatOnlyShareLeadingCharacters) {
  queue_.enqueue(at("b"), kScanRuleDirectory);
  queue_.enqueue(at("b/c"), kScanChangedDirectory);
  queue_.enqueue(at("bc"), kScanForcedRescan);
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.removeUnder(at("b"));
  EXPECT_THAT(drain(), ElementsAre("2:/bc", "1:/a"));
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.removeUnder("");
  EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(ScanQueueTest, StartedOnceFinishedByTheTakeThatFindsItEmptyAndAWakeEndsThatTake) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("b"), kScanChangedDirectory);
  ASSERT_TRUE(queue_.take());
  ASSERT_TRUE(queue_.take());
  EXPECT_THAT(reports_.profiling(), ElementsAre(1));
  auto waiting = takeAsync();  // reports "finished" before it blocks
  EXPECT_TRUE(test::waitFor([&] { return reported(2); }));
  queue_.enqueue(at("d"), kScanRuleDirectory);
  std::optional<ScanRequest> got = result(waiting);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->path, at("d"));
  EXPECT_THAT(reports_.profiling(), ElementsAre(1, 0, 1));

  queue_.clear();
  waiting = takeAsync();
  EXPECT_TRUE(test::waitFor([&] { return reported(4); }));
  queue_.wake();
  EXPECT_FALSE(result(waiting));
  EXPECT_THAT(reports_.profiling(), ElementsAre(1, 0, 1, 0));
}

TEST_F(ScanQueueTest, NothingIsQueuedOrAskedWhileNoStorageIsChosen) {
  storage_.ready = false;
  queue_.enqueue(at("a"), kScanRuleDirectory);
  EXPECT_EQ(queue_.size(), 0U);
  EXPECT_TRUE(reports_.profiling().empty());
  EXPECT_EQ(storage_.on_partition_queries, 0);
  storage_.ready = true;
  queue_.enqueue(at("b"), kScanChangedDirectory);
  EXPECT_EQ(storage_.on_partition_queries, 1);
  EXPECT_EQ(queue_.size(), 1U);
}

TEST_F(ScanQueueTest, StoppedDaemonEmptiesTheQueueAndEndsAWaitingTake) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  ASSERT_TRUE(queue_.take());
  auto waiting = takeAsync();
  EXPECT_TRUE(test::waitFor([&] { return reported(2); }));
  running_ = 0;
  queue_.enqueue(at("b"), kScanRuleDirectory);
  EXPECT_FALSE(result(waiting));  // the request that woke it is dropped
  queue_.enqueue(at("a"), kScanChangedDirectory);
  EXPECT_FALSE(queue_.take());
  EXPECT_EQ(queue_.size(), 0U);
}

}  // namespace
}  // namespace zibd
