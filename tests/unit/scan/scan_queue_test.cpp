#include "scan/scan_queue.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <future>

#include "tests/support/wait_for.h"
#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;

class ScanQueueTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    for (const char* dir : {"a", "b", "b/c", "bc", "d"}) sandbox_.mkdirs(dir);
  }
  std::string at(const std::string& relative) const { return sandbox_ / relative; }
  void enqueue(std::initializer_list<std::pair<const char*, uint32_t>> requests) {
    for (const auto& [path, kind] : requests) queue_.enqueue(at(path), kind);
  }
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
  // A take on another thread, once it has reported the queue idle.
  std::future<std::optional<ScanRequest>> blockedTake() {
    const std::size_t reports = reports_.reports().size();
    auto take = std::async(std::launch::async, [this] { return queue_.take(); });
    EXPECT_TRUE(test::waitFor([&] { return reports_.reports().size() == reports + 1; }));
    return take;
  }
  // Its result; a take that does not return is a failure, and woken.
  std::optional<ScanRequest> result(std::future<std::optional<ScanRequest>>& take) {
    if (take.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "the take did not return";
      running_ = 0;
      queue_.wake();
    }
    return take.get();
  }

  std::atomic<int> running_{1};
  test::FakeStorage storage_;
  test::FakeReports reports_;
  ScanQueue queue_{storage_, reports_, running_};
};

TEST_F(ScanQueueTest, ChangedDirectoriesFirstAndAForcedRescanReplacesTheFirstOrdinaryScanOfItsPath) {
  // Ordinary requests are not merged.
  enqueue({{"a", kScanRuleDirectory}, {"d", kScanStorageRoot}, {"b", kScanChangedDirectory}, {"a", kScanRuleDirectory}});
  EXPECT_THAT(drain(), ElementsAre("0:/b", "1:/a", "3:/d", "1:/a"));
  // An ordinary request after a forced one is queued beside it.
  enqueue({{"a", kScanRuleDirectory}, {"a", kScanRuleDirectory}, {"b", kScanRuleDirectory}, {"a/", kScanForcedRescan},
           {"b", kScanForcedRescan}, {"b", kScanRuleDirectory}});
  EXPECT_THAT(drain(), ElementsAre("2:/a", "2:/b", "1:/a", "1:/b"));
  // Removal below b keeps bc.
  enqueue({{"b", kScanRuleDirectory}, {"b/c", kScanChangedDirectory}, {"bc", kScanForcedRescan}, {"a", kScanRuleDirectory}});
  queue_.removeUnder(at("b"));
  EXPECT_THAT(drain(), ElementsAre("2:/bc", "1:/a"));
  enqueue({{"a", kScanRuleDirectory}});
  queue_.removeUnder("");
  EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(ScanQueueTest, PathsAreResolvedAndTheRestDropped) {
  storage_.ready = false;  // no storage chosen: nothing queued, nothing asked
  enqueue({{"a", kScanChangedDirectory}, {"b", kScanRuleDirectory}});
  EXPECT_EQ(queue_.size(), 0U);
  EXPECT_EQ(storage_.on_partition_queries, 0);
  EXPECT_TRUE(reports_.reports().empty());
  storage_.ready = true;
  ASSERT_EQ(::symlink(at("b/c").c_str(), at("link").c_str()), 0);
  enqueue({{"link/", kScanRuleDirectory}, {"a/../d//", kScanRuleDirectory}, {"missing", kScanRuleDirectory},
           {"a", 4}});
  queue_.enqueue(std::string(5000, 'x'), kScanRuleDirectory);
  EXPECT_THAT(drain(), ElementsAre("1:/b/c", "1:/d"));
  queue_.enqueue("/", kScanStorageRoot);
  std::optional<ScanRequest> root = queue_.take();
  ASSERT_TRUE(root);
  EXPECT_EQ(root->path, "");  // the root loses its '/' like every other path
}

TEST_F(ScanQueueTest, BusyOnceIdleWhenATakeFindsItEmptyAndAWaitingTakeEndsOnWakeOrStop) {
  enqueue({{"a", kScanRuleDirectory}, {"b", kScanChangedDirectory}});
  ASSERT_TRUE(queue_.take());
  ASSERT_TRUE(queue_.take());
  EXPECT_THAT(reports_.reports(), ElementsAre("busy"));
  auto waiting = blockedTake();
  enqueue({{"d", kScanRuleDirectory}});
  std::optional<ScanRequest> got = result(waiting);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->path, at("d"));
  queue_.clear();
  waiting = blockedTake();
  queue_.wake();
  EXPECT_FALSE(result(waiting));
  EXPECT_THAT(reports_.reports(), ElementsAre("busy", "idle", "busy", "idle"));
  // Once the daemon stops, the request that wakes a take is dropped, and every later one.
  enqueue({{"a", kScanRuleDirectory}});
  ASSERT_TRUE(queue_.take());
  waiting = blockedTake();
  running_ = 0;
  enqueue({{"b", kScanRuleDirectory}});
  EXPECT_FALSE(result(waiting));
  enqueue({{"a", kScanChangedDirectory}});
  EXPECT_FALSE(queue_.take());
  EXPECT_EQ(queue_.size(), 0U);
}

}  // namespace
}  // namespace zibd
