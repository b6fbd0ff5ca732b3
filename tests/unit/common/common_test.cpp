// The tree walk, the path helpers and the spawn helper.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "common/spawn.h"
#include "common/walk.h"
#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd {
namespace {

namespace fs = std::filesystem;
using ::testing::UnorderedElementsAre;
using Events = std::vector<std::string>;

// Descriptors open on directories below root; -1 when one is inherited.
int directoryStreams(const std::string& root) {
  int n = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    if (fs::read_symlink(entry.path(), ec).string().rfind(root, 0) != 0 || ec) continue;
    if ((::fcntl(std::stoi(entry.path().filename().string()), F_GETFD) & FD_CLOEXEC) == 0) return -1;
    ++n;
  }
  return n;
}

// Each visit as "F|D <path relative to root>" with the streams open then; stop_at returns stop_with.
struct Recorder {
  std::string root, stop_at;
  Status stop_with;
  bool remove_dirs = false;  // rmdir every directory as it is reported
  Events events;
  std::vector<int> streams;
  Status record(char kind, const char* path) {
    const std::string p = path, rel = p == root ? "." : p.rfind(root + "/", 0) == 0 ? p.substr(root.size() + 1) : p;
    events.push_back(std::string(1, kind) + " " + rel);
    streams.push_back(directoryStreams(root));
    if (kind == 'D' && remove_dirs) ::rmdir(path);
    return rel == stop_at ? stop_with : Status();
  }
  Events only(char kind) const {
    Events out;
    for (const auto& e : events) if (e[0] == kind) out.push_back(e.substr(2));
    return out;
  }
};
class WalkTest : public test::SandboxTest {
 protected:
  // The walk's errno (0 for success); the streams left open afterwards go to the events as "E".
  int walk(const std::string& path, bool files = true, bool dirs = true, bool recursive = true) {
    rec_.root = path;
    rec_.events.clear(), rec_.streams.clear();
    FsWalkVisitors visit;
    if (files) visit.file = [this](const char* p) { return rec_.record('F', p); };
    if (dirs) visit.dir = [this](const char* p) { return rec_.record('D', p); };
    const Status walked = fsWalkTree(path.c_str(), visit, recursive);
    if (walked.code() != EINVAL) (void)rec_.record('E', path.c_str());
    return walked.code();
  }
  Recorder rec_;
};

// A level's subdirectories are reported as it is read, then entered in reverse; hidden entries are skipped.
TEST_F(WalkTest, ReportsParentsFirstEntersInReverseAndSkipsHiddenEntries) {
  for (const char* f : {"a.mp3", ".hidden.mp3", ".kord/db", "p/b.jpg", "p/.cache/deep/d.avi", "p/child/e.avi"})
    sandbox_.write(f);
  for (const char* d : {"q/child", "r/child/.x/visible"}) sandbox_.mkdirs(d);
  EXPECT_EQ(walk(sandbox_.path()), 0);
  EXPECT_THAT(rec_.only('F'), UnorderedElementsAre("a.mp3", "p/b.jpg", "p/child/e.avi"));
  const Events dirs = rec_.only('D');
  ASSERT_EQ(dirs.size(), 7u);
  EXPECT_EQ(dirs[0], ".");
  EXPECT_THAT(Events(dirs.begin() + 1, dirs.begin() + 4), UnorderedElementsAre("p", "q", "r"));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(dirs[4 + i], dirs[3 - i] + "/child");
  EXPECT_EQ(rec_.only('E'), Events{"."});
}

// The root is reported before it is opened; the end callback runs with nothing open.
TEST_F(WalkTest, HoldsOneCloseOnExecDirectoryStreamAtATimeHoweverDeep) {
  std::string deep;
  for (int level = 0; level < 12; ++level) {
    deep += "d" + std::to_string(level) + "/";
    for (const char* f : {"f", "g"}) sandbox_.write(deep + f);
  }
  EXPECT_EQ(walk(sandbox_.path()), 0);
  std::vector<int> expected(38, 1);
  expected.front() = expected.back() = 0;
  EXPECT_EQ(rec_.streams, expected);
}

