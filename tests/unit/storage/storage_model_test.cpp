#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>

#include "tests/support/sandbox.h"
#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(StoragePathTest, ParsesDiskAndPartitionNumbers) {
  const char* end = nullptr;
  EXPECT_EQ(stDiskIndex("Storage.Disk.5.Partition.2", &end), 5);
  EXPECT_STREQ(end, ".Partition.2");
  EXPECT_EQ(stDiskIndex("Storage.Disks.5", nullptr), -1);
  int32_t disk = 0;
  EXPECT_EQ(stPartitionIndex("Storage.Disk.5.Partition.2", &disk), 2);
  EXPECT_EQ(disk, 5);
  // No "." behind the disk number: a disk, but no partition.
  EXPECT_EQ(stPartitionIndex("Storage.Disk.3X", &disk), -1);
  EXPECT_EQ(disk, 3);
  // The eleven characters from the dot on are skipped unseen.
  EXPECT_EQ(stPartitionIndex("Storage.Disk.3.Foobarbaz.7", &disk), 7);
  EXPECT_EQ(stPartitionIndex("Other.Disk.3.Partition.1", &disk), -1);
  EXPECT_EQ(disk, -1);
  // Too short to hold a partition number: never read beyond the text.
  EXPECT_EQ(stPartitionIndex("Storage.Disk.3.Par", &disk), -1);
  EXPECT_EQ(stDiskObjectPath(12), "Storage.Disk.12");
}

TEST(StoragePathTest, UnderMeansEqualOrContinuedWithSlash) {
  EXPECT_TRUE(pathIsUnder("/var/uuidmount/ab", "/var/uuidmount/ab"));
  EXPECT_TRUE(pathIsUnder("/var/uuidmount/ab/x", "/var/uuidmount/ab"));
  EXPECT_FALSE(pathIsUnder("/var/uuidmount/abc", "/var/uuidmount/ab"));
  EXPECT_FALSE(pathIsUnder("/var/uuidmount", "/var/uuidmount/ab"));
}

std::string partitionLines(int disk, int partition, const std::string& mount, const std::string& extra = "") {
  const std::string object = "Storage.Disk." + std::to_string(disk) + ".Partition." + std::to_string(partition);
  return object + ".MountPoint=" + mount + "\n" + object + ".Status=1\n" + object + ".Manageddisk=0\n" + object +
         ".ReadOnly=0\n" + object + ".FreeSpaceInKBytes=1048576\n" + extra;
}

class StorageModelTest : public StorageTest {
 protected:
  std::vector<std::string> mounts() {
    MutexLock hold(model_->storage_lock);
    std::vector<std::string> all;
    for (const Disk& disk : model_->disks)
      for (const Partition& p : disk.partitions) all.push_back(p.mount_path);
    return all;
  }
  Partition* partition(const char* path) {
    model_->storage_lock.assertHeld();
    Disk* disk = nullptr;
    return model_->stFindPartition(path, &disk);
  }
};

TEST_F(StorageModelTest, RecordsUpPartitionsWithResolvableMountsAndTakesOneReferencePerDisk) {
  const std::string a = mount("aaaa"), b = mount("bbbb");
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa/") +
              partitionLines(1, 2, "@ROOT@/bbbb") +
              // Down: not recorded.
              "Storage.Disk.1.Partition.3.MountPoint=@ROOT@/aaaa\nStorage.Disk.1.Partition.3.Status=0\n"
              // Its mount point does not resolve: not recorded.
              "Storage.Disk.1.Partition.4.MountPoint=@ROOT@/gone\nStorage.Disk.1.Partition.4.Status=1\n"
              // The disk is unknown.
              + partitionLines(9, 1, "@ROOT@/aaaa"));
  connectModel();
  model_->stAddDisk("Storage.Disk.1");
  for (const char* p : {"Storage.Disk.1.Partition.1", "Storage.Disk.1.Partition.2", "Storage.Disk.1.Partition.3",
                        "Storage.Disk.1.Partition.4", "Storage.Disk.9.Partition.1"})
    model_->stAddPartition(p);
  EXPECT_THAT(mounts(), ElementsAre(b, a));  // newest first, canonical
  EXPECT_THAT(watches_.calls, ElementsAre("add " + a, "add " + b));
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 1);
  EXPECT_TRUE(model_->deadline().has_value());
  {
    MutexLock hold(model_->storage_lock);
    Disk* disk = model_->stFindDisk(1);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->capacity, 1000u);
    EXPECT_EQ(disk->refcount, 1u);
    Partition* p = partition("Storage.Disk.1.Partition.1");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->free_mb, 1024u);
    EXPECT_EQ(p->disk, disk);
  }
  // The daemon's connection ends: every partition goes, the reference is
  // given back.
  model_->stReleaseAllDisks();
  EXPECT_THAT(mounts(), IsEmpty());
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 0);
  EXPECT_THAT(model_->takeRemovedPartitions(), ElementsAre(a, b));
  EXPECT_THAT(scanner_.calls, ElementsAre("stopBelow " + b, "stopBelow " + a));
}

