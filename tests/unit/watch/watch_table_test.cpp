#include "watch/watch_table.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <vector>

#include "common/fs_error.h"
#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"

namespace zibd {
namespace {

using test::Call;

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

TEST(ComparePathTest, TellsEqualPrefixLongerAndDifferent) {
  std::size_t matched = 99;
  EXPECT_EQ(fsComparePath("var", "var", &matched), 0);
  EXPECT_EQ(matched, 3u);
  EXPECT_EQ(fsComparePath("/var", "/var/uuidmount", &matched), 1);
  EXPECT_EQ(matched, 4u);
  EXPECT_EQ(fsComparePath("uuidmount", "uuid", &matched), 2);
  EXPECT_EQ(fsComparePath("music", "movies/x", &matched), -1);
  EXPECT_EQ(matched, 1u);
  // A name that is only a character prefix still counts as continued: the
  // trie checks for the '/' itself.
  EXPECT_EQ(fsComparePath("foo", "foobar", &matched), 1);
  EXPECT_EQ(fsComparePath("", "x", &matched), 0);
  EXPECT_EQ(fsComparePath("x", nullptr, &matched), 0);
}

class IndexTest : public ::testing::Test {
 protected:
  WatchNode* node(int wd) {
    nodes_.push_back(std::make_unique<WatchNode>());
    nodes_.back()->wd = wd;
    return nodes_.back().get();
  }
  std::vector<std::unique_ptr<WatchNode>> nodes_;
  WatchIndex index_;
};

TEST_F(IndexTest, RemovalKeepsOnlyTheNearerChild) {
  WatchNode* five = node(5);
  WatchNode* eight = node(8);
  ASSERT_EQ(index_.insert(five), kFsOk);
  ASSERT_EQ(index_.insert(node(3)), kFsOk);
  ASSERT_EQ(index_.insert(eight), kFsOk);
  EXPECT_EQ(index_.insert(node(3)), kFsErrInvalid);
  EXPECT_EQ(index_.insert(node(8)), kFsErrInvalid);
  // 8 - 5 = 3 is not smaller than 5 - 3 = 2: the right child takes the place
  // and 3 leaves the index.
  EXPECT_EQ(index_.remove(5), kFsOk);
  EXPECT_EQ(index_.descriptors(), std::vector<int>{8});
  EXPECT_EQ(index_.find(8), eight);
  EXPECT_EQ(index_.find(5), nullptr);
  EXPECT_EQ(index_.remove(5), kFsErrInvalid);
}

TEST_F(IndexTest, RemovalTakesTheLeftChildWhenTheRightIsNearer) {
  for (int wd : {10, 2, 12, 1, 11}) ASSERT_EQ(index_.insert(node(wd)), kFsOk);
  EXPECT_EQ(index_.remove(10), kFsOk);  // 12 - 10 = 2 < 10 - 2 = 8
  EXPECT_EQ(index_.descriptors(), (std::vector<int>{1, 2}));
  // A single child always takes the place; a leaf leaves nothing.
  for (int wd : {5, 6, 7}) ASSERT_EQ(index_.insert(node(wd)), kFsOk);
  EXPECT_EQ(index_.remove(5), kFsOk);
  EXPECT_EQ(index_.remove(7), kFsOk);
  EXPECT_EQ(index_.remove(1), kFsOk);
  EXPECT_EQ(index_.descriptors(), (std::vector<int>{2, 6}));
}

class WatchTableTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    test::resetFaults();
    root_ = sandbox_.path();
    ASSERT_EQ(table_.fsInitWatch(), kFsOk);
    ASSERT_GE(table_.descriptor(), 0);
  }
  void TearDown() override { test::resetFaults(); }

  std::string at(const std::string& relative) const { return root_ + "/" + relative; }
  void mkdirs(const std::string& relative) { sandbox_.mkdirs(relative); }

  // The watch descriptor of the next event on the table's instance, or -1
  // when none comes within a second.
  int nextEventDescriptor() {
    struct pollfd pfd = {table_.descriptor(), POLLIN, 0};
    if (::poll(&pfd, 1, 1000) != 1) return -1;
    alignas(inotify_event) char buf[4096];
    const ssize_t n = ::read(table_.descriptor(), buf, sizeof buf);
    if (n < static_cast<ssize_t>(sizeof(inotify_event))) return -1;
    return reinterpret_cast<const inotify_event*>(buf)->wd;
  }

