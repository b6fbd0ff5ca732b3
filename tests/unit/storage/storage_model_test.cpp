#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;

TEST(StoragePathTest, ParsesDiskAndPartitionNumbers) {
  const char* end = nullptr;
  EXPECT_EQ(stDiskIndex("Storage.Disk.5.Partition.2", &end), 5);
  EXPECT_STREQ(end, ".Partition.2");
  EXPECT_EQ(stDiskIndex("Storage.Disks.5", nullptr), -1);
  const struct {
    const char* path;
    int32_t partition, disk;
  } cases[] = {{"Storage.Disk.5.Partition.2", 2, 5},
               {"Storage.Disk.3X", -1, 3},              // no "." behind the disk number
               {"Storage.Disk.3.Foobarbaz.7", 7, 3},    // the eleven characters from the dot are skipped
               {"Other.Disk.3.Partition.1", -1, -1},
               {"Storage.Disk.3.Par", -1, 3}};           // never read beyond the text
  for (const auto& c : cases) {
    int32_t disk = 0;
    EXPECT_EQ(stPartitionIndex(c.path, &disk), c.partition) << c.path;
    EXPECT_EQ(disk, c.disk) << c.path;
  }
  EXPECT_EQ(stDiskObjectPath(12), "Storage.Disk.12");
}

std::string partitionLines(int disk, int partition, const std::string& mount, const std::string& free_kb = "1048576",
                           const std::string& read_only = "0") {
  const std::string object = "Storage.Disk." + std::to_string(disk) + ".Partition." + std::to_string(partition) + ".";
  return object + "MountPoint=" + mount + "\n" + object + "Status=1\n" + object + "Manageddisk=0\n" + object +
         "ReadOnly=" + read_only + "\n" + object + "FreeSpaceInKBytes=" + free_kb + "\n";
}

class StorageModelTest : public StorageTest {
 protected:
  // Starts the broker with the model text, then records the disks and partitions named.
  void record(const std::string& model, const std::vector<std::string>& disks,
              const std::vector<std::string>& partitions) {
    startBroker(model);
    connectModel();
    for (const std::string& d : disks) model_->stAddDisk(d);
    for (const std::string& p : partitions) model_->stAddPartition(p);
  }
};

TEST_F(StorageModelTest, RecordsUpPartitionsWithResolvableMountsAndTakesOneReferencePerDisk) {
  const std::string a = mount("aaaa"), b = mount("bbbb"), c = mount("cccc");
  record("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa/") +
             partitionLines(1, 2, "@ROOT@/bbbb") +
             "Storage.Disk.1.Partition.3.MountPoint=@ROOT@/aaaa\nStorage.Disk.1.Partition.3.Status=0\n"  // down
             "Storage.Disk.1.Partition.4.MountPoint=@ROOT@/gone\nStorage.Disk.1.Partition.4.Status=1\n"  // no mount
             // Parameter names match as substrings.
             "Storage.Disk.1.Partition.5.OldMountPoint=@ROOT@/cccc\nStorage.Disk.1.Partition.5.Status=1\n" +
             partitionLines(9, 1, "@ROOT@/aaaa"),  // an unknown disk
         {"Storage.Disk.1", "Storage.Disk.7"},     // disk 7 is not on the bus
         {"Storage.Disk.1.Partition.1", "Storage.Disk.1.Partition.2", "Storage.Disk.1.Partition.3",
          "Storage.Disk.1.Partition.4", "Storage.Disk.1.Partition.5", "Storage.Disk.9.Partition.1"});
  EXPECT_THAT(mounts(), ElementsAre(c, b, a));  // newest first, canonical
  EXPECT_THAT(watches_.calls, ElementsAre("add " + a, "add " + b, "add " + c));
  EXPECT_EQ(broker_->refcount("Storage.Disk.1"), 1);
  EXPECT_TRUE(model_->deadline().has_value());
  // The same disk again is a second record; lookups find the newer.
  ASSERT_TRUE(broker_->set("Storage.Disk.1", "CapacityInMBytes", "2000"));
  model_->stAddDisk("Storage.Disk.1");
  MutexLock hold(model_->storage_lock);
  EXPECT_EQ(model_->disks.size(), 2u);
  EXPECT_EQ(model_->stFindDisk(1)->capacity, 2000u);
  EXPECT_EQ(model_->disks.back().capacity, 1000u);
  EXPECT_EQ(model_->disks.back().refcount, 1u);
  EXPECT_EQ(model_->disks.back().partitions.back().free_mb, 1024u);
}

TEST_F(StorageModelTest, FailedReadsAddNothingAndNeverHang) {
  mount("aaaa");
  startBroker("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa"));
  connectModel();
  broker_->stop();
  model_->stAddDisk("Storage.Disk.1");
  model_->stAddPartition("Storage.Disk.1.Partition.1");
  EXPECT_TRUE(mounts().empty());
}

