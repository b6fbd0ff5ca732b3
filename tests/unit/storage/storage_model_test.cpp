// The storage model and the index-rule registry against a broker in the test's process.
#include <gmock/gmock.h>

#include <sstream>

#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;

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
    for (const std::string& d : disks) model_->addDisk(d);
    for (const std::string& p : partitions) model_->addPartition(p);
  }
};

TEST_F(StorageModelTest, RecordsUpPartitionsWithResolvableMountsTakesOneReferencePerDiskAndAnswersForThem) {
  const std::string a = mount("aaaa"), b = mount("bbbb"), c = mount("cccc");
  mount("dddd");
  mount("tab\there");
  ASSERT_EQ(::symlink(a.c_str(), (root_ + "/alias").c_str()), 0);
  record("Storage.Disk.1.CapacityInMBytes=1000\n" + partitionLines(1, 1, "@ROOT@/aaaa/") +
             partitionLines(1, 2, "@ROOT@/bbbb") +
             "Storage.Disk.1.Partition.3.MountPoint=@ROOT@/aaaa\nStorage.Disk.1.Partition.3.Status=0\n"  // down
             "Storage.Disk.1.Partition.4.MountPoint=@ROOT@/gone\nStorage.Disk.1.Partition.4.Status=1\n"  // no mount
             // Parameter names match as substrings.
             "Storage.Disk.1.Partition.5.OldMountPoint=@ROOT@/cccc\nStorage.Disk.1.Partition.5.Status=1\n" +
             partitionLines(9, 1, "@ROOT@/aaaa") +  // an unknown disk
             partitionLines(1, 6, "@ROOT@/tab\there") + partitionLines(1, 7, "@ROOT@/alias") +  // refused
             "Storage.Disk.2.CapacityInMBytes=1000\n" + partitionLines(2, 1, "@ROOT@/dddd"),
         {"Storage.Disk.1", "Storage.Disk.7"},     // disk 7 is not on the bus
         {"Storage.Disk.1.Partition.1", "Storage.Disk.1.Partition.2", "Storage.Disk.1.Partition.3",
          "Storage.Disk.1.Partition.4", "Storage.Disk.1.Partition.5", "Storage.Disk.9.Partition.1",
          "Storage.Disk.1.Partition.6", "Storage.Disk.1.Partition.7"});
  EXPECT_THAT(mounts(), ElementsAre(c, b, a));  // newest first, canonical
  EXPECT_THAT(upper_.calls, ElementsAre("add " + a, "add " + b, "add " + c));
  EXPECT_EQ(refcount("Storage.Disk.1"), 1);
  EXPECT_TRUE(model_->deadline().has_value());
  EXPECT_FALSE(model_->managedPartitionPath());
  EXPECT_EQ(model_->setManaged("Storage.Disk.1.Partition.1", true).now_managed, a);
  EXPECT_EQ(model_->managedPartitionPath(), a);
  // A change event goes out through the partition the path lies on, if any.
  model_->sendChangeEvent(a + "/Media/film.mkv");
  model_->sendChangeEvent(b);
  model_->sendChangeEvent(root_ + "/elsewhere/x");
  EXPECT_EQ(sandbox_.read("tock.events"), a.substr(1) + "\t2\t/Media/film.mkv\n" + b.substr(1) + "\t2\t\n");
  // Reads that fail add nothing and never hang.
  stopBroker();
  model_->addDisk("Storage.Disk.2");
  model_->addPartition("Storage.Disk.2.Partition.1");
  EXPECT_THAT(mounts(), ElementsAre(c, b, a));
}

// The metadata storage choice. Disks 1-3 have 500, 900, 900 MB. A case adds partition 1 of each disk
// it names, in order, as "DISK MOUNT FREE [ro] [db]": FREE in MB or "=TEXT" in KB; db: holds a database.
// Partitions comma-separated; the remembered and the chosen mount names, "" for none.
struct ChoiceCase { const char *name, *partitions, *location, *chosen; };

class ChoiceTest : public StorageModelTest, public ::testing::WithParamInterface<ChoiceCase> {};

TEST_P(ChoiceTest, ChoosesTheRememberedThenAnExistingDatabaseThenTheBestNewPlace) {
  const ChoiceCase& c = GetParam();
  std::string model = "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
                      "Storage.Disk.1.CapacityInMBytes=500\nStorage.Disk.2.CapacityInMBytes=900\n"
                      "Storage.Disk.3.CapacityInMBytes=900\n";
  std::vector<std::string> objects;
  std::istringstream parts(c.partitions);
  for (std::string part; std::getline(parts, part, ',');) {
    std::istringstream fields(part);
    int disk = 0;
    std::string name, free, flags, flag;
    fields >> disk >> name >> free;
    while (fields >> flag) flags += flag;
    mount(name, flags.find("db") != std::string::npos);
    const std::string kb = free[0] == '=' ? free.substr(1) : std::to_string(std::stoul(free) * 1024);
    model += partitionLines(disk, 1, "@ROOT@/" + name, kb, flags.find("ro") != std::string::npos ? "1" : "0");
    objects.push_back("Storage.Disk." + std::to_string(disk) + ".Partition.1");
  }
  if (*c.location) sandbox_.write("location", root_ + "/" + c.location);
  record(model, {"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.3"}, objects);

  const Result<bool> chosen_any = model_->chooseMetadataStorage();
  ASSERT_TRUE(chosen_any.ok()) << chosen_any.status().message();
  EXPECT_EQ(chosen_any.value(), *c.chosen != '\0');
  if (!*c.chosen) {
    EXPECT_EQ(model_->storageStatus(), kNoSuitableDisk);
    EXPECT_EQ(sandbox_.read("kord.ini"), "");
    return;
  }
  const std::string chosen = root_ + "/" + c.chosen;
  EXPECT_EQ(model_->storageStatus(), kStorageOk);
  EXPECT_EQ(sandbox_.read("location"), chosen);
  EXPECT_THAT(sandbox_.read("kord.ini"),
              ::testing::MatchesRegex("dms-metadata-db-[0-9]+:" + root_ + ":" + chosen + "/\\.kord/tagdb\n"));
  EXPECT_THAT(history("VFS.MetaDataService", "MetaDataStorageStatus"), ElementsAre("OK"));
  model_->visitDisks([&](const Disk& disk) {
    EXPECT_EQ(disk.holds_metadata, !disk.partitions.empty() && disk.partitions.front().mount_path == chosen ? 1u : 0u) << disk.index;
  });
}

