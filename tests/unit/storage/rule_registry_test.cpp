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
  r.uuid = uuid;
  if (directory) r.directory_name = directory;
  r.categories = categories;
  r.enabled = enabled;
  return r;
}

TEST(RuleRegistryTest, CategoriesAreTheUnionOfTheEnabledRulesStrictlyAboveAPath) {
  RuleRegistry rules("/r");
  rules.stAddRule(rule("R.1", "ab", "Media/", kCategoryMovies));
  rules.stAddRule(rule("R.2", "ab", nullptr, kCategoryMusic));  // no directory: no path
  rules.stAddRule(rule("R.3", "ab", "Media/Films", kCategoryPictures));
  rules.stAddRule(rule("R.4", "ab", "Media", kCategoryMusic, 0));  // disabled
  EXPECT_EQ(rules.stFindRule("R.1")->path, "/r/ab/Media");
  EXPECT_FALSE(rules.stFindRule("R.2")->path);
  for (const auto& [path, mask] : {std::pair{"/r/ab/Media/Films/film.mkv", 5u}, {"/r/ab/Media/Films2/x", 1u},
                                   {"/r/ab/Media/Films", 1u}, {"/r/ab/Media", 0u}, {"/r/cd/Media/x", 0u}})
    EXPECT_EQ(rules.stRuleCategories(path), mask) << path;
}

TEST(RuleRegistryTest, LookupAndRemovalCompareTheObjectPathAsAPrefix) {
  RuleRegistry rules;
  rules.stAddRule(rule("Rules.1", "a", "A", 1));
  rules.stAddRule(rule("Rules.12", "b", "B", 2));
  // Rule 1 comes first, so it also answers for rule 12's parameters.
  EXPECT_EQ(rules.stFindRule("Rules.12.Status")->object_path, "Rules.1");
  EXPECT_FALSE(rules.stFindRule("Rules.2"));
  rules.stRemoveRule("Rules.1.Enable");
  EXPECT_EQ(rules.stFindRule("Rules.12.Status")->object_path, "Rules.12");
  rules.stRemoveRule("Rules.7");
  EXPECT_TRUE(rules.stHaveRules());
  rules.stClearRules();
  EXPECT_FALSE(rules.stHaveRules());
}

TEST_F(StorageTest, RulesAreReadFromTheBusAndResolvedThroughSymbolicLinks) {
  const std::string rule1 = "ContentSharing.UPnPAV.IndexRules.1.", rule2 = "ContentSharing.UPnPAV.IndexRules.2.";
  startBroker(rule1 + "Status=Up\n" + rule1 + "UUID=link\n" + rule1 + "PartitionName=Family disk\n" + rule1 +
              "DirectoryName=Media/\n" + rule1 + "EnableMovie=1\n" +
              // Not a boolean: the last good conversion (true) still counts.
              rule1 + "EnableMusic=maybe\n" + rule1 + "EnablePicture=0\n" + rule2 + "Status=Down\n" + rule2 +
              "EnableMovie=1\n");
  RuleRegistry rules(root_);
  rill_conn_t* conn = connectModel();
  ASSERT_EQ(rules.stReadRule(conn, rule1.substr(0, rule1.size() - 1)), 0);
  ASSERT_EQ(rules.stReadRule(conn, rule2.substr(0, rule2.size() - 1)), 0);
  rules.stReadRule(conn, "ContentSharing.UPnPAV.IndexRules.9");  // missing: no record
  EXPECT_FALSE(rules.stFindRule("ContentSharing.UPnPAV.IndexRules.9"));
  auto first = rules.stFindRule(rule1);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->enabled, 1u);
  EXPECT_EQ(first->path, root_ + "/link/Media");
  EXPECT_EQ(first->partition_name, "Family disk");
  EXPECT_EQ(first->categories, kCategoryMovies | kCategoryMusic);
  EXPECT_EQ(rules.stFindRule(rule2)->enabled, 0u);

  sandbox_.mkdirs("uuidmount/real/Media");
  ASSERT_EQ(::symlink((root_ + "/real").c_str(), (root_ + "/link").c_str()), 0);
  rules.stResolveRulePaths();
  EXPECT_EQ(rules.stFindRule(rule1)->path, root_ + "/real/Media");
  EXPECT_EQ(rules.stRuleCategories(root_ + "/real/Media/a.mp3"), kCategoryMovies | kCategoryMusic);
}

// The scanner asks while the bus thread adds, changes and removes rules.
TEST(RuleRegistryTest, ReadersAndWritersOnTwoThreads) {
  RuleRegistry rules("/r");
  std::atomic<bool> done{false};
  std::thread scanner([&] {
    while (!done.load()) {
      EXPECT_EQ(rules.stRuleCategories("/r/u/D/file") & ~uint32_t{3}, 0u);
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
