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
using test::FakeReports;
using test::FakeStorage;

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

  std::atomic<int> running_{1};
  FakeStorage storage_;
  FakeReports reports_;
  ScanQueue queue_{storage_, reports_, running_};
};

TEST_F(ScanQueueTest, PriorityRequestsAreTakenFirstEvenWhenQueuedLater) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("d"), kScanStorageRoot);
  queue_.enqueue(at("b"), kScanChangedDirectory);
  queue_.enqueue(at("bc"), kScanForcedRescan);
  queue_.enqueue(at("a"), kScanRuleDirectory);  // no de-duplication
  EXPECT_THAT(drain(), ElementsAre("0:/b", "2:/bc", "1:/a", "3:/d", "1:/a"));
}

TEST_F(ScanQueueTest, ForcedRescanReplacesTheFirstWaitingOrdinaryScanOfThePath) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("b"), kScanRuleDirectory);
  queue_.enqueue(at("a/"), kScanForcedRescan);
  // An ordinary request after a forced one is queued beside it.
  queue_.enqueue(at("b"), kScanForcedRescan);
  queue_.enqueue(at("b"), kScanRuleDirectory);
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
  queue_.enqueue(at("b/c"), kScanChangedDirectory);
  queue_.removeUnder("");
  EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(ScanQueueTest, ReportsStartedOnceAndFinishedFromTheTakeThatFindsItEmpty) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("b"), kScanChangedDirectory);
  EXPECT_THAT(reports_.profiling(), ElementsAre(1));
  ASSERT_TRUE(queue_.take());
  ASSERT_TRUE(queue_.take());
  EXPECT_THAT(reports_.profiling(), ElementsAre(1));

  // The next take reports "finished" before it blocks, and an enqueue ends
  // the wait with its request (and a new "started").
  auto waiting = std::async(std::launch::async, [this] { return queue_.take(); });
  ASSERT_TRUE(test::waitFor([&] { return reports_.profiling().size() == 2; }));
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  queue_.enqueue(at("d"), kScanRuleDirectory);
  std::optional<ScanRequest> got = waiting.get();
  ASSERT_TRUE(got);
  EXPECT_EQ(got->path, at("d"));
  EXPECT_THAT(reports_.profiling(), ElementsAre(1, 0, 1));
}

TEST_F(ScanQueueTest, ClearedQueueReportsFinishedAtTheNextTakeWhichAWakeEnds) {
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.clear();
  auto waiting = std::async(std::launch::async, [this] { return queue_.take(); });
  ASSERT_TRUE(test::waitFor([&] { return reports_.profiling().size() == 2; }));
  queue_.wake();
  EXPECT_FALSE(waiting.get());
  EXPECT_THAT(reports_.profiling(), ElementsAre(1, 0));
}

TEST_F(ScanQueueTest, NothingIsQueuedWhileNoStorageIsChosen) {
  storage_.ready = false;
  queue_.enqueue(at("a"), kScanRuleDirectory);
  queue_.enqueue(at("b"), kScanChangedDirectory);
  EXPECT_EQ(queue_.size(), 0U);
  EXPECT_TRUE(reports_.profiling().empty());
  EXPECT_EQ(storage_.on_partition_queries, 0);

  storage_.ready = true;
  queue_.enqueue(at("b"), kScanChangedDirectory);
  EXPECT_EQ(storage_.on_partition_queries, 1);
  EXPECT_EQ(queue_.size(), 1U);
}

TEST_F(ScanQueueTest, StoppedDaemonEmptiesTheQueueAndEndsAWaitingTake) {
  auto waiting = std::async(std::launch::async, [this] { return queue_.take(); });
  queue_.enqueue(at("a"), kScanRuleDirectory);
  ASSERT_TRUE(waiting.get());

  waiting = std::async(std::launch::async, [this] { return queue_.take(); });
  ASSERT_TRUE(test::waitFor([&] { return reports_.profiling().size() == 2; }));
  running_ = 0;
  queue_.enqueue(at("b"), kScanRuleDirectory);
  EXPECT_FALSE(waiting.get());  // the request that woke it is dropped
  EXPECT_EQ(queue_.size(), 0U);

  queue_.enqueue(at("a"), kScanChangedDirectory);
  EXPECT_FALSE(queue_.take());
  EXPECT_EQ(queue_.size(), 0U);
}

}  // namespace
}  // namespace zibd