// More KB than an unsigned long holds, or 4 TiB (over 32 bits), are plenty everywhere; text is none.
constexpr ChoiceCase kChoiceCases[] = {
    {"LargestDiskBeforeMoreSpace", "1 small 100000, 2 large 300", "", "large"},
    {"MoreSpaceOnEqualDisks", "2 less 300, 3 more 301", "", "more"},
    {"TieGoesToTheOlder", "2 older 300, 3 newer 300", "", "older"},
    {"TwoHundredFiftyMegabytesAreEnough", "2 short 249, 1 tight 250", "", "tight"},
    {"ReadOnlyNeverEvenWithADatabase", "2 ro 100000 ro db, 3 short 249", "", ""},
    {"ExistingDatabaseFirst", "2 db 300 db, 3 big 9000", "", "db"},
    {"RememberedWithoutDatabaseLosesToTheNewestDatabase", "1 plain 100000, 2 db1 300 db, 3 db2 300 db", "plain", "db2"},
    {"RememberedWithItsDatabaseFirst", "2 db2 300 db, 3 db1 300 db", "db2", "db2"},
    {"HugeFreeSpaceIsPlenty", "1 huge =99999999999999999999", "", "huge"},
    {"FourTebibytesArePlenty", "1 big =4294967296", "", "big"},
    {"UnreadableFreeSpaceIsNone", "1 lots =lots", "", ""},
};
INSTANTIATE_TEST_SUITE_P(Cases, ChoiceTest, ::testing::ValuesIn(kChoiceCases),
                         [](const ::testing::TestParamInfo<ChoiceCase>& param) { return std::string(param.param.name); });

IndexRule rule(const std::string& object, std::optional<std::string> dir, uint32_t categories, uint32_t enabled = 1) {
  return {.enabled = enabled, .path = {}, .uuid = "ab", .directory_name = dir,
          .object_path = object, .categories = categories};
}

TEST_F(StorageTest, RulesAreReadFromTheBusResolvedThroughLinksAndCountOnlyStrictlyBelow) {
  RuleRegistry added("/r");
  added.addRule(rule("R.1", "Media/", kCategoryMovies));
  added.addRule(rule("R.2", std::nullopt, kCategoryMusic));  // no directory: no path
  added.addRule(rule("R.3", "Media/Films", kCategoryPictures));
  added.addRule(rule("R.4", "Media", kCategoryMusic, 0));  // disabled
  EXPECT_EQ(added.findRule("R.1")->path, "/r/ab/Media");
  EXPECT_FALSE(added.findRule("R.2")->path);
  for (const auto& [path, mask] : {std::pair{"/r/ab/Media/Films/film.mkv", 5u}, {"/r/ab/Media/Films2/x", 1u},
                                   {"/r/ab/Media/Films", 1u}, {"/r/ab/Media", 0u}, {"/r/cd/Media/x", 0u}})
    EXPECT_EQ(added.ruleCategories(path), mask) << path;
  const std::string rule1 = "ContentSharing.UPnPAV.IndexRules.1", rule2 = "ContentSharing.UPnPAV.IndexRules.2";
  // EnableMusic is no boolean: the last good conversion (true) still counts.
  startBroker(rule1 + ".Status=Up\n" + rule1 + ".UUID=link\n" + rule1 + ".PartitionName=Family disk\n" + rule1 +
              ".DirectoryName=Media/\n" + rule1 + ".EnableMovie=1\n" + rule1 + ".EnableMusic=maybe\n" + rule1 +
              ".EnablePicture=0\n" + rule2 + ".Status=Down\n" + rule2 + ".EnableMovie=1\n");
  RuleRegistry rules(root_);
  connectModel();
  ASSERT_TRUE(rules.readRule(conn_, rule1).ok());
  ASSERT_TRUE(rules.readRule(conn_, rule2).ok());
  (void)rules.readRule(conn_, "ContentSharing.UPnPAV.IndexRules.9");  // missing: no record
  EXPECT_FALSE(rules.findRule("ContentSharing.UPnPAV.IndexRules.9"));
  auto first = rules.findRule(rule1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->enabled, 1u);
  EXPECT_EQ(first->path, root_ + "/link/Media");
  EXPECT_EQ(first->categories, kCategoryMovies | kCategoryMusic);
  EXPECT_EQ(rules.findRule(rule2)->enabled, 0u);
  sandbox_.mkdirs("uuidmount/real/Media");
  ASSERT_EQ(::symlink((root_ + "/real").c_str(), (root_ + "/link").c_str()), 0);
  rules.resolveRulePaths();
  EXPECT_EQ(rules.findRule(rule1)->path, root_ + "/real/Media");
  EXPECT_EQ(rules.ruleCategories(root_ + "/real/Media/a.mp3"), kCategoryMovies | kCategoryMusic);
}

}  // namespace
}  // namespace zibd::test