TEST_F(StorageModelTest, QueriesAndChangeEventsFollowThePartitions) {
  const std::string a = mount("aaaa"), b = mount("bbbb");
  record("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa") +
             partitionLines(1, 2, "@ROOT@/bbbb"),
         {"Storage.Disk.1"}, {"Storage.Disk.1.Partition.1", "Storage.Disk.1.Partition.2"});
  EXPECT_FALSE(model_->managedPartitionPath());
  {
    MutexLock hold(model_->storage_lock);
    model_->disks.front().partitions.back().managed = 1;
  }
  EXPECT_EQ(model_->managedPartitionPath(), a);
  EXPECT_TRUE(model_->pathIsOnPartition(b + "/x/y"));
  EXPECT_TRUE(model_->pathIsOnPartition(b));
  EXPECT_FALSE(model_->pathIsOnPartition(b + "b"));
  EXPECT_FALSE(model_->pathIsOnPartition(root_));
  model_->sendChangeEvent(a + "/Media/film.mkv");
  model_->sendChangeEvent(b);
  model_->sendChangeEvent(root_ + "/elsewhere/x");
  EXPECT_EQ(sandbox_.read("tock.events"), a.substr(1) + "\t2\t/Media/film.mkv\n" + b.substr(1) + "\t2\t\n");
}

// The choice of the metadata storage. Disks 1, 2 and 3 have 500, 900 and 900
// MB; each case adds partition 1 of the disks it names, in its order.
struct ChoiceCase {
  const char* name;
  struct Part {
    int disk;
    const char* mount;
    std::string free_kb;
    bool read_only = false, database = false;
  };
  std::vector<Part> partitions;
  std::string location;  // the remembered mount name, "" for none
  std::string chosen;    // the mount name chosen, "" for none
};

std::string mb(unsigned long n) { return std::to_string(n * 1024); }

class ChoiceTest : public StorageModelTest, public ::testing::WithParamInterface<ChoiceCase> {};

TEST_P(ChoiceTest, ChoosesTheRememberedThenAnExistingDatabaseThenTheBestNewPlace) {
  const ChoiceCase& c = GetParam();
  std::string model = "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
                      "Storage.Disk.1.CapacityInMBytes=500\nStorage.Disk.2.CapacityInMBytes=900\n"
                      "Storage.Disk.3.CapacityInMBytes=900\n";
  std::vector<std::string> objects;
  for (const auto& p : c.partitions) {
    mount(p.mount, p.database);
    model += partitionLines(p.disk, 1, "@ROOT@/" + std::string(p.mount), p.free_kb, p.read_only ? "1" : "0");
    objects.push_back("Storage.Disk." + std::to_string(p.disk) + ".Partition.1");
  }
  if (!c.location.empty()) sandbox_.write("location", root_ + "/" + c.location);
  record(model, {"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.3"}, objects);

  EXPECT_EQ(model_->stChooseMetadataStorage(), !c.chosen.empty());
  if (c.chosen.empty()) {
    EXPECT_EQ(model_->storageStatus(), kNoSuitableDisk);
    EXPECT_EQ(sandbox_.read("kord.ini"), "");
    return;
  }
  const std::string chosen = root_ + "/" + c.chosen;
  EXPECT_EQ(model_->storageStatus(), kStorageOk);
  EXPECT_EQ(sandbox_.read("location"), chosen);
  EXPECT_THAT(sandbox_.read("kord.ini"),
              ::testing::MatchesRegex("dms-metadata-db-[0-9]+:" + root_ + ":" + chosen + "/\\.kord/tagdb\n"));
  EXPECT_THAT(broker_->history("VFS.MetaDataService", "MetaDataStorageStatus"), ElementsAre("OK"));
  MutexLock hold(model_->storage_lock);
  for (const Disk& disk : model_->disks)
    EXPECT_EQ(disk.holds_metadata, disk.partitions.front().mount_path == chosen ? 1u : 0u) << disk.index;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ChoiceTest,
    ::testing::Values(
        ChoiceCase{"LargestDiskBeforeMoreSpace", {{1, "small", mb(100000)}, {2, "large", mb(300)}}, "", "large"},
        ChoiceCase{"MoreSpaceOnEqualDisks", {{2, "less", mb(300)}, {3, "more", mb(301)}}, "", "more"},
        ChoiceCase{"TieGoesToTheOlder", {{2, "older", mb(300)}, {3, "newer", mb(300)}}, "", "older"},
        ChoiceCase{"TwoHundredFiftyMegabytesAreEnough", {{2, "short", mb(249)}, {1, "tight", mb(250)}}, "", "tight"},
        ChoiceCase{"ReadOnlyNeverEvenWithADatabase", {{2, "ro", mb(100000), true, true}, {3, "short", mb(249)}}, "",
                   ""},
        ChoiceCase{"ExistingDatabaseBeforeMoreSpace", {{2, "db", mb(300), false, true}, {3, "big", mb(9000)}}, "",
                   "db"},
        ChoiceCase{"RememberedWithoutDatabaseLosesToTheNewestDatabase",
                   {{1, "plain", mb(100000)}, {2, "db1", mb(300), false, true}, {3, "db2", mb(300), false, true}},
                   "plain",
                   "db2"},
        ChoiceCase{"RememberedWithItsDatabaseFirst",
                   {{2, "db2", mb(300), false, true}, {3, "db1", mb(300), false, true}},
                   "db2",
                   "db2"},
        // More kilobytes than an unsigned long holds, or 4 TiB, which overflows
        // the gateway's 32 bits: plenty on every target; text is none.
        ChoiceCase{"HugeFreeSpaceIsPlenty", {{1, "huge", "99999999999999999999"}}, "", "huge"},
        ChoiceCase{"FourTebibytesArePlenty", {{1, "big", "4294967296"}}, "", "big"},
        ChoiceCase{"UnreadableFreeSpaceIsNone", {{1, "lots", "lots"}}, "", ""}),
    [](const ::testing::TestParamInfo<ChoiceCase>& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace zibd::test
