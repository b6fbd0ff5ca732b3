// The bus thread's step() against an in-process broker, and the control pipe: refusals, lost connections, odd values.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include <set>
#include <thread>

#include "bus/bus_thread.h"
#include "bus/control_pipe.h"
#include "storage/scan_requests.h"
#include "tests/support/fault_injection.h"
#include "tests/support/wait_for.h"
#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// The scan requests of the bus thread, which the test thread steps.
struct FakeScanRequests : ScanRequests {
  void enqueue(const std::string& path, uint32_t kind) override { requests.emplace_back(path, kind); }
  std::vector<std::pair<std::string, uint32_t>> taken() { return std::exchange(requests, {}); }
  std::vector<std::pair<std::string, uint32_t>> requests;
};

// Disk 1 (big, managed) and disk 2 (a stick), one partition each, and one rule.
constexpr char kGateway[] =
    "VFS.MetaDataService.ForceRescan=0\nVFS.MetaDataService.ProfilingStatus=Ready\n"
    "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
    "Storage.Disk.1.CapacityInMBytes=953869\nStorage.Disk.1.DoUnMount=0\nStorage.Disk.1.Partition.1.Status=1\n"
    "Storage.Disk.1.Partition.1.MountPoint=@ROOT@/big\nStorage.Disk.1.Partition.1.Manageddisk=1\n"
    "Storage.Disk.1.Partition.1.FreeSpaceInKBytes=734003200\nStorage.Disk.2.Partition.1.FreeSpaceInKBytes=41943040\n"
    "Storage.Disk.2.CapacityInMBytes=61057\nStorage.Disk.2.DoUnMount=0\nStorage.Disk.2.Partition.1.Status=1\n"
    "Storage.Disk.2.Partition.1.MountPoint=@ROOT@/stick\nStorage.Disk.2.Partition.1.Manageddisk=0\n"
    "ContentSharing.UPnPAV.IndexRules.1.Status=Up\nContentSharing.UPnPAV.IndexRules.1.UUID=big\n"
    "ContentSharing.UPnPAV.IndexRules.1.DirectoryName=Media\nContentSharing.UPnPAV.IndexRules.1.EnableMovie=1\n";

class BusThreadTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    big_ = mount("big");
    stick_ = mount("stick");
    ASSERT_TRUE(sync_.open(O_NONBLOCK).ok());
  }
  void TearDown() override { thread_.reset(); StorageTest::TearDown(); }
  // A bus thread without pauses, on a new model.
  void makeThread(std::chrono::seconds settle = std::chrono::seconds(30)) {
    BusTiming timing;
    timing.first_pause = timing.retry_pause = {};
    thread_.reset();
    config_.settle_delay = settle;
    remakeModel();
    rules_ = std::make_unique<RuleRegistry>(root_);
    thread_ = std::make_unique<BusThread>(*model_, *rules_, scans_, pipe_, sync_.write_end, running_, timing);
    ASSERT_TRUE(pipe_.open().ok());
  }
  // Starts the broker and takes the thread into its loop.
  void connectThread(std::chrono::seconds settle = std::chrono::seconds(30)) {
    startBroker(kGateway);
    makeThread(settle);
    ASSERT_TRUE(thread_->step());  // stage, pause
    ASSERT_TRUE(thread_->step());  // connection
    ASSERT_EQ(thread_->state(), BusThread::State::kLooping);
    ASSERT_EQ(thread_->attempts(), 1);
  }
  std::string syncBytes() {  // what the thread wrote to the start-up pipe
    char bytes[8];
    const ssize_t n = ::read(sync_.read_end.get(), bytes, sizeof bytes);
    return n > 0 ? std::string(bytes, n) : "";
  }
  // Changes a value on the bus; the thread handles the notification.
  void change(const std::string& object, const std::string& param, const std::string& value) {
    ASSERT_TRUE(set(object, param, value));
    ASSERT_TRUE(thread_->step());
  }
  // Steps until the thread ends; the number of steps that did not end it.
  int passesUntilTheEnd() {
    int passes = 0;
    while (thread_->step() && passes < 100) ++passes;
    return passes;
  }

  std::string big_, stick_;
  std::unique_ptr<RuleRegistry> rules_;
  FakeScanRequests scans_;
  ControlPipe pipe_;
  Pipe sync_;
  std::atomic<int> running_{1};
  std::unique_ptr<BusThread> thread_;
};