TEST_F(StorageModelTest, ParameterNamesMatchAsSubstringsAndHugeFreeSpaceIsPlenty) {
  mount("aaaa");
  const std::string b = mount("bbbb");
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n"
              "Storage.Disk.1.Partition.1.OldMountPoint=@ROOT@/bbbb\n"
              "Storage.Disk.1.Partition.1.Status=1\n"
              // More kilobytes than an unsigned long holds, on any target.
              "Storage.Disk.1.Partition.1.FreeSpaceInKBytes=99999999999999999999\n"
              "Storage.Disk.1.Partition.2.MountPoint=@ROOT@/aaaa\n"
              "Storage.Disk.1.Partition.2.Status=1\n"
              "Storage.Disk.1.Partition.2.FreeSpaceInKBytes=lots\n");
  connectModel();
  model_->stAddDisk("Storage.Disk.1");
  model_->stAddPartition("Storage.Disk.1.Partition.1");
  model_->stAddPartition("Storage.Disk.1.Partition.2");
  MutexLock hold(model_->storage_lock);
  Partition* huge = partition("Storage.Disk.1.Partition.1");
  ASSERT_NE(huge, nullptr);
  EXPECT_EQ(huge->mount_path, b);
  EXPECT_EQ(huge->free_mb, std::numeric_limits<uint32_t>::max());
  EXPECT_TRUE(model_->stIsSuitable(*huge, false));
  Partition* unreadable = partition("Storage.Disk.1.Partition.2");
  ASSERT_NE(unreadable, nullptr);
  EXPECT_EQ(unreadable->free_mb, 0u);
}

// 4 TiB in kilobytes overflows the 32-bit unsigned long of the gateway: it
// still reads as at least 4 TiB, never as a full disk.
TEST_F(StorageModelTest, FourTebibytesOfFreeSpaceReadAsPlentyOnEveryTarget) {
  mount("big");
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/big") +
              "Storage.Disk.1.Partition.1.FreeSpaceInKBytes=4294967296\n");
  connectModel();
  model_->stAddDisk("Storage.Disk.1");
  model_->stAddPartition("Storage.Disk.1.Partition.1");
  MutexLock hold(model_->storage_lock);
  Partition* big = partition("Storage.Disk.1.Partition.1");
  ASSERT_NE(big, nullptr);
  EXPECT_GE(big->free_mb, 4194304u);
  EXPECT_TRUE(model_->stIsSuitable(*big, false));
}

TEST_F(StorageModelTest, SameDiskTwiceGivesTwoRecordsAndLookupsFindTheNewer) {
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n");
  connectModel();
  model_->stAddDisk("Storage.Disk.1");
  ASSERT_TRUE(broker_->set("Storage.Disk.1", "CapacityInMBytes", "2000"));
  model_->stAddDisk("Storage.Disk.1");
  model_->stAddDisk("Storage.Disk.7");  // not on the bus: not recorded
  MutexLock hold(model_->storage_lock);
  EXPECT_EQ(model_->disks.size(), 2u);
  ASSERT_NE(model_->stFindDisk(1), nullptr);
  EXPECT_EQ(model_->stFindDisk(1)->capacity, 2000u);
}