  std::atomic<int> aborted_{0};
  WatchTable table_{aborted_};
  std::string root_;
};

TEST_F(WatchTableTest, TreeAddWatchesEveryVisibleDirectoryOnce) {
  mkdirs("m/Artist/Album");
  mkdirs("m/Artist/Other");
  mkdirs("m/.kord/meta");
  mkdirs("m/.hidden");
  sandbox_.write("m/Artist/song.mp3");
  EXPECT_EQ(table_.fsAddWatchTree(at("m").c_str(), true), kFsOk);
  EXPECT_EQ(sorted(table_.watchedPaths()),
            sorted({at("m"), at("m/Artist"), at("m/Artist/Album"), at("m/Artist/Other")}));
  EXPECT_EQ(table_.indexedDescriptors().size(), 4u);

  // Again: every directory is known, no second kernel watch.
  const int calls = test::callCount(Call::kInotifyAddWatch);
  EXPECT_EQ(table_.fsAddWatchTree(at("m").c_str(), true), kFsOk);
  EXPECT_EQ(test::callCount(Call::kInotifyAddWatch), calls);
  EXPECT_EQ(table_.indexedDescriptors().size(), 4u);

  // An event in a watched directory carries its descriptor.
  sandbox_.write("m/Artist/Album/new.mp3");
  EXPECT_EQ(nextEventDescriptor(), table_.descriptorOf(at("m/Artist/Album").c_str()));
}

TEST_F(WatchTableTest, KordRelativeAndAncestorPaths) {
  mkdirs("p/.kord");
  mkdirs("p/a/b");
  const int calls = test::callCount(Call::kInotifyAddWatch);
  EXPECT_EQ(table_.fsAddWatch(at("p/.kord").c_str()), kFsOk);
  EXPECT_EQ(test::callCount(Call::kInotifyAddWatch), calls);
  EXPECT_TRUE(table_.watchedPaths().empty());

  // A relative path gets a kernel watch but no record.
  ASSERT_EQ(::chdir(root_.c_str()), 0);
  EXPECT_EQ(table_.fsAddWatch("p"), kFsErrInvalid);
  EXPECT_EQ(test::callCount(Call::kInotifyAddWatch), calls + 1);
  EXPECT_TRUE(table_.watchedPaths().empty());
  EXPECT_EQ(table_.fsAddWatch(nullptr), kFsErrInvalid);

  // A child first: its parent exists only as an ancestor and never gets a
  // watch of its own afterwards.
  EXPECT_EQ(table_.fsAddWatch(at("p/a/b").c_str()), kFsOk);
  EXPECT_EQ(table_.fsAddWatch(at("p/a").c_str()), kFsOk);
  EXPECT_EQ(table_.descriptorOf(at("p/a").c_str()), 0);
  EXPECT_EQ(table_.watchedPaths(), std::vector<std::string>{at("p/a/b")});
}

TEST_F(WatchTableTest, RemoveDropsTheSubtreeFromTableAndKernel) {
  mkdirs("m/a/x");
  mkdirs("m/b");
  ASSERT_EQ(table_.fsAddWatchTree(at("m").c_str(), true), kFsOk);
  const int a = table_.descriptorOf(at("m/a").c_str());
  const int x = table_.descriptorOf(at("m/a/x").c_str());
  EXPECT_EQ(table_.fsRemoveWatch(at("m/nothing").c_str()), kFsErrInvalid);
  EXPECT_EQ(table_.fsRemoveWatch(at("m/a").c_str()), kFsOk);
  EXPECT_EQ(sorted(table_.watchedPaths()), sorted({at("m"), at("m/b")}));
  std::vector<int> indexed = table_.indexedDescriptors();
  EXPECT_EQ(std::count(indexed.begin(), indexed.end(), a), 0);
  EXPECT_EQ(std::count(indexed.begin(), indexed.end(), x), 0);
  // The kernel confirms each removal with IN_IGNORED, and the tree is silent.
  EXPECT_NE(nextEventDescriptor(), -1);
  EXPECT_EQ(table_.fsRemoveWatch(at("m/a").c_str()), kFsErrInvalid);
}