TEST_F(BusThreadTest, OnePublicationPerDrainAndAStopGivesEverythingBack) {
  connectThread();
  EXPECT_THAT(mounts(), ::testing::UnorderedElementsAre(big_, stick_));
  EXPECT_EQ(rules_->findRule("ContentSharing.UPnPAV.IndexRules.1")->categories, kCategoryMovies);
  EXPECT_EQ(std::set(thread_->subscriptions().begin(), thread_->subscriptions().end()).size(), 6u);
  EXPECT_EQ(syncBytes(), "");
  pipe_.reportProfiling(false);  // already ready: nothing to publish
  ASSERT_TRUE(thread_->step());
  // The last status of a drain counts, once.
  for (bool busy : {true, false}) pipe_.reportProfiling(busy);
  ASSERT_TRUE(thread_->step());
  EXPECT_THAT(history("VFS.MetaDataService", "ProfilingStatus"), IsEmpty());
  for (bool busy : {false, true}) pipe_.reportProfiling(busy);
  ASSERT_TRUE(thread_->step());
  EXPECT_THAT(history("VFS.MetaDataService", "ProfilingStatus"), ElementsAre("Profiling"));
  pipe_.reportProfiling(false);
  pipe_.stop();  // a stop in the same drain: nothing more is published
  EXPECT_FALSE(thread_->step());
  EXPECT_THAT(history("VFS.MetaDataService", "ProfilingStatus"), ElementsAre("Profiling"));
  EXPECT_EQ(syncBytes(), "0");
  EXPECT_EQ(refcount("Storage.Disk.1"), 0);
  EXPECT_THAT(mounts(), IsEmpty());
  EXPECT_EQ(model_->connection(), nullptr);
}

TEST_F(BusThreadTest, RuleFlagsAreBooleansTheManagedFlagANumberAndForceRescanIsAlwaysReset) {
  connectThread();
  const std::string rule = "ContentSharing.UPnPAV.IndexRules.1";
  const struct { const char *param, *value; uint32_t categories; } steps[] = {
      {"EnableMusic", "no", kCategoryMovies | kCategoryMusic},  // "n": true
      {"EnableMovie", "false", kCategoryMusic}, {"Status", "Down", 0}, {"Enable", "nah", kCategoryMusic}, {"Enable", "f", 0}};
  for (const auto& s : steps) {
    SCOPED_TRACE(std::string(s.param) + "=" + s.value);
    change(rule, s.param, s.value);
    EXPECT_EQ(rules_->ruleCategories(big_ + "/Media/a"), s.categories);
  }
  change("Storage.Disk.2.Partition.1", "Manageddisk", "1");  // the managed disk moves
  EXPECT_EQ(model_->managedPartitionPath(), stick_);
  change("Storage.Disk.1.Partition.1", "Manageddisk", "yes");  // not a number: ignored
  EXPECT_EQ(model_->managedPartitionPath(), stick_);
  change("Storage.Disk.2.Partition.1", "Manageddisk", "0");
  EXPECT_FALSE(model_->managedPartitionPath());
  // ForceRescan acts only on 1, only with a storage, and is always reset.
  scans_.taken();  // the rule changes' own scans
  change("VFS.MetaDataService", "ForceRescan", "1");  // no storage yet: nothing queued, but reset
  EXPECT_THAT(scans_.taken(), IsEmpty());
  ASSERT_TRUE(model_->chooseMetadataStorage().value());
  change("VFS.MetaDataService", "ForceRescan", "2");
  EXPECT_THAT(scans_.taken(), IsEmpty());
  change("VFS.MetaDataService", "ForceRescan", "1");
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot), Pair(_, kScanForcedRescan),
                                          Pair(_, kScanForcedRescan)));
  EXPECT_THAT(history("VFS.MetaDataService", "ForceRescan"), ElementsAre("1", "0", "2", "1", "0"));
  change("Storage.Disk.2", "DoUnMount", "2");  // only 1 asks for the unmount
  EXPECT_EQ(refcount("Storage.Disk.2"), 1);
}

