#include "common/walk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/sandbox.h"
#include "common/fs_error.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// Records every callback of a walk as "F path", "D path" or "E path" (end),
// with paths relative to root.
struct Recorder {
  std::string root;
  std::vector<std::string> events;
  std::string stop_at;  // a relative path whose callback returns stop_code
  int stop_code = 0;
  std::string remove_at;  // a directory removed when it is reported

  std::string relative(const char* path) const {
    std::string p = path;
    if (p == root) return ".";
    return p.rfind(root + "/", 0) == 0 ? p.substr(root.size() + 1) : p;
  }
  int record(char kind, const char* path) {
    const std::string rel = relative(path);
    events.push_back(std::string(1, kind) + " " + rel);
    if (!remove_at.empty() && rel == remove_at) ::rmdir(path);
    return rel == stop_at ? stop_code : 0;
  }
  std::vector<std::string> only(char kind) const {
    std::vector<std::string> out;
    for (const auto& e : events)
      if (e[0] == kind) out.push_back(e.substr(2));
    return out;
  }
};

int onFile(const char* path, void* data) { return static_cast<Recorder*>(data)->record('F', path); }
int onDir(const char* path, void* data) { return static_cast<Recorder*>(data)->record('D', path); }
int onEnd(const char* path, void* data) { return static_cast<Recorder*>(data)->record('E', path); }

class WalkTest : public test::SandboxTest {
 protected:
  void SetUp() override { rec_.root = sandbox_.path(); }

  int walk(const std::string& path, bool files = true, bool dirs = true, bool recursive = true) {
    rec_.root = path;
    return fsWalkTree(path.c_str(), files ? onFile : nullptr, dirs ? onDir : nullptr, onEnd, &rec_,
                      recursive);
  }

  Recorder rec_;
};

TEST_F(WalkTest, ReportsTheTreeAndNeverTouchesHiddenEntries) {
  sandbox_.write("a.mp3");
  sandbox_.write(".hidden.mp3");
  sandbox_.write(".kord/db");
  sandbox_.write("sub/b.jpg");
  sandbox_.write("sub/.kord/views/c.jpg");
  sandbox_.write("sub/.cache/deep/d.avi");
  sandbox_.write("sub/deeper/e.avi");
  sandbox_.mkdirs("sub/deeper/.x/visible");
  sandbox_.mkdirs("empty");

  EXPECT_EQ(walk(sandbox_.path()), 0);
  EXPECT_THAT(rec_.only('F'), UnorderedElementsAre("a.mp3", "sub/b.jpg", "sub/deeper/e.avi"));
  EXPECT_THAT(rec_.only('D'), UnorderedElementsAre(".", "sub", "sub/deeper", "empty"));
  EXPECT_EQ(rec_.events.front(), "D .");
  EXPECT_EQ(rec_.events.back(), "E .");
  EXPECT_EQ(rec_.only('E').size(), 1u);
}

// A level's subdirectories are all reported while it is read, then entered in
// the reverse order of reading.
TEST_F(WalkTest, ReportsParentsBeforeChildrenAndEntersInReverseOrder) {
  for (const char* d : {"p", "q", "r", "s"}) sandbox_.write(std::string(d) + "/child/f");
  sandbox_.mkdirs("p/child/.kord/v");
  // Without a file callback every visible directory is reported, root first.
  EXPECT_EQ(walk(sandbox_.path(), /*files=*/false), 0);
  const std::vector<std::string> dirs = rec_.only('D');
  ASSERT_EQ(dirs.size(), 9u);
  EXPECT_EQ(dirs[0], ".");
  std::vector<std::string> top(dirs.begin() + 1, dirs.begin() + 5);
  std::vector<std::string> children(dirs.begin() + 5, dirs.end());
  for (const auto& t : top) EXPECT_EQ(t.find('/'), std::string::npos) << t;
  std::reverse(top.begin(), top.end());
  for (std::size_t i = 0; i < top.size(); ++i) EXPECT_EQ(children[i], top[i] + "/child");
}

// Counts this process's open descriptors.
int openDescriptors() {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++n;
  }
  return n;
}

int countDescriptors(const char*, void* data) {
  int& most = *static_cast<int*>(data);
  most = std::max(most, openDescriptors());
  return 0;
}

TEST_F(WalkTest, HoldsOneDirectoryStreamAtATimeHoweverDeep) {
  std::string deep;
  for (int level = 0; level < 12; ++level) {
    deep += "/d" + std::to_string(level);
    sandbox_.write(deep.substr(1) + "/f");
    sandbox_.write(deep.substr(1) + "/g");
  }
  const int baseline = openDescriptors();
  int most = 0;
  EXPECT_EQ(
      fsWalkTree(sandbox_.path().c_str(), countDescriptors, countDescriptors, nullptr, &most, true),
      0);
  EXPECT_EQ(most, baseline + 1);
}

TEST_F(WalkTest, NonRecursiveWalkReadsOneLevel) {
  sandbox_.write("top.mp3");
  sandbox_.write("sub/inner.mp3");
  EXPECT_EQ(walk(sandbox_.path(), true, true, /*recursive=*/false), 0);
  EXPECT_THAT(rec_.events, ElementsAre("D .", "F top.mp3", "E ."));
}

