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
using test::ScopedFault;

class SpawnTest : public test::SandboxTest {
 protected:
  // Runs a shell command line through the helper, waits for it and returns
  // its exit status (or 128 + signal).
  int runShell(const std::string& script) {
    const SpawnResult r = spawnProcess({"/bin/sh", "-c", script});
    EXPECT_GT(r.pid, 0);
    EXPECT_EQ(r.exec_error, 0);
    return reap(r.pid);
  }
  static int reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

TEST_F(SpawnTest, ChildKeepsOnlyTheStandardDescriptors) {
  // A descriptor the daemon opened without close-on-exec, as a careless
  // library might, must not reach the profiler either.
  FileDescriptor leaky(::dup2(STDIN_FILENO, 57));
  ASSERT_EQ(leaky.get(), 57);
  const std::string listing = sandbox_ / "fds";
  ASSERT_EQ(runShell("ls /proc/self/fd > " + listing), 0);
  // 0-2, and the one ls opens to read the directory.
  EXPECT_EQ(test::readFile(listing), "0\n1\n2\n3\n");
}

TEST_F(SpawnTest, ChildStartsWithAnEmptySignalMaskAndDefaultSigpipe) {
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGINT);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previous), 0);
  struct sigaction ignore {}, old_pipe {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &old_pipe), 0);

  // SigBlk of the child shell; SIGTERM would be bit 15.
  const std::string status = sandbox_ / "status";
  const int rc = runShell("grep -E '^Sig(Blk|Ign)' /proc/self/status > " + status);
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  ::sigaction(SIGPIPE, &old_pipe, nullptr);
  ASSERT_EQ(rc, 0);
  const std::string text = test::readFile(status);
  EXPECT_NE(text.find("SigBlk:\t0000000000000000"), std::string::npos) << text;
  // SIGPIPE is signal 13: bit 0x1000 of the ignored set.
  const size_t ign = text.find("SigIgn:\t");
  ASSERT_NE(ign, std::string::npos) << text;
  const unsigned long long ignored = std::stoull(text.substr(ign + 8, 16), nullptr, 16);
  EXPECT_EQ(ignored & (1ULL << (SIGPIPE - 1)), 0U) << text;
}

TEST_F(SpawnTest, ExecFailureIsReportedAndTheChildExitsWithOne) {
  const SpawnResult r = spawnProcess({sandbox_ / "no-such-profiler", "arg"});
  ASSERT_GT(r.pid, 0);
  EXPECT_EQ(r.exec_error, ENOENT);
  EXPECT_EQ(reap(r.pid), 1);
}

TEST_F(SpawnTest, ArgumentsReachTheProgramByteForByte) {
  const std::string out = sandbox_ / "args";
  const std::string odd = "-dash \"quote\" $(x) |pipe\ttab\nnewline \xff";
  const SpawnResult r = spawnProcess({"/bin/sh", "-c", "printf '%s' \"$1\" > \"$2\"", "sh", odd, out});
  ASSERT_GT(r.pid, 0);
  EXPECT_EQ(reap(r.pid), 0);
  EXPECT_EQ(test::readFile(out), odd);
}

TEST_F(SpawnTest, ForkOrPipeFailureMakesNoChildAndLeaksNothing) {
  for (Call call : {Call::kFork, Call::kPipe2}) {
    const int before = ::open("/dev/null", O_RDONLY);
    ::close(before);
    {
      ScopedFault fault(call, call == Call::kFork ? EAGAIN : EMFILE);
      const SpawnResult r = spawnProcess({"/bin/true"});
      EXPECT_EQ(r.pid, -1);
      EXPECT_EQ(r.error, call == Call::kFork ? EAGAIN : EMFILE);
      EXPECT_EQ(test::callCount(call), 1);
    }
    // The lowest free descriptor is the same again: nothing was left open.
    const int after = ::open("/dev/null", O_RDONLY);
    ::close(after);
    EXPECT_EQ(after, before);
  }
  // The fault is gone with its scope.
  const SpawnResult r = spawnProcess({"/bin/true"});
  ASSERT_GT(r.pid, 0);
  EXPECT_EQ(reap(r.pid), 0);
}

}  // namespace
}  // namespace zibd
