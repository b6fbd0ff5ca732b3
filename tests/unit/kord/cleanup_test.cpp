// kord_cleanup_attached: the check decides, the stop flag interrupts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using ::testing::ElementsAre;

// The check is a plain function pointer: its state lives here, reset by each test.
std::vector<std::string> g_checked;
int* g_stop = nullptr;
std::size_t g_stop_after = 0;
std::string g_move_to;

int dropNamesWithGone(const char* path) {
  g_checked.push_back(path);
  return std::string(path).find("gone") != std::string::npos ? 1 : 0;
}

int dropAllAndStopLater(const char* path) {
  g_checked.push_back(path);
  if (g_stop && g_checked.size() == g_stop_after) std::atomic_ref<int>(*g_stop).store(1);
  return 1;
}

// Moves the file away before answering "drop", as a concurrent rename would.
int moveAwayThenDrop(const char* path) {
  g_checked.push_back(path);
  EXPECT_EQ(kord_move(path, g_move_to.c_str()), 0) << kord::lastError().message;
  return 1;
}

class KordCleanupTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
    g_checked.clear();
    g_stop = nullptr;
    g_stop_after = 0;
  }

  // Tags count files below dir in one commit; returns their paths.
  std::vector<std::string> tagMany(const std::string& dir, int count) {
    std::vector<std::string> paths;
    Handle h = open();
    for (int i = 0; i < count; ++i) {
      paths.push_back(dir + "/f" + std::to_string(i) + ".mp4");
      EXPECT_EQ(kord_bulk_setpath(h.get(), paths.back().c_str()), 0);
      EXPECT_EQ(kord_bulk_settag(h.get(), ".s.hash", "x"), 0);
    }
    EXPECT_EQ(kord_bulk_commit(h.get()), 0);
    return paths;
  }
};

TEST_F(KordCleanupTest, DropsExactlyTheFilesTheCheckRejectsBelowThePath) {
  tag(at("p1"), {{".s.invisible", "1"}});
  tag(at("p1/keep.mp4"), {{".s.hash", "1"}});
  tag(at("p1/gone.mp4"), {{".s.hash", "2"}});
  tag(at("p1/sub/gone-too.mp3"), {{".s.hash", "3"}});
  tag(at("p1x/gone.mp4"), {{".s.hash", "4"}});  // shares the prefix, not below
  tag(at("p2/gone.mp4"), {{".s.hash", "5"}});

  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(at("p1").c_str(), &stop, dropNamesWithGone), 0)
      << kord::lastError().message;
  EXPECT_THAT(std::set<std::string>(g_checked.begin(), g_checked.end()),
              ::testing::UnorderedElementsAre(at("p1"), at("p1/keep.mp4"), at("p1/gone.mp4"),
                                              at("p1/sub/gone-too.mp3")));
  EXPECT_EQ(g_checked.size(), 4u) << "each file is checked once";
  EXPECT_THAT(files(),
              ElementsAre(at("p1"), at("p1/keep.mp4"), at("p1x/gone.mp4"), at("p2/gone.mp4")));
}

TEST_F(KordCleanupTest, VisitsEveryFileOfALargeTreeOnce) {
  std::vector<std::string> all = tagMany(at("p2/Media"), 700);
  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(root().c_str(), &stop, dropAllAndStopLater), 0);
  std::sort(all.begin(), all.end());
  EXPECT_EQ(g_checked, all);
  EXPECT_TRUE(files().empty());
}

TEST_F(KordCleanupTest, StopFlagEndsItEarlyKeepingTheDecisionsMadeSoFar) {
  std::vector<std::string> all = tagMany(at("p1/Media"), 600);
  int stop = 0;
  g_stop = &stop;
  g_stop_after = 300;
  EXPECT_NE(kord_cleanup_attached(root().c_str(), &stop, dropAllAndStopLater), 0);
  EXPECT_EQ(g_checked.size(), 300u) << "the flag is polled before every file";
  std::vector<std::string> left = files();
  EXPECT_EQ(left.size(), 300u);
  for (const auto& checked : g_checked)
    EXPECT_FALSE(std::binary_search(left.begin(), left.end(), checked)) << checked;

  // Raised before the start: nothing is checked or dropped.
  g_checked.clear();
  EXPECT_NE(kord_cleanup_attached(root().c_str(), &stop, dropAllAndStopLater), 0);
  EXPECT_TRUE(g_checked.empty());
  EXPECT_EQ(files().size(), 300u);
}

TEST_F(KordCleanupTest, AFileMovedWhileItWasCheckedIsKept) {
  tag(at("p1/old.mp4"), {{".s.hash", "1"}});
  g_move_to = at("p2/new.mp4");
  int stop = 0;
  ASSERT_EQ(kord_cleanup_attached(at("p1").c_str(), &stop, moveAwayThenDrop), 0);
  EXPECT_EQ(g_checked, std::vector<std::string>{at("p1/old.mp4")});
  EXPECT_EQ(tagsOf(at("p2/new.mp4")), ".s.hash=1");
}

TEST_F(KordCleanupTest, RefusesBadArguments) {
  int stop = 0;
  EXPECT_NE(kord_cleanup_attached(nullptr, &stop, dropNamesWithGone), 0);
  EXPECT_NE(kord_cleanup_attached("relative", &stop, dropNamesWithGone), 0);
  EXPECT_NE(kord_cleanup_attached(root().c_str(), &stop, nullptr), 0);
}

}  // namespace
}  // namespace zibd::test