// Not recursive: one level, files only.
TEST_F(WalkTest, RootsOfEveryKind) {
  for (const char* f : {"song.mp3", "sub/inner.mp3"}) sandbox_.write(f);
  ASSERT_EQ(::mkfifo((sandbox_ / "fifo").c_str(), 0600), 0);
  const struct { std::string root; bool files, dirs, recursive; int result; Events events; } cases[] = {
      {"song.mp3", true, true, true, 0, {"F .", "E ."}}, {"song.mp3", false, true, true, 0, {"E ."}},
      {"fifo", true, true, true, 0, {"E ."}}, {"", true, true, false, 0, {"D .", "F song.mp3", "E ."}},
      {"missing", true, true, true, ENOENT, {"E ."}}, {"", false, false, true, EINVAL, {}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.root);
    const std::string root = c.root.empty() ? sandbox_.path() : sandbox_ / c.root;
    EXPECT_EQ(walk(root, c.files, c.dirs, c.recursive), c.result);
    EXPECT_EQ(rec_.events, c.events);
  }
}

TEST_F(WalkTest, FollowsALinkedRootButNotLinksInside) {
  for (const char* f : {"real/a.mp3", "real/dir/b.mp3", "elsewhere/c.mp3"}) sandbox_.write(f);
  fs::create_directory_symlink(sandbox_ / "real", sandbox_ / "root-link");
  fs::create_directory_symlink(sandbox_ / "elsewhere", sandbox_ / "real/dir-link");
  fs::create_symlink(sandbox_ / "elsewhere/c.mp3", sandbox_ / "real/file-link");
  fs::create_symlink(sandbox_ / "nowhere", sandbox_ / "real/dangling");
  ASSERT_EQ(::mkfifo((sandbox_ / "real/fifo").c_str(), 0600), 0);
  EXPECT_EQ(walk(sandbox_ / "root-link"), 0);
  EXPECT_THAT(rec_.only('F'), UnorderedElementsAre("a.mp3", "dir/b.mp3", "dir-link", "file-link", "dangling"));
  EXPECT_THAT(rec_.only('D'), UnorderedElementsAre(".", "dir"));
}

// A visitor's failure ends the walk and is its result; a vanished directory gives ENOENT.
TEST_F(WalkTest, StopsAtACallbackThatSaysSoOrAtAnUnreadableDirectory) {
  for (const char* f : {"one/a", "two/c", "three/d"}) sandbox_.write(f);
  EXPECT_EQ(walk(sandbox_.path()), 0);
  const Events all = rec_.events, dirs = rec_.only('D');  // ".", the top level as read, then entered
  ASSERT_TRUE(dirs.size() == 4u && all.size() == 8u && all[4][0] == 'F');
  for (const std::string& stop : {all[4], "D " + dirs[2]}) {
    rec_.stop_at = stop.substr(2);
    rec_.stop_with = Status::stopped();
    EXPECT_EQ(walk(sandbox_.path()), ECANCELED);
    Events expected(all.begin(), std::find(all.begin(), all.end(), stop) + 1);
    expected.push_back("E .");
    EXPECT_EQ(rec_.events, expected);
  }
  rec_.stop_at.clear();
  rec_.remove_dirs = true;
  for (const auto& f : fs::directory_iterator(sandbox_ / dirs[3])) fs::remove(f.path());
  EXPECT_EQ(walk(sandbox_.path()), ENOENT);
  EXPECT_EQ(rec_.events, (Events{"D .", "D " + dirs[1], "D " + dirs[2], "D " + dirs[3], "E ."}));
}

// Made a component at a time: no call may name more than 4095 characters.
TEST_F(WalkTest, DirectoryOf4095CharactersIsRefusedButReported) {
  sandbox_.mkdirs("a");
  std::string refused = sandbox_ / "a";
  while (refused.size() < 4095) {
    const std::size_t room = 4095 - refused.size() - 1;
    refused.append("/").append(room > 200 ? std::min<std::size_t>(200, room - 2) : room, 'n');
    ASSERT_EQ(::mkdir(refused.c_str(), 0700), 0) << refused.size();
  }
  EXPECT_EQ(walk(refused), ENAMETOOLONG);
  EXPECT_EQ(rec_.events, (Events{"D .", "E ."}));
  EXPECT_EQ(walk(sandbox_ / "a", false), ENAMETOOLONG);
  EXPECT_EQ(rec_.only('D').back().size(), refused.size() - (sandbox_ / "a").size() - 1);
}

