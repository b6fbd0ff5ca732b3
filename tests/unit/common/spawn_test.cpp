// The spawn helper: what the child starts with, what the parent learns on failure.
#include "common/spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"

namespace zibd {
namespace {

using test::Call;
using SpawnTest = test::SandboxTest;

int lowestFreeDescriptor() { return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)).get(); }

// The child's exit status, or 128 + its signal.
int reap(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Descriptors opened without close-on-exec (as a careless library might: one
// just above where the report pipe goes, one far above), blocked termination
// signals and an ignored SIGPIPE all stay in the daemon. The program is looked
// at from outside: a shell in between would clear the mask itself.
TEST_F(SpawnTest, ChildStartsWithTheStandardDescriptorsAndDefaultSignals) {
  const int low = lowestFreeDescriptor() + 2;
  FileDescriptor near(::dup2(STDIN_FILENO, low)), far(::dup2(STDIN_FILENO, 57));
  ASSERT_TRUE(near.get() == low && far.get() == 57);
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previous), 0);
  struct sigaction ignore {}, old_pipe {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old_pipe), 0);
  const SpawnResult r = spawnProcess({"sleep", "60"});
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  ::sigaction(SIGPIPE, &old_pipe, nullptr);
  ASSERT_GT(r.pid, 0);
  const std::string proc = "/proc/" + std::to_string(r.pid);
  std::vector<std::string> fds;
  for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd")) fds.push_back(entry.path().filename());
  const std::string status = test::readFile(proc + "/status");
  ::kill(r.pid, SIGKILL);
  EXPECT_EQ(reap(r.pid), 128 + SIGKILL);
  std::sort(fds.begin(), fds.end());
  EXPECT_EQ(fds, (std::vector<std::string>{"0", "1", "2"}));
  EXPECT_NE(status.find("SigBlk:\t0000000000000000\n"), std::string::npos) << status;
  const std::size_t ign = status.find("SigIgn:\t");
  ASSERT_NE(ign, std::string::npos) << status;
  EXPECT_EQ(std::stoull(status.substr(ign + 8, 16), nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << status;
}

// A failed exec is reported and its child exits with 1. A failed fork or
// pipe makes no child, and the lowest free descriptor is the same again.
TEST_F(SpawnTest, FailuresAreReportedAndLeakNothing) {
  const SpawnResult failed_exec = spawnProcess({sandbox_ / "no-such-profiler", "arg"});
  ASSERT_GT(failed_exec.pid, 0);
  EXPECT_EQ(failed_exec.exec_error, ENOENT);
  EXPECT_EQ(reap(failed_exec.pid), 1);
  for (const auto& [call, error] : {std::pair{Call::kFork, EAGAIN}, std::pair{Call::kPipe2, EMFILE}}) {
    const int before = lowestFreeDescriptor();
    test::ScopedFault fault(call, error);
    const SpawnResult r = spawnProcess({"/bin/true"});
    EXPECT_EQ(r.pid, -1);
    EXPECT_EQ(r.error, error);
    EXPECT_EQ(lowestFreeDescriptor(), before);
  }
}

}  // namespace
}  // namespace zibd
