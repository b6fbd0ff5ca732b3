#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "bus/bus_thread.h"
#include "bus/control_pipe.h"
#include "host/kord/kord_host.h"
#include "platform/kord.h"
#include "tests/support/wait_for.h"
#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr char kGateway[] =
    "VFS.MetaDataService.ForceRescan=0\n"
    "VFS.MetaDataService.ProfilingStatus=Ready\n"
    "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
    "Storage.Disk.1.CapacityInMBytes=953869\n"
    "Storage.Disk.1.DoUnMount=0\n"
    "Storage.Disk.1.Partition.1.MountPoint=@ROOT@/big\n"
    "Storage.Disk.1.Partition.1.Status=1\n"
    "Storage.Disk.1.Partition.1.Manageddisk=1\n"
    "Storage.Disk.1.Partition.1.FreeSpaceInKBytes=734003200\n"
    "Storage.Disk.2.CapacityInMBytes=61057\n"
    "Storage.Disk.2.DoUnMount=0\n"
    "Storage.Disk.2.Partition.1.MountPoint=@ROOT@/stick\n"
    "Storage.Disk.2.Partition.1.Status=1\n"
    "Storage.Disk.2.Partition.1.Manageddisk=0\n"
    "Storage.Disk.2.Partition.1.FreeSpaceInKBytes=41943040\n"
    "ContentSharing.UPnPAV.IndexRules.1.Status=Up\n"
    "ContentSharing.UPnPAV.IndexRules.1.UUID=big\n"
    "ContentSharing.UPnPAV.IndexRules.1.DirectoryName=Media\n"
    "ContentSharing.UPnPAV.IndexRules.1.EnableMovie=1\n";

class BusThreadTest : public StorageTest {
 protected:
  void SetUp() override {
    StorageTest::SetUp();
    big_ = mount("big");
    stick_ = mount("stick");
    rules_holder_ = std::make_unique<RuleRegistry>(root_);
    ASSERT_EQ(sync_.open(O_NONBLOCK), 0);
  }
  void TearDown() override {
    thread_.reset();
    StorageTest::TearDown();
  }

  // A bus thread on this test's model; settle: the settle delay.
  void makeThread(std::chrono::seconds settle = std::chrono::seconds(30), BusTiming timing = fastTiming()) {
    config_.settle_delay = settle;
    remakeModel();
    thread_ = std::make_unique<BusThread>(*model_, rules(), scans_, pipe_, sync_.write_end, running_, timing);
    ASSERT_EQ(pipe_.open(), 0);
  }
  static BusTiming fastTiming() {
    BusTiming timing;
    timing.first_pause = std::chrono::milliseconds(0);
    timing.retry_pause = std::chrono::milliseconds(0);
    return timing;
  }
  // Starts the broker and takes the thread into its loop.
  void connectThread(std::chrono::seconds settle = std::chrono::seconds(30)) {
    startBroker(kGateway);
    makeThread(settle);
    ASSERT_TRUE(thread_->step());  // stage, pause
    ASSERT_TRUE(thread_->step());  // connection
    ASSERT_EQ(thread_->state(), BusThread::State::kLooping);
  }
  std::string syncByte() {
    char byte = 'x';
    return ::read(sync_.read_end.get(), &byte, 1) == 1 ? std::string(1, byte) : "";
  }
  std::vector<std::string> published(const char* param) { return broker_->history("VFS.MetaDataService", param); }
  // Lets the thread handle what the bus sent after a change.
  void handleNotification() { ASSERT_TRUE(thread_->step()); }
  std::vector<std::string> mounts() {
    MutexLock hold(model_->storage_lock);
    std::vector<std::string> all;
    for (const Disk& disk : model_->disks)
      for (const Partition& p : disk.partitions) all.push_back(p.mount_path);
    return all;
  }

  RuleRegistry& rules() { return *rules_holder_; }
  std::string big_, stick_;
  std::unique_ptr<RuleRegistry> rules_holder_;
  FakeScanRequests scans_;
  ControlPipe pipe_;
  Pipe sync_;
  std::atomic<int> running_{1};
  std::unique_ptr<BusThread> thread_;
};

