#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/unit/storage/storage_fixture.h"

namespace zibd::test {
namespace {

IndexRule rule(const std::string& object, const char* uuid, const char* directory, uint32_t categories,
               uint32_t enabled = 1) {
  IndexRule r;
  r.object_path = object;
  if (uuid) r.uuid = uuid;
  if (directory) r.directory_name = directory;
  r.categories = categories;
  r.enabled = enabled;
  return r;
}

TEST(RuleRegistryTest, CategoriesAreTheUnionOfTheEnabledRulesAboveAPath) {
  RuleRegistry rules("/var/uuidmount");
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.1", "ab12", "Media/", kCategoryMovies));
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.2", "ab12", nullptr, kCategoryMusic));  // no path
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.3", "ab12", "Media/Films", kCategoryPictures));
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.4", "ab12", "Media", kCategoryMusic, 0));  // disabled
  EXPECT_EQ(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.1")->path, "/var/uuidmount/ab12/Media");
  EXPECT_FALSE(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.2")->path);
  EXPECT_EQ(rules.stRuleCategories("/var/uuidmount/ab12/Media/Films/film.mkv"), 5u);
  EXPECT_EQ(rules.stRuleCategories("/var/uuidmount/ab12/Media/Films2/x"), 1u);
  // A rule's own directory is not below it.
  EXPECT_EQ(rules.stRuleCategories("/var/uuidmount/ab12/Media/Films"), 1u);
  EXPECT_EQ(rules.stRuleCategories("/var/uuidmount/ab12/Media"), 0u);
  EXPECT_EQ(rules.stRuleCategories("/var/uuidmount/cd34/Media/x"), 0u);
}

TEST(RuleRegistryTest, LookupAndRemovalCompareTheObjectPathAsAPrefix) {
  RuleRegistry rules;
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.1", "a", "A", 1));
  rules.stAddRule(rule("ContentSharing.UPnPAV.IndexRules.12", "b", "B", 2));
  // Rule 1 comes first, so it also answers for rule 12's parameters.
  EXPECT_EQ(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.12.Status")->object_path,
            "ContentSharing.UPnPAV.IndexRules.1");
  EXPECT_FALSE(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.2"));
  rules.stRemoveRule("ContentSharing.UPnPAV.IndexRules.1.Enable");
  EXPECT_EQ(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.12.Status")->object_path,
            "ContentSharing.UPnPAV.IndexRules.12");
  rules.stRemoveRule("ContentSharing.UPnPAV.IndexRules.7");
  EXPECT_TRUE(rules.stHaveRules());
  rules.stClearRules();
  EXPECT_FALSE(rules.stHaveRules());
}

TEST_F(StorageTest, RulesAreReadFromTheBus) {
  startBroker(
      "ContentSharing.UPnPAV.IndexRules.1.Status=Up\n"
      "ContentSharing.UPnPAV.IndexRules.1.UUID=ab12\n"
      "ContentSharing.UPnPAV.IndexRules.1.PartitionName=Family disk\n"
      "ContentSharing.UPnPAV.IndexRules.1.DirectoryName=Media/\n"
      "ContentSharing.UPnPAV.IndexRules.1.EnableMovie=1\n"
      // Not a boolean: the last good conversion (true) still counts.
      "ContentSharing.UPnPAV.IndexRules.1.EnableMusic=maybe\n"
      "ContentSharing.UPnPAV.IndexRules.1.EnablePicture=0\n"
      "ContentSharing.UPnPAV.IndexRules.2.Status=Down\n"
      "ContentSharing.UPnPAV.IndexRules.2.EnableMovie=1\n");
  RuleRegistry rules(root_);
  rill_conn_t* conn = connectModel();
  ASSERT_EQ(rules.stReadRule(conn, "ContentSharing.UPnPAV.IndexRules.1"), 0);
  ASSERT_EQ(rules.stReadRule(conn, "ContentSharing.UPnPAV.IndexRules.2"), 0);
  // A missing rule is no record.
  rules.stReadRule(conn, "ContentSharing.UPnPAV.IndexRules.9");
  auto first = rules.stFindRule("ContentSharing.UPnPAV.IndexRules.1");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->enabled, 1u);
  EXPECT_EQ(first->path, root_ + "/ab12/Media");
  EXPECT_EQ(first->partition_name, "Family disk");
  EXPECT_EQ(first->categories, kCategoryMovies | kCategoryMusic);
  auto second = rules.stFindRule("ContentSharing.UPnPAV.IndexRules.2");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->enabled, 0u);
  EXPECT_FALSE(second->path);
  EXPECT_FALSE(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.9"));
}

TEST_F(StorageTest, ResolvedRulePathsFollowSymbolicLinks) {
  RuleRegistry rules(root_);
  sandbox_.mkdirs("uuidmount/real/Media");
  ASSERT_EQ(::symlink((root_ + "/real").c_str(), (root_ + "/link").c_str()), 0);
  rules.stAddRule(rule("R.1", "link", "Media", kCategoryMusic));
  rules.stAddRule(rule("R.2", "nowhere", "Media", kCategoryMovies));
  rules.stResolveRulePaths();
  EXPECT_EQ(rules.stFindRule("R.1")->path, root_ + "/real/Media");
  EXPECT_EQ(rules.stFindRule("R.2")->path, root_ + "/nowhere/Media");
  EXPECT_EQ(rules.stRuleCategories(root_ + "/real/Media/a.mp3"), kCategoryMusic);
}

// The scanner asks while the bus thread adds, changes and removes rules.
TEST(RuleRegistryTest, ReadersAndWritersOnTwoThreads) {
  RuleRegistry rules("/r");
  std::atomic<bool> done{false};
  std::thread scanner([&] {
    while (!done.load()) {
      const uint32_t mask = rules.stRuleCategories("/r/u/D/file");
      EXPECT_EQ(mask & ~uint32_t{3}, 0u);
      rules.stResolveRulePaths();
    }
  });
  for (int i = 0; i < 2000; ++i) {
    rules.stAddRule(rule("R." + std::to_string(i), "u", "D", 1));
    rules.stChangeRule("R." + std::to_string(i), [](IndexRule& r) { r.categories |= 2; });
    if (i % 2) rules.stRemoveRule("R." + std::to_string(i - 1));
  }
  done.store(true);
  scanner.join();
  EXPECT_EQ(rules.stRuleCategories("/r/u/D/file"), 3u);
}

}  // namespace
}  // namespace zibd::test
