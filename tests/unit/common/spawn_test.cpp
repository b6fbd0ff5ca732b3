// The spawn helper as the profiler runs use it: what the child starts with,
// and what the parent learns when things fail.
#include "common/spawn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "common/file_descriptor.h"
#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"

namespace zibd {
namespace {

using test::Call;
using SpawnTest = test::SandboxTest;

// The child's exit status, or 128 + its signal.
int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A descriptor opened without close-on-exec (as a careless library might),
// blocked termination signals and an ignored SIGPIPE all stay in the daemon.
TEST_F(SpawnTest, ChildStartsWithTheStandardDescriptorsAndDefaultSignals) {
  FileDescriptor leaky(::dup2(STDIN_FILENO, 57));
  ASSERT_EQ(leaky.get(), 57);
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previous), 0);
  struct sigaction ignore {}, old_pipe {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old_pipe), 0);
  const SpawnResult r = spawnProcess(
      {"/bin/sh", "-c", "{ ls /proc/self/fd; grep -E '^Sig(Blk|Ign)' /proc/self/status; } > " + (sandbox_ / "out")});
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  ::sigaction(SIGPIPE, &old_pipe, nullptr);
  ASSERT_GT(r.pid, 0);
  ASSERT_EQ(reap(r.pid), 0);
  // 0-2, and the one ls reads its directory with.
  const std::string text = sandbox_.read("out");
  EXPECT_EQ(text.rfind("0\n1\n2\n3\nSigBlk:\t0000000000000000\nSigIgn:\t", 0), 0u) << text;
  const unsigned long long ignored = std::stoull(text.substr(text.find("SigIgn:\t") + 8, 16), nullptr, 16);
  EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0U) << text;
}

TEST_F(SpawnTest, ArgumentsArriveByteForByteAndAFailedExecIsReported) {
  const std::string odd = "-dash \"quote\" $(x) |pipe\ttab\nnewline \xff";
  SpawnResult r = spawnProcess({"/bin/sh", "-c", "printf '%s' \"$1\" > \"$2\"", "sh", odd, sandbox_ / "args"});
  ASSERT_GT(r.pid, 0);
  EXPECT_EQ(r.exec_error, 0);
  EXPECT_EQ(reap(r.pid), 0);
  EXPECT_EQ(sandbox_.read("args"), odd);

  r = spawnProcess({sandbox_ / "no-such-profiler", "arg"});
  ASSERT_GT(r.pid, 0);
  EXPECT_EQ(r.exec_error, ENOENT);
  EXPECT_EQ(reap(r.pid), 1);
}

TEST_F(SpawnTest, ForkOrPipeFailureMakesNoChildAndLeaksNothing) {
  for (const auto& [call, error] : {std::pair{Call::kFork, EAGAIN}, std::pair{Call::kPipe2, EMFILE}}) {
    const int before = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(before);
    test::resetFaults();  // counts from here
    {
      test::ScopedFault fault(call, error);
      const SpawnResult r = spawnProcess({"/bin/true"});
      EXPECT_EQ(r.pid, -1);
      EXPECT_EQ(r.error, error);
      EXPECT_EQ(test::callCount(call), 1);
    }
    // The lowest free descriptor is the same again: nothing was left open.
    const int after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(after);
    EXPECT_EQ(after, before);
  }
}

}  // namespace
}  // namespace zibd