TEST_F(BusThreadTest, ConnectsReadsEverythingAndSubscribes) {
  connectThread();
  EXPECT_THAT(mounts(), UnorderedElementsAre(big_, stick_));
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 1);
  EXPECT_EQ(broker_->refcount("Storage.Disk.2"), 1);
  EXPECT_THAT(watches_.calls, UnorderedElementsAre("add " + big_, "add " + stick_));
  auto rule = rules().stFindRule("ContentSharing.UPnPAV.IndexRules.1");
  ASSERT_TRUE(rule);
  EXPECT_EQ(rule->categories, kCategoryMovies);
  // Six distinct identifiers.
  std::set<uint32_t> ids(thread_->subscriptions().begin(), thread_->subscriptions().end());
  EXPECT_EQ(ids.size(), 6u);
  EXPECT_EQ(model_->managedPartitionPath(), big_);
  EXPECT_EQ(thread_->attempts(), 1);
  EXPECT_EQ(syncByte(), "");
}

TEST_F(BusThreadTest, StopBesideStatusMessagesEndsWithoutPublishingAndGivesBackTheDisks) {
  connectThread();
  pipe_.reportProfiling(0);  // already ready: nothing to publish
  ASSERT_TRUE(thread_->step());
  EXPECT_THAT(published("ProfilingStatus"), IsEmpty());
  pipe_.reportProfiling(1);
  pipe_.reportProfiling(0);
  pipe_.reportProfiling(1);
  ASSERT_TRUE(thread_->step());
  // The last status of one drain wins: one publication.
  EXPECT_THAT(published("ProfilingStatus"), ElementsAre("Profiling"));
  pipe_.reportProfiling(1);  // no change: nothing
  pipe_.reportProfiling(0);
  pipe_.stop();
  EXPECT_FALSE(thread_->step());
  EXPECT_THAT(published("ProfilingStatus"), ElementsAre("Profiling"));
  EXPECT_EQ(syncByte(), "0");
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 0);
  EXPECT_THAT(mounts(), IsEmpty());
  EXPECT_EQ(model_->connection(), nullptr);
  // The pipe is closed: later reports go nowhere, without SIGPIPE.
  EXPECT_EQ(pipe_.reportPartitionScanned(big_), -1);
  EXPECT_EQ(pipe_.stop(), -1);
}

TEST_F(BusThreadTest, SettledStorageIsChosenAndUnscannedPartitionsQueued) {
  connectThread(std::chrono::seconds(0));
  pipe_.reportPartitionScanned(stick_);
  pipe_.reportPartitionScanned(root_ + "/unknown");
  // The deadline has passed: the expiry runs in this same pass.
  ASSERT_TRUE(thread_->step());
  EXPECT_EQ(model_->storageStatus(), kStorageOk);
  EXPECT_EQ(sandbox_.read("location"), big_);
  EXPECT_THAT(published("MetaDataStorageStatus"), ElementsAre("OK"));
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot), Pair(big_, kScanRuleDirectory)));
  EXPECT_FALSE(model_->deadline());
}

TEST_F(BusThreadTest, LosingTheMetadataDiskChoosesAgainAfterTheSettleDelayAndRescansEverything) {
  connectThread(std::chrono::seconds(0));
  pipe_.reportPartitionScanned(stick_);
  ASSERT_TRUE(thread_->step());
  ASSERT_EQ(sandbox_.read("location"), big_);
  scans_.taken();
  ASSERT_TRUE(broker_->del("Storage.Disk.1"));
  // Partition and disk removal arrive as two notifications.
  ASSERT_TRUE(waitFor([&] {
    thread_->step();
    return mounts().size() == 1 && model_->storageStatus() == kStorageOk;
  }));
  EXPECT_THAT(published("MetaDataStorageStatus"), ElementsAre("OK", "NoSuitableDisk", "OK"));
  EXPECT_EQ(sandbox_.read("location"), stick_);
  EXPECT_THAT(sandbox_.read("kord.ini"), ::testing::HasSubstr(stick_ + "/.kord/tagdb"));
  // The partition goes first (its own notification), then its disk.
  EXPECT_THAT(scanner_.calls, ElementsAre("stopBelow " + big_, "stopAll"));
  // The stick had been scanned, but everything is scanned again.
  const auto queued = scans_.taken();
  ASSERT_GE(queued.size(), 2u);
  EXPECT_THAT(std::vector(queued.end() - 2, queued.end()),
              ElementsAre(Pair(root_, kScanStorageRoot), Pair(stick_, kScanRuleDirectory)));
}