TEST_F(StorageModelTest, FailedReadsAddNothingAndNeverHang) {
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa"));
  mount("aaaa");
  connectModel();
  broker_->stop();
  model_->stAddDisk("Storage.Disk.1");
  model_->stAddPartition("Storage.Disk.1.Partition.1");
  MutexLock hold(model_->storage_lock);
  EXPECT_TRUE(model_->disks.empty());
}

const char kThreeDisks[] =
    "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
    "Storage.Disk.1.CapacityInMBytes=500\n"
    "Storage.Disk.2.CapacityInMBytes=900\n"
    "Storage.Disk.3.CapacityInMBytes=900\n";

class SelectionTest : public StorageModelTest {
 protected:
  // Adds partition 1 of each disk, with the given free megabytes and read-only flag.
  void addPartition(int disk, const std::string& name, unsigned free_mb, bool read_only = false) {
    const std::string object = "Storage.Disk." + std::to_string(disk) + ".Partition.1";
    ASSERT_TRUE(broker_->add(object, {{"MountPoint", root_ + "/" + name},
                                      {"Status", "1"},
                                      {"ReadOnly", read_only ? "1" : "0"},
                                      {"FreeSpaceInKBytes", std::to_string(free_mb * 1024ul)}}));
    model_->stAddPartition(object);
  }
  void start() {
    startBroker(kThreeDisks);
    connectModel();
    for (const char* disk : {"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.3"}) model_->stAddDisk(disk);
  }
  std::string chosen() {
    EXPECT_TRUE(model_->stChooseMetadataStorage());
    return sandbox_.read("location");
  }
};

TEST_F(SelectionTest, BestNewPlaceIsTheLargestDiskThenMostSpaceAndTiesGoToTheOlder) {
  start();
  mount("small");
  const std::string older = mount("older"), newer = mount("newer");
  addPartition(1, "small", 100000);
  addPartition(2, "older", 300);  // disk 2 and 3 are equal
  addPartition(3, "newer", 300);
  EXPECT_EQ(chosen(), older);
  EXPECT_EQ(model_->storageStatus(), kStorageOk);
  // kord.ini: one line naming the root and the database on the chosen partition.
  const std::string ini = sandbox_.read("kord.ini");
  EXPECT_THAT(ini, ::testing::MatchesRegex("dms-metadata-db-[0-9]+:" + root_ + ":" + older + "/\\.kord/tagdb\n"));
  MutexLock hold(model_->storage_lock);
  EXPECT_EQ(model_->stFindDisk(2)->holds_metadata, 1u);
  EXPECT_EQ(model_->stFindDisk(3)->holds_metadata, 0u);
}

TEST_F(SelectionTest, TwoHundredFiftyMegabytesAreEnoughAndReadOnlyNeverIs) {
  start();
  mount("ro", true);
  mount("tight");
  mount("short");
  addPartition(2, "ro", 100000, true);  // holds a database, but read-only
  addPartition(3, "short", 249);
  EXPECT_FALSE(model_->stChooseMetadataStorage());
  EXPECT_EQ(model_->storageStatus(), kNoSuitableDisk);
  EXPECT_FALSE(sandbox_.read("kord.ini").size());
  addPartition(1, "tight", 250);
  EXPECT_EQ(chosen(), root_ + "/tight");
}

TEST_F(SelectionTest, RememberedLocationFirstUnlessItLostItsDatabase) {
  start();
  const std::string plain = mount("plain"), db1 = mount("db1", true), db2 = mount("db2", true);
  addPartition(1, "plain", 100000);
  addPartition(2, "db1", 300);
  addPartition(3, "db2", 300);
  // Remembered, but without a database: the first existing database wins
  // (disk 3 is the newest, so met first).
  sandbox_.write("location", plain);
  EXPECT_EQ(chosen(), db2);
}