TEST(PathHelpers, IsUnderAndDirName) {
  const struct { const char *prefix, *path; bool under; } under[] = {
      {"/a", "/a", true},    {"/a", "/a/b", true},    {"/a/b", "/a/b/c/d", true}, {"/a", "/ab", false},
      {"/a/b", "/a", false}, {"/a/b", "/a/c", false}, {"/a/", "/a/b", false},     {"/a/", "/a/", true},
      {"", "/x", true},      {"", "", true},          {"", "x", false},           {nullptr, "/a", false}};
  for (const auto& c : under)
    EXPECT_EQ(fsPathIsUnder(c.prefix, c.path), c.under) << (c.prefix ? c.prefix : "null") << " " << c.path;

  const struct { const char *path, *parent; } dir_names[] = {
      {"/var/uuidmount/p1", "/var/uuidmount"}, {"/x", ""}, {"/a/b/", "/a/b"}, {"rel/name", "rel"}, {"noslash", nullptr}};
  for (const auto& c : dir_names)
    EXPECT_EQ(fsDirName(c.path), c.parent ? std::optional<std::string_view>(c.parent) : std::nullopt) << c.path;
}

using SpawnTest = test::SandboxTest;

int lowestFreeDescriptor() { return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get(); }

int reap(pid_t pid) {  // exit status, or 128 + signal
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Inheritable descriptors (one just above the report pipe, one far above), a blocked SIGTERM and
// an ignored SIGPIPE stay in the daemon; the child's output goes to /dev/null, in a group of its own. No shell in between: it would clear the mask itself.
TEST_F(SpawnTest, ChildStartsWithTheStandardDescriptorsAndDefaultSignals) {
  const int low = lowestFreeDescriptor() + 2;
  FileDescriptor near(::dup2(STDIN_FILENO, low)), far(::dup2(STDIN_FILENO, 57));
  ASSERT_TRUE(near.get() == low && far.get() == 57);
  sigset_t blocked, previous;
  ASSERT_TRUE(sigemptyset(&blocked) == 0 && sigaddset(&blocked, SIGTERM) == 0);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previous), 0);
  const auto old_pipe = ::signal(SIGPIPE, SIG_IGN);
  ASSERT_NE(old_pipe, SIG_ERR);
  Result<ChildProcess> spawned = spawnProcess({"sleep", "60"});
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  ::signal(SIGPIPE, old_pipe);
  ASSERT_TRUE(spawned.ok()) << spawned.status().message();
  const ChildProcess& r = spawned.value();
  const std::string proc = "/proc/" + std::to_string(r.pid);
  // The program's own loader opens and closes files as it starts: a leaked descriptor never goes.
  std::set<std::string> fds;
  const bool only_standard = test::waitFor([&] {
    fds.clear();
    for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) fds.insert(entry.path().filename());
    return fds == std::set<std::string>{"0", "1", "2"};
  });
  const std::string status = test::readFile(proc + "/status");
  const std::string out = std::filesystem::read_symlink(proc + "/fd/1"), err = std::filesystem::read_symlink(proc + "/fd/2");
  const pid_t group = ::getpgid(r.pid);
  ::kill(r.pid, SIGKILL);
  EXPECT_EQ(reap(r.pid), 128 + SIGKILL);
  EXPECT_TRUE(only_standard) << ::testing::PrintToString(fds);
  EXPECT_TRUE(out == "/dev/null" && err == "/dev/null" && group == r.pid) << out << " " << err << " " << group;
  EXPECT_NE(status.find("SigBlk:\t0000000000000000\n"), std::string::npos) << status;
  const std::size_t ign = status.find("SigIgn:\t");
  ASSERT_NE(ign, std::string::npos) << status;
  EXPECT_EQ(std::stoull(status.substr(ign + 8, 16), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << status;
}

// A failed exec is reported, its child exits 1. A failed fork or pipe makes no child and leaks nothing.
TEST_F(SpawnTest, FailuresAreReportedAndLeakNothing) {
  const Result<ChildProcess> failed_exec = spawnProcess({sandbox_ / "no-such-profiler", "arg"});
  ASSERT_TRUE(failed_exec.ok());
  EXPECT_EQ(failed_exec->exec.code(), ENOENT);
  EXPECT_EQ(reap(failed_exec->pid), 1);
  for (const auto& [call, error] : {std::pair{test::Call::kFork, EAGAIN}, std::pair{test::Call::kPipe2, EMFILE}}) {
    const int before = lowestFreeDescriptor();
    test::ScopedFault fault(call, error);
    const Result<ChildProcess> r = spawnProcess({"/bin/true"});
    EXPECT_EQ(r.status().code(), error);
    EXPECT_EQ(lowestFreeDescriptor(), before);
  }
}

}  // namespace
}  // namespace zibd