TEST_F(BusThreadTest, ForceRescanQueuesEverythingOnlyForOneAndIsResetToZero) {
  connectThread();
  ASSERT_TRUE(broker_->set("VFS.MetaDataService", "ForceRescan", "1"));
  handleNotification();
  // No storage yet: nothing queued, but reset.
  EXPECT_THAT(scans_.taken(), IsEmpty());
  EXPECT_EQ(broker_->get("VFS.MetaDataService", "ForceRescan"), "0");
  ASSERT_TRUE(model_->stChooseMetadataStorage());
  ASSERT_EQ(model_->storageStatus(), kStorageOk);
  ASSERT_TRUE(broker_->set("VFS.MetaDataService", "ForceRescan", "2"));
  handleNotification();
  EXPECT_THAT(scans_.taken(), IsEmpty());
  ASSERT_TRUE(broker_->set("VFS.MetaDataService", "ForceRescan", "1"));
  handleNotification();
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot), Pair(_, kScanForcedRescan),
                                          Pair(_, kScanForcedRescan)));
  EXPECT_THAT(broker_->history("VFS.MetaDataService", "ForceRescan"), ElementsAre("1", "0", "2", "1", "0"));
}

TEST_F(BusThreadTest, UnmountRequestReleasesTheDiskReference) {
  connectThread();
  ASSERT_TRUE(broker_->set("Storage.Disk.2", "DoUnMount", "2"));
  handleNotification();
  EXPECT_EQ(broker_->refcount("Storage.Disk.2"), 1);
  ASSERT_TRUE(broker_->set("Storage.Disk.2", "DoUnMount", "1"));
  handleNotification();
  EXPECT_EQ(broker_->refcount("Storage.Disk.2"), 0);
  EXPECT_THAT(mounts(), ElementsAre(big_));
  EXPECT_THAT(model_->takeRemovedPartitions(), ElementsAre(stick_));
}

TEST_F(BusThreadTest, NewDisksAndPartitionsAreRecordedAndWatched) {
  connectThread();
  const std::string third = mount("third");
  ASSERT_TRUE(broker_->add("Storage.Disk.3", {{"CapacityInMBytes", "100"}}));
  handleNotification();
  ASSERT_TRUE(broker_->add("Storage.Disk.3.Partition.4",
                           {{"MountPoint", third}, {"Status", "1"}, {"FreeSpaceInKBytes", "1024000"}}));
  handleNotification();
  EXPECT_THAT(mounts(), ::testing::Contains(third));
  EXPECT_EQ(watches_.calls.back(), "add " + third);
  EXPECT_EQ(broker_->refcount("Storage.Disk.3"), 1);
  ASSERT_TRUE(broker_->del("Storage.Disk.3.Partition.4"));
  handleNotification();
  EXPECT_THAT(mounts(), ::testing::Not(::testing::Contains(third)));
  EXPECT_EQ(watches_.calls.back(), "remove " + third);
}