TEST_F(WatchTableTest, RootLevelChangesDropTheOtherRootTrees) {
  char* real = ::realpath("/dev/shm", nullptr);
  if (!real) GTEST_SKIP() << "no /dev/shm";
  const std::string shm = real;
  ::free(real);
  if (shm.substr(0, shm.find('/', 1)) == root_.substr(0, root_.find('/', 1)))
    GTEST_SKIP() << "the sandbox is on /dev/shm's root component";
  char tmpl[] = "/dev/shm/zibd-watch-XXXXXX";
  ASSERT_NE(::mkdtemp(tmpl), nullptr);
  const std::string second = tmpl;

  mkdirs("m");
  ASSERT_EQ(table_.fsAddWatch(at("m").c_str()), kFsOk);
  const int first_wd = table_.descriptorOf(at("m").c_str());
  // A new root-level component replaces the root list: the first tree can no
  // longer be found by path but stays indexed.
  ASSERT_EQ(table_.fsAddWatch(second.c_str()), kFsOk);
  EXPECT_EQ(table_.descriptorOf(at("m").c_str()), -1);
  EXPECT_EQ(table_.watchedPaths(), std::vector<std::string>{second});
  EXPECT_EQ(table_.indexedDescriptors().size(), 2u);

  // Removing a root-level node empties the trie.
  mkdirs("n");
  ASSERT_EQ(table_.fsAddWatch(at("n").c_str()), kFsOk);
  const std::string top = at("n").substr(0, at("n").find('/', 1));
  EXPECT_EQ(table_.fsRemoveWatch(top.c_str()), kFsOk);
  EXPECT_TRUE(table_.watchedPaths().empty());
  std::vector<int> indexed = table_.indexedDescriptors();
  EXPECT_EQ(std::count(indexed.begin(), indexed.end(), first_wd), 1);
  ::rmdir(second.c_str());
}

TEST_F(WatchTableTest, OutOfWatchesStopsTheTreeAndKeepsWhatIsWatched) {
  mkdirs("m/a/a1");
  mkdirs("m/b/b1");
  mkdirs("m/c");
  // The root and two more succeed, then the kernel has no watches left.
  test::ScopedFault fault(Call::kInotifyAddWatch, ENOSPC, -1, 3);
  EXPECT_EQ(table_.fsAddWatchTree(at("m").c_str(), true), kFsErrSystem);
  const std::vector<std::string> watched = table_.watchedPaths();
  EXPECT_EQ(watched.size(), 3u);
  EXPECT_EQ(table_.indexedDescriptors().size(), 3u);
  EXPECT_NE(std::find(watched.begin(), watched.end(), at("m")), watched.end());
  // A failing root does not stop the walk: the first subdirectory does.
  test::resetFaults();
  mkdirs("n/x");
  test::failCalls(Call::kInotifyAddWatch, ENOSPC, -1);
  EXPECT_EQ(table_.fsAddWatchTree(at("n").c_str(), true), kFsErrSystem);
  EXPECT_EQ(test::callCount(Call::kInotifyAddWatch), 2);
  // What was watched before still reports.
  sandbox_.write("m/file");
  EXPECT_EQ(nextEventDescriptor(), table_.descriptorOf(at("m").c_str()));
}

TEST_F(WatchTableTest, AbortFlagStopsEveryAdd) {
  mkdirs("m/a");
  aborted_.store(1);
  EXPECT_EQ(table_.fsAddWatch(at("m").c_str()), kFsStopped);
  EXPECT_EQ(table_.fsAddWatchTree(at("m").c_str(), true), kFsStopped);
  EXPECT_TRUE(table_.watchedPaths().empty());
}

TEST(WatchTableInitTest, NoInotifyInstanceLeavesAddsFailing) {
  test::ScopedFault fault(Call::kInotifyInit1, EMFILE);
  std::atomic<int> aborted{0};
  WatchTable table(aborted);
  EXPECT_EQ(table.fsInitWatch(), kFsOk);
  EXPECT_LT(table.descriptor(), 0);
  EXPECT_EQ(table.fsAddWatch("/"), kFsErrSystem);
  EXPECT_EQ(table.fsCloseWatch(), kFsOk);
}

}  // namespace
}  // namespace zibd