TEST_F(SelectionTest, RememberedPartitionWithItsDatabaseIsChosenAgain) {
  start();
  mount("db1", true);
  const std::string db2 = mount("db2", true);
  addPartition(2, "db2", 300);
  addPartition(3, "db1", 300);
  sandbox_.write("location", db2);
  EXPECT_EQ(chosen(), db2);
  // A location with a line end never matches.
  MutexLock hold(model_->storage_lock);
  EXPECT_EQ(model_->stFindDisk(2)->holds_metadata, 1u);
}

TEST_F(SelectionTest, LosingTheMetadataDiskWithdrawsTheChoiceAndPublishesEachChangeOnce) {
  start();
  const std::string a = mount("a"), b = mount("b");
  addPartition(2, "a", 1000);
  addPartition(3, "b", 500);
  ASSERT_EQ(chosen(), a);
  {
    MutexLock hold(model_->storage_lock);
    partition("Storage.Disk.3.Partition.1")->scanned = 1;
    model_->stSetStorageStatus(kStorageOk);  // no change: nothing published
  }
  model_->disarmDeadline();
  scanner_.calls.clear();
  model_->stRemoveDisk("Storage.Disk.2", false);
  EXPECT_EQ(model_->storageStatus(), kNoSuitableDisk);
  EXPECT_EQ(sandbox_.read("kord.ini"), "");
  EXPECT_EQ(sandbox_.read("location"), a);  // kept for the disk's return
  EXPECT_TRUE(model_->deadline().has_value());
  EXPECT_THAT(scanner_.calls, ElementsAre("stopAll", "stopBelow " + a));
  EXPECT_THAT(broker_->history("VFS.MetaDataService", "MetaDataStorageStatus"),
              ElementsAre("OK", "NoSuitableDisk"));
  {
    MutexLock hold(model_->storage_lock);
    EXPECT_EQ(partition("Storage.Disk.3.Partition.1")->scanned, 0u);
    EXPECT_EQ(model_->stFindDisk(2), nullptr);
  }
  EXPECT_EQ(chosen(), b);
}

TEST_F(SelectionTest, UnmountRequestReleasesTheReferenceAndPlainRemovalDoesNot) {
  start();
  mount("a");
  mount("b");
  addPartition(2, "a", 1000);
  addPartition(3, "b", 1000);
  ASSERT_EQ(broker_->refcount("Storage.Disk.2"), 1);
  model_->stRemoveDisk("Storage.Disk.2", true);
  EXPECT_EQ(broker_->refcount("Storage.Disk.2"), 0);
  model_->stRemoveDisk("Storage.Disk.3", false);
  EXPECT_EQ(broker_->refcount("Storage.Disk.3"), 1);
  EXPECT_THAT(model_->takeRemovedPartitions(), ElementsAre(root_ + "/b", root_ + "/a"));
}

TEST_F(StorageModelTest, QueriesAndChangeEventsFollowThePartitions) {
  const std::string a = mount("aaaa"), b = mount("bbbb");
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa") +
              partitionLines(1, 2, "@ROOT@/bbbb"));
  connectModel();
  model_->stAddDisk("Storage.Disk.1");
  EXPECT_FALSE(model_->managedPartitionPath());
  model_->stAddPartition("Storage.Disk.1.Partition.1");
  model_->stAddPartition("Storage.Disk.1.Partition.2");
  EXPECT_FALSE(model_->managedPartitionPath());
  {
    MutexLock hold(model_->storage_lock);
    partition("Storage.Disk.1.Partition.1")->managed = 1;
  }
  EXPECT_EQ(model_->managedPartitionPath(), a);
  EXPECT_TRUE(model_->pathIsOnPartition(b + "/x/y"));
  EXPECT_TRUE(model_->pathIsOnPartition(b));
  EXPECT_FALSE(model_->pathIsOnPartition(b + "b"));
  model_->sendChangeEvent(a + "/Media/film.mkv");
  model_->sendChangeEvent(b);
  model_->sendChangeEvent(root_ + "/elsewhere/x");
  EXPECT_EQ(sandbox_.read("tock.events"),
            a.substr(1) + "\t2\t/Media/film.mkv\n" + b.substr(1) + "\t2\t\n");
}

}  // namespace
}  // namespace zibd::test