TEST_F(BusThreadTest, RuleChangesFollowTheValueChangeBoolean) {
  connectThread();
  const std::string rule = "ContentSharing.UPnPAV.IndexRules.1";
  const std::string media = root_ + "/big/Media";
  ASSERT_TRUE(broker_->set(rule, "EnableMusic", "no"));  // "n": true
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(media + "/a"), kCategoryMovies | kCategoryMusic);
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot), Pair(media, kScanRuleDirectory)));
  ASSERT_TRUE(broker_->set(rule, "EnableMovie", "false"));
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(media + "/a"), kCategoryMusic);
  ASSERT_TRUE(broker_->set(rule, "Enable", "1"));
  handleNotification();
  ASSERT_TRUE(broker_->set(rule, "Status", "Down"));
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(media + "/a"), 0u);
  ASSERT_TRUE(broker_->set(rule, "Enable", "nah"));
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(media + "/a"), kCategoryMusic);
  ASSERT_TRUE(broker_->set(rule, "Enable", "f"));
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(media + "/a"), 0u);
  scans_.taken();
  ASSERT_TRUE(broker_->add("ContentSharing.UPnPAV.IndexRules.2",
                           {{"Status", "Up"}, {"UUID", "stick"}, {"DirectoryName", "Pictures"}, {"EnablePicture", "1"}}));
  handleNotification();
  EXPECT_EQ(rules().stRuleCategories(root_ + "/stick/Pictures/p.jpg"), kCategoryPictures);
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_ + "/stick/Pictures", kScanRuleDirectory)));
  ASSERT_TRUE(broker_->del("ContentSharing.UPnPAV.IndexRules.2"));
  handleNotification();
  EXPECT_FALSE(rules().stFindRule("ContentSharing.UPnPAV.IndexRules.2"));
  EXPECT_THAT(scans_.taken(), ElementsAre(Pair(root_, kScanStorageRoot),
                                          Pair(root_ + "/stick/Pictures", kScanRuleDirectory)));
}

// The tag ".s.invisible" of a known file, or "-" without one.
std::string invisible(const std::string& path) {
  std::vector<std::pair<std::string, std::string>> tags;
  if (kord::listTags(path, &tags) != kord::Status::kOk) return "?";
  for (const auto& [name, value] : tags)
    if (name == ".s.invisible") return value;
  return "-";
}

TEST_F(BusThreadTest, ManagedDiskMovesAndOnlyItsMediaDirectoryStaysVisible) {
  connectThread(std::chrono::seconds(0));
  ASSERT_TRUE(thread_->step());  // settled: the tag database is on the big disk
  ASSERT_EQ(model_->storageStatus(), kStorageOk);
  const std::vector<std::string> files = {big_ + "/backup.mkv", big_ + "/Media/film.mkv", stick_ + "/old.mkv",
                                          stick_ + "/Media/song.mkv"};
  {
    kord_bulk_t* bulk = kord_bulk_init();
    ASSERT_NE(bulk, nullptr);
    for (const std::string& file : files) {
      sandbox_.write(file.substr(sandbox_.path().size() + 1), "x");
      ASSERT_EQ(kord_bulk_setpath(bulk, file.c_str()), 0) << kord::lastError().message;
      ASSERT_EQ(kord_bulk_settag(bulk, ".s.filetype", "STDVIDEO"), 0);
    }
    ASSERT_EQ(kord_bulk_commit(bulk), 0);
    kord_bulk_fini(bulk);
  }
  // The big disk was managed from the start; the flag moves to the stick.
  ASSERT_TRUE(broker_->set("Storage.Disk.2.Partition.1", "Manageddisk", "1"));
  handleNotification();
  EXPECT_EQ(invisible(stick_ + "/old.mkv"), "1");
  EXPECT_EQ(invisible(stick_ + "/Media/song.mkv"), "0");
  EXPECT_EQ(invisible(big_ + "/backup.mkv"), "0");
  EXPECT_EQ(invisible(big_ + "/Media/film.mkv"), "0");
  EXPECT_EQ(model_->managedPartitionPath(), stick_);
  // Busy while tagging, ready again after.
  EXPECT_THAT(published("ProfilingStatus"), ElementsAre("Profiling", "Ready"));
  // Already managed: no tagging, no status.
  ASSERT_TRUE(broker_->set("Storage.Disk.2.Partition.1", "Manageddisk", "yes"));
  handleNotification();
  ASSERT_TRUE(broker_->set("Storage.Disk.2.Partition.1", "Manageddisk", "1"));
  handleNotification();
  EXPECT_THAT(published("ProfilingStatus"), ElementsAre("Profiling", "Ready"));
  // Unmanaged: everything visible again.
  ASSERT_TRUE(broker_->set("Storage.Disk.2.Partition.1", "Manageddisk", "0"));
  handleNotification();
  EXPECT_EQ(invisible(stick_ + "/old.mkv"), "0");
  EXPECT_FALSE(model_->managedPartitionPath());
}