// A tag store that cannot be told where its database is: nothing is chosen, and the choice comes again.
TEST_F(BusThreadTest, SettledStorageIsChosenInTheSamePassOrASettleLaterAndOnlyUnscannedPartitionsQueued) {
  connectThread(std::chrono::seconds(0));
  sandbox_.mkdirs("kord.ini");
  ASSERT_TRUE(thread_->step());
  EXPECT_EQ(model_->storageStatus(), kNoSuitableDisk);
  EXPECT_TRUE(model_->deadline());
  ASSERT_EQ(::rmdir((sandbox_ / "kord.ini").c_str()), 0);
  pipe_.reportPartitionScanned(stick_);
  pipe_.reportPartitionScanned(root_ + "/unknown");
  ASSERT_TRUE(thread_->step());
  EXPECT_EQ(model_->storageStatus(), kStorageOk);
  EXPECT_EQ(sandbox_.read("location"), big_);
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot), Pair(big_, kScanRuleDirectory)));
  EXPECT_FALSE(model_->deadline());
}

// Only the stop ends the thread. Failing reads, a lost or absent broker: the disks go, the next attempt starts afresh.
TEST_F(BusThreadTest, ConnectionsThatFailOrAreLostAreMadeAgainUntilTheStop) {
  startBroker(kGateway);
  makeThread(std::chrono::seconds(0));
  failCalls(Call::kBusRead, 0, 5 * 6);  // five connections' disk and partition reads, three tries each
  for (int pass = 0; pass < 7; ++pass) ASSERT_TRUE(thread_->step());
  EXPECT_EQ(thread_->attempts(), 6);
  pipe_.reportProfiling(true);
  ASSERT_TRUE(thread_->step());  // published, settled, chosen
  stopBroker();
  EXPECT_EQ(passesUntilTheEnd(), 100) << "ended by itself";
  EXPECT_THAT(mounts(), IsEmpty());
  startBroker(kGateway);
  pipe_.reportProfiling(true);  // still busy: told to the new broker
  for (int pass = 0; pass < 2; ++pass) ASSERT_TRUE(thread_->step());  // connected, chosen again
  EXPECT_THAT(history("VFS.MetaDataService", "MetaDataStorageStatus"), ElementsAre("OK"));
  EXPECT_THAT(history("VFS.MetaDataService", "ProfilingStatus"), ElementsAre("Profiling"));
  EXPECT_EQ(refcount("Storage.Disk.1") + refcount("Storage.Disk.2"), 2);
  stopBroker();
  ASSERT_TRUE(thread_->step());
  running_ = 0;
  EXPECT_FALSE(thread_->step());
  EXPECT_EQ(syncBytes(), "0");
}

// Nobody reads while the reports are made: none blocks, all arrive in order. Once closed or never
// made, the pipe takes none: nothing reaches a reused descriptor, no SIGPIPE.
TEST(ControlPipeTest, ReportsNeverBlockAndGoNowhereOnceClosedOrUnmade) {
  ControlPipe pipe;
  ASSERT_TRUE(pipe.open().ok());
  const int reports = ::fcntl(pipe.readFd(), F_GETPIPE_SZ) * 2;  // more than the pipe holds
  for (int i = 0; i < reports; ++i) pipe.reportPartitionScanned("/p" + std::to_string(i));
  pipe.stop();
  for (int i = 0; i < reports; ++i) {
    const std::optional<ControlMessage> message = pipe.read();
    ASSERT_TRUE(message && message->path == "/p" + std::to_string(i)) << i;
  }
  EXPECT_EQ(pipe.read()->type, ControlMessageType::kStop);
  EXPECT_FALSE(pipe.read());
  pipe.reportProfiling(true);  // never read: freed with the pipe
  pipe.close();
  TempDir dir;
  const int a = ::open((dir / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int b = ::open((dir / "b").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  pipe.reportProfiling(true);
  pipe.reportPartitionScanned("/y");
  pipe.stop();
  ::close(a), ::close(b);
  EXPECT_EQ(readFile(dir / "a") + readFile(dir / "b"), "");
  EXPECT_FALSE(pipe.read());
  ScopedFault fault(Call::kPipe2, EMFILE);  // the next pipe only
  ControlPipe unmade;
  EXPECT_EQ(unmade.open().code(), EMFILE);
  unmade.stop();
  EXPECT_FALSE(unmade.read());
}

}  // namespace
}  // namespace zibd::test