TEST_F(WalkTest, RootThatIsAFileGoesToTheFileCallbackOnly) {
  sandbox_.write("song.mp3");
  EXPECT_EQ(walk(sandbox_ / "song.mp3"), 0);
  EXPECT_THAT(rec_.events, ElementsAre("F .", "E ."));

  rec_.events.clear();
  EXPECT_EQ(walk(sandbox_ / "song.mp3", /*files=*/false), 0);
  EXPECT_THAT(rec_.events, ElementsAre("E ."));

  rec_.events.clear();
  ASSERT_EQ(::mkfifo((sandbox_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(walk(sandbox_ / "fifo"), 0);
  EXPECT_THAT(rec_.events, ElementsAre("E ."));
}

TEST_F(WalkTest, RejectsAMissingCallbackOrRoot) {
  EXPECT_EQ(fsWalkTree(sandbox_.path().c_str(), nullptr, nullptr, onEnd, &rec_, true),
            kFsErrInvalid);
  EXPECT_EQ(walk(sandbox_ / "missing"), kFsErrPath);
  EXPECT_THAT(rec_.events, IsEmpty());
}

TEST_F(WalkTest, FollowsALinkedRootButNotLinksInside) {
  sandbox_.write("real/a.mp3");
  sandbox_.write("real/dir/b.mp3");
  sandbox_.write("elsewhere/c.mp3");
  namespace fs = std::filesystem;
  fs::create_directory_symlink(sandbox_ / "real", sandbox_ / "root-link");
  fs::create_directory_symlink(sandbox_ / "elsewhere", sandbox_ / "real/dir-link");
  fs::create_symlink(sandbox_ / "elsewhere/c.mp3", sandbox_ / "real/file-link");
  fs::create_symlink(sandbox_ / "nowhere", sandbox_ / "real/dangling");
  ASSERT_EQ(::mkfifo((sandbox_ / "real/fifo").c_str(), 0600), 0);

  EXPECT_EQ(walk(sandbox_ / "root-link"), 0);
  EXPECT_THAT(rec_.only('F'),
              UnorderedElementsAre("a.mp3", "dir/b.mp3", "dir-link", "file-link", "dangling"));
  EXPECT_THAT(rec_.only('D'), UnorderedElementsAre(".", "dir"));
}

TEST_F(WalkTest, StopCodeFromAFileEndsTheWalk) {
  sandbox_.write("one/a");
  sandbox_.write("one/b");
  sandbox_.write("one/c");
  sandbox_.write("two/d");
  sandbox_.write("three/e");
  // Stop at the first file met in the first subdirectory entered.
  EXPECT_EQ(walk(sandbox_.path()), 0);
  const std::vector<std::string> all = rec_.events;
  const auto first_file =
      std::find_if(all.begin(), all.end(), [](const std::string& e) { return e[0] == 'F'; });
  ASSERT_NE(first_file, all.end());

  rec_ = Recorder{};
  rec_.stop_at = first_file->substr(2);
  rec_.stop_code = 7;
  EXPECT_EQ(walk(sandbox_.path()), 7);
  std::vector<std::string> expected(all.begin(), first_file + 1);
  expected.push_back("E .");
  EXPECT_EQ(rec_.events, expected);
}

TEST_F(WalkTest, StopCodeFromADirectoryEndsTheWalkBeforeEnteringIt) {
  sandbox_.write("one/a");
  sandbox_.write("two/b");
  sandbox_.write("three/c");
  EXPECT_EQ(walk(sandbox_.path(), /*files=*/false), 0);
  ASSERT_EQ(rec_.only('D').size(), 4u);
  const std::string second = rec_.only('D')[1];

  rec_ = Recorder{};
  rec_.stop_at = second;
  rec_.stop_code = 1;
  EXPECT_EQ(walk(sandbox_.path()), kFsStopped);
  EXPECT_THAT(rec_.only('D'), ElementsAre(".", second));
  EXPECT_THAT(rec_.only('F'), IsEmpty());
  EXPECT_EQ(rec_.events.back(), "E .");
}

TEST_F(WalkTest, UnreadableDirectoryStopsTheWholeWalk) {
  sandbox_.write("a/x");
  sandbox_.write("b/y");
  EXPECT_EQ(walk(sandbox_.path(), false), 0);
  const std::vector<std::string> dirs = rec_.only('D');
  ASSERT_EQ(dirs.size(), 3u);
  // The last directory read at the top is the first one entered. Emptied, it
  // can be removed when it is reported, so that opening it fails.
  const std::string doomed = dirs[2];
  ASSERT_TRUE(std::filesystem::remove(sandbox_ / (doomed + (doomed == "a" ? "/x" : "/y"))));

  rec_ = Recorder{};
  rec_.remove_at = doomed;
  EXPECT_EQ(walk(sandbox_.path()), kFsErrPath);
  EXPECT_THAT(rec_.only('D'), ElementsAre(".", dirs[1], doomed));
  EXPECT_THAT(rec_.only('F'), IsEmpty());
  EXPECT_EQ(rec_.events.back(), "E .");
}

// Long paths: built a component at a time, since no single call may name a
// path of more than 4095 characters.
class LongPathTest : public WalkTest {
 protected:
  // A directory below the sandbox whose path is exactly length characters.
  std::string makeDirectoryOfLength(std::size_t length) {
    std::string path = sandbox_.path();
    while (path.size() < length) {
      std::size_t room = length - path.size() - 1;                  // after the '/'
      if (room > 200) room = std::min<std::size_t>(200, room - 2);  // leave >= 2 for the last
      path += "/" + std::string(room, 'n');
      EXPECT_EQ(::mkdir(path.c_str(), 0700), 0) << path.size();
    }
    EXPECT_EQ(path.size(), length);
    return path;
  }
};

TEST_F(LongPathTest, DirectoryOf4095CharactersIsRefused) {
  const std::string dir = makeDirectoryOfLength(4095);
  EXPECT_EQ(walk(dir), kFsErrPath);
  EXPECT_THAT(rec_.events, ElementsAre("D .", "E ."));

  // Met during a walk from above, it ends the walk after it was reported.
  rec_ = Recorder{};
  EXPECT_EQ(walk(sandbox_.path(), /*files=*/false), kFsErrPath);
  EXPECT_EQ(rec_.events.back(), "E .");
  EXPECT_EQ(rec_.only('D').back().size(), dir.size() - sandbox_.path().size() - 1);
}

TEST_F(LongPathTest, NamesBelowA4094CharacterDirectoryAreCutAt4096) {
  const std::string dir = makeDirectoryOfLength(4094);
  FileDescriptor dir_fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(dir_fd);
  FileDescriptor file(::openat(dir_fd.get(), "fg", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_TRUE(file);
  file.reset();

  std::vector<std::string> seen;
  auto on_file = [](const char* path, void* data) {
    static_cast<std::vector<std::string>*>(data)->push_back(path);
    return 0;
  };
  EXPECT_EQ(fsWalkTree(dir.c_str(), on_file, nullptr, nullptr, &seen, true), 0);
  EXPECT_THAT(seen, ElementsAre(dir + "/f"));
  // The tree's cleanup cannot name this file; remove it here.
  EXPECT_EQ(::unlinkat(dir_fd.get(), "fg", 0), 0);
}

TEST(PathIsUnder, MatchesTheSamePathOrAPathBelow) {
  EXPECT_TRUE(fsPathIsUnder("/a", "/a"));
  EXPECT_TRUE(fsPathIsUnder("/a", "/a/b"));
  EXPECT_TRUE(fsPathIsUnder("/a/b", "/a/b/c/d"));
  EXPECT_FALSE(fsPathIsUnder("/a", "/ab"));
  EXPECT_FALSE(fsPathIsUnder("/a/b", "/a"));
  EXPECT_FALSE(fsPathIsUnder("/a/b", "/a/c"));
  // A trailing '/' on the prefix matches only itself.
  EXPECT_FALSE(fsPathIsUnder("/a/", "/a/b"));
  EXPECT_TRUE(fsPathIsUnder("/a/", "/a/"));
  // The empty prefix is the root of every absolute path.
  EXPECT_TRUE(fsPathIsUnder("", "/x"));
  EXPECT_TRUE(fsPathIsUnder("", ""));
  EXPECT_FALSE(fsPathIsUnder("", "x"));
}

TEST(DirName, WritesThePartBeforeTheLastSlash) {
  char dest[16];
  EXPECT_EQ(fsDirName("/var/uuidmount/p1", dest, sizeof dest - 1), 0);
  EXPECT_STREQ(dest, "/var/uuidmount");
  EXPECT_EQ(fsDirName("/x", dest, 1), 0);
  EXPECT_STREQ(dest, "");
  EXPECT_EQ(fsDirName("/a/b/", dest, 8), 0);
  EXPECT_STREQ(dest, "/a/b");
  EXPECT_EQ(fsDirName("rel/name", dest, 8), 0);
  EXPECT_STREQ(dest, "rel");
}

TEST(DirName, RejectsBadArgumentsAndShortDestinations) {
  char dest[8];
  EXPECT_EQ(fsDirName("noslash", dest, 7), kFsErrInvalid);
  EXPECT_EQ(fsDirName(nullptr, dest, 7), kFsErrInvalid);
  EXPECT_EQ(fsDirName("/a/b", nullptr, 7), kFsErrInvalid);
  EXPECT_EQ(fsDirName("/a/b", dest, 0), kFsErrInvalid);
  EXPECT_EQ(fsDirName("/abcd/e", dest, 4), kFsErrTooSmall);
  // A parent exactly size long fits: it is terminated at dest[size].
  std::memset(dest, 'z', sizeof dest);
  EXPECT_EQ(fsDirName("/abcd/e", dest, 5), 0);
  EXPECT_STREQ(dest, "/abcd");
  EXPECT_EQ(dest[6], 'z');
}

}  // namespace
}  // namespace zibd
