#include <gtest/gtest.h>

#include "host/rill/model.h"
#include "host/rill/path.h"

namespace zibd::rill {
namespace {

Path must(const std::optional<Path>& path) {
  EXPECT_TRUE(path);
  return path.value_or(Path{});
}
Path object(const std::string& text) { return must(parseObjectPath(text)); }
Path pattern(const std::string& text) { return must(parsePattern(text)); }
std::string deep(size_t segments) {  // an object path of that many segments
  std::string text = "A.1";
  for (size_t i = 1; i < segments; ++i) text += ".A.1";
  return text;
}

// Every object above an object exists too, so depth costs its square: at most
// kMaxSegments segments, not counting a parameter name after them.
TEST(RillPathTest, RejectsMalformedAndTooDeepPaths) {
  for (const std::string& bad : std::vector<std::string>{
           "", ".", "Storage.", ".Storage", "Storage..Disk", "1.Storage", "Storage.Disk.1.2", "Storage.Disk.01",
           "Storage.Disk.-1", "Storage.Di sk", "Storage.Disk.99999999999", "Storage.*.3", "Storage/Disk",
           std::string(kMaxPathLength + 1, 'a'), deep(kMaxSegments) + ".*"}) {
    EXPECT_FALSE(parsePattern(bad)) << bad;
  }
  EXPECT_FALSE(parseObjectPath("Storage.*.Partition"));  // a pattern names no single object
  EXPECT_FALSE(parseObjectPath(deep(kMaxSegments + 1)));
  EXPECT_TRUE(parseObjectPath(deep(kMaxSegments)));
  EXPECT_TRUE(parsePattern(deep(kMaxSegments - 1) + ".*"));
  EXPECT_TRUE(parseParamPath(deep(kMaxSegments) + ".P"));
  EXPECT_EQ(format(parseParamPath("Storage.Disk.1.Partition.2.Status")->object), "Storage.Disk.1.Partition.2");
  for (const std::string& bad :
       std::vector<std::string>{"Storage.Disk.1", "Manageddisk", "Storage.*.Status", deep(kMaxSegments + 1) + ".P"})
    EXPECT_FALSE(parseParamPath(bad)) << bad;
}

TEST(RillPathTest, ClassesMatchTheirInstancesOnly) {
  struct Case {
    const char* pattern;
    const char* object;
    bool matches, at_or_below;
  };
  for (const Case& c : std::vector<Case>{
           {"Storage.Disk", "Storage.Disk.1", true, true},
           {"Storage.Disk", "Storage.Disk.1.Partition.2", false, true},  // below a disk is not a disk
           {"Storage.Disk.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.*.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.Disk.1.Partition", "Storage.Disk.1.Partition.2", true, true},
           {"Storage.Disk.2.Partition", "Storage.Disk.1.Partition.2", false, false},
           {"Storage.*", "Storage.Disk.1.Partition.2", false, true},
           {"VFS.MetaDataService", "VFS.MetaDataService", true, true},
           {"Storage.Disk.1", "Storage.Disk.10", false, false},
           {"Storage.Disk.1.Partition.2", "Storage.Disk.1", false, false},
       }) {
    EXPECT_EQ(matches(pattern(c.pattern), object(c.object)), c.matches) << c.pattern << " " << c.object;
    EXPECT_EQ(matchesAtOrBelow(pattern(c.pattern), object(c.object)), c.at_or_below) << c.pattern << " " << c.object;
  }
}

TEST(RillModelTest, AddImpliesParentsSetTellsChangesAndRemoveTakesTheSubtree) {
  Model model;
  auto created = model.add(object("Storage.Disk.1.Partition.2"), {{"Status", "1"}, {"MountPoint", "/m"}});
  ASSERT_EQ(created.size(), 3u);  // outermost first
  EXPECT_EQ(format(created[0]), "Storage");
  EXPECT_EQ(format(created[2]), "Storage.Disk.1.Partition.2");
  EXPECT_EQ(model.find(created[2])->params.size(), 2u);
  EXPECT_TRUE(model.add(object("Storage.Disk.1.Partition.2"), {}).empty()) << "exists already";

  const Path partition = created[2];
  EXPECT_EQ(model.set(partition, "Status", "1"), Model::SetResult::kUnchanged);
  EXPECT_EQ(model.set(partition, "Status", "0"), Model::SetResult::kChanged);
  EXPECT_EQ(model.set(partition, "Label", "x"), Model::SetResult::kChanged) << "a new parameter";
  EXPECT_EQ(model.set(object("VFS.Other"), "X", "1"), Model::SetResult::kNoObject);
  EXPECT_EQ(model.find(partition)->params.at("Status"), "0");

  model.add(object("Storage.Disk.1.Partition.3"), {});
  model.add(object("Storage.Disk.10.Partition.1"), {});  // shares the text prefix "Storage.Disk.1"
  model.add(object("Storage.Disk.2"), {});
  std::vector<std::string> disks;
  for (const auto& [path, obj] : model.match(pattern("Storage.Disk"))) disks.push_back(format(*path));
  EXPECT_EQ(disks, (std::vector<std::string>{"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.10"}));
  EXPECT_EQ(model.matchAtOrBelow(pattern("Storage.Disk.1")).size(), 3u);

  auto removed = model.remove(object("Storage.Disk.1"));
  ASSERT_EQ(removed.size(), 3u);
  EXPECT_EQ(format(removed.back()), "Storage.Disk.1") << "children go before their parent";
  EXPECT_TRUE(model.find(object("Storage.Disk.10.Partition.1")));
  EXPECT_FALSE(model.find(object("Storage.Disk.1.Partition.3")));
  EXPECT_TRUE(model.remove(object("Storage.Disk.1")).empty());
}

TEST(RillModelFileTest, SeedsObjectsFromLinesOrNamesTheFirstBadOne) {
  Model model;
  std::string error;
  ASSERT_TRUE(loadModel("# comment\n\n  \nStorage.Disk.1.CapacityInMBytes=953869\r\n"
                        "ContentSharing.UPnPAV.IndexRules.1.PartitionName=Family disk\n"
                        "VFS.MetaDataService.Formula=a=b\nVFS.MetaDataService.Empty=",
                        &model, &error))
      << error;
  EXPECT_EQ(model.find(object("Storage.Disk.1"))->params.at("CapacityInMBytes"), "953869");
  EXPECT_EQ(model.find(object("ContentSharing.UPnPAV.IndexRules.1"))->params.at("PartitionName"), "Family disk");
  const auto& service = model.find(object("VFS.MetaDataService"))->params;
  EXPECT_EQ(service.at("Formula"), "a=b");
  EXPECT_EQ(service.at("Empty"), "");
  EXPECT_TRUE(model.find(object("Storage"))) << "objects above are implied";
  EXPECT_TRUE(loadModel(deep(kMaxSegments) + ".P=1\n", &model, &error)) << error;

  for (const auto& [text, line] : std::vector<std::pair<std::string, std::string>>{
           {"A.B=1\n# ok\nno equals sign\n", "line 3:"},
           {"A.B=1\nStorage.Disk.1=5\n", "line 2:"},
           {"Bad..Path.X=1\n", "line 1:"},
           {"X.P=1\n" + deep(kMaxSegments + 1) + ".P=1\n", "line 2:"},
       }) {
    Model fresh;
    EXPECT_FALSE(loadModel(text, &fresh, &error)) << text;
    EXPECT_EQ(error.rfind(line, 0), 0u) << error;
  }
}

}  // namespace
}  // namespace zibd::rill