TEST_F(BusThreadTest, AVanishedPartitionLeavesTheTagDatabaseOnceStorageIsChosen) {
  connectThread(std::chrono::seconds(0));
  ASSERT_TRUE(thread_->step());
  ASSERT_EQ(model_->storageStatus(), kStorageOk);
  const std::string file = stick_ + "/song.mkv";
  sandbox_.write("uuidmount/stick/song.mkv", "x");
  kord_bulk_t* bulk = kord_bulk_init();
  ASSERT_NE(bulk, nullptr);
  ASSERT_EQ(kord_bulk_setpath(bulk, file.c_str()), 0) << kord::lastError().message;
  ASSERT_EQ(kord_bulk_settag(bulk, ".s.filetype", "STDVIDEO"), 0);
  ASSERT_EQ(kord_bulk_commit(bulk), 0);
  kord_bulk_fini(bulk);
  std::vector<std::string> known;
  ASSERT_EQ(kord::listFiles(stick_, &known), kord::Status::kOk);
  ASSERT_EQ(known.size(), 1u);
  ASSERT_TRUE(broker_->del("Storage.Disk.2.Partition.1"));
  handleNotification();  // the removal arms the deadline, which has passed at once
  EXPECT_FALSE(model_->deadline());
  known.clear();
  kord::listFiles(stick_, &known);
  EXPECT_THAT(known, IsEmpty());
  EXPECT_THAT(model_->takeRemovedPartitions(), IsEmpty());
}

TEST_F(BusThreadTest, LostBusEndsTheThreadWithoutSpinning) {
  connectThread();
  broker_->stop();
  EXPECT_FALSE(thread_->step());
  EXPECT_EQ(thread_->state(), BusThread::State::kDone);
  EXPECT_EQ(syncByte(), "0");
  EXPECT_THAT(mounts(), IsEmpty());
  EXPECT_EQ(pipe_.reportProfiling(1), -1);
}

TEST_F(BusThreadTest, ConnectionThatCannotBeMadeIsTriedFiveTimesThenTheThreadEndsSilently) {
  makeThread();  // no broker at all
  ::setenv("RILL_SOCKET", (sandbox_ / "none.sock").c_str(), 1);
  int passes = 0;
  while (thread_->step()) ++passes;
  EXPECT_EQ(thread_->attempts(), 5);
  EXPECT_EQ(passes, 5);  // the start, then four attempts that did not end it
  EXPECT_EQ(syncByte(), "");
}

TEST_F(BusThreadTest, FailedSubscriptionsAreRetriedUntilTheAttemptsRunOut) {
  startBroker(kGateway, 100, 3);  // only three subscriptions allowed
  makeThread();
  while (thread_->step()) {
  }
  EXPECT_EQ(thread_->attempts(), 5);
  EXPECT_EQ(syncByte(), "0");
}

TEST_F(BusThreadTest, StopDuringTheFirstPauseEndsAtOnceWithoutConnecting) {
  startBroker(kGateway);
  BusTiming timing = fastTiming();
  timing.first_pause = std::chrono::hours(1);
  makeThread(std::chrono::seconds(30), timing);
  std::thread stopper([&] {
    running_.store(0);
    pipe_.stop();
  });
  EXPECT_FALSE(thread_->step());
  stopper.join();
  EXPECT_EQ(thread_->attempts(), 0);
  EXPECT_EQ(syncByte(), "0");
}

TEST_F(BusThreadTest, TheRealThreadEndsOnStop) {
  startBroker(kGateway);
  config_.settle_delay = std::chrono::seconds(0);
  remakeModel();
  thread_ = std::make_unique<BusThread>(*model_, rules(), scans_, pipe_, sync_.write_end, running_, fastTiming());
  ASSERT_EQ(thread_->start(), 0);
  ASSERT_TRUE(waitFor([&] { return model_->storageReady(); }));
  pipe_.reportPartitionScanned(big_);
  pipe_.reportProfiling(1);
  ASSERT_TRUE(waitFor([&] { return published("ProfilingStatus").size() == 1; }));
  running_.store(0);
  pipe_.stop();
  thread_->join();
  EXPECT_EQ(syncByte(), "0");
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 0);
}

}  // namespace
}  // namespace zibd::test
