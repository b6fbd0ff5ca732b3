// Command line, termination signals and the host process helpers. The
// command line as a whole is tested by starting the daemon (tests/system/cli).
#include <fcntl.h>
#include <poll.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "frame/command_line.h"
#include "frame/daemon_state.h"
#include "frame/signals.h"
#include "platform/proc_lib.h"

namespace zibd {
namespace {

struct Parsed {
  CommandLineVerdict verdict;
  CommandLine options;
};

Parsed parse(std::initializer_list<const char*> args) {
  std::vector<std::string> storage(args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : storage) argv.push_back(a.data());
  argv.push_back(nullptr);
  optind = 0;  // glibc: start a fresh scan
  Parsed p{};
  p.verdict = parseCommandLine(static_cast<int>(storage.size()), argv.data(), p.options);
  return p;
}

TEST(CommandLine, TakesTheLastMapPathAndTheDaemonFlag) {
  Parsed p = parse({"zibd", "-t", "first.ini", "-d", "-t", "second.ini"});
  EXPECT_EQ(p.verdict, CommandLineVerdict::kRun);
  EXPECT_EQ(p.options.map_path, "second.ini");
  EXPECT_TRUE(p.options.daemonize);

  p = parse({"zibd", "-t", ""});
  EXPECT_EQ(p.verdict, CommandLineVerdict::kRun);
  EXPECT_EQ(p.options.map_path, "");
  EXPECT_FALSE(p.options.daemonize);
}

class TerminationSignal : public ::testing::TestWithParam<int> {};

TEST_P(TerminationSignal, ClearsRunningAndWritesOneZeroByte) {
  ASSERT_EQ(g_daemon.termination_pipe.open(O_NONBLOCK), 0);
  g_daemon.running.store(1);
  ASSERT_EQ(installTerminationHandler(), 0);

  ASSERT_EQ(::raise(GetParam()), 0);

  EXPECT_EQ(g_daemon.running.load(), 0);
  char bytes[2] = {'x', 'x'};
  ASSERT_EQ(::read(g_daemon.termination_pipe.read_end.get(), bytes, sizeof bytes), 1);
  EXPECT_EQ(bytes[0], 0);
  // A second signal adds a second byte: nothing is coalesced or lost.
  ASSERT_EQ(::raise(GetParam()), 0);
  EXPECT_EQ(::read(g_daemon.termination_pipe.read_end.get(), bytes, sizeof bytes), 1);
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

// A signal sent while the daemon is busy must not be handled then (it could
// be missed by the next wait) but by the wait itself, which it ends.
TEST(TerminationSignalMask, SignalsWaitForTheWaitThatLetsThemIn) {
  ASSERT_EQ(g_daemon.termination_pipe.open(O_NONBLOCK), 0);
  g_daemon.running.store(1);
  sigset_t original, wait_mask;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &original), 0);
  ASSERT_EQ(blockTerminationSignals(&wait_mask), 0);
  ASSERT_EQ(installTerminationHandler(), 0);

  ASSERT_EQ(::raise(SIGTERM), 0);
  EXPECT_EQ(g_daemon.running.load(), 1) << "handled outside the wait";
  EXPECT_EQ(sigismember(&wait_mask, SIGTERM), 0);

  struct pollfd termination = {g_daemon.termination_pipe.read_end.get(), POLLIN, 0};
  const int ready = ::ppoll(&termination, 1, nullptr, &wait_mask);
  EXPECT_TRUE(ready == 1 || (ready < 0 && errno == EINTR)) << ready;
  EXPECT_EQ(g_daemon.running.load(), 0);
  EXPECT_EQ(::poll(&termination, 1, 0), 1) << "the pipe wakes the next wait";

  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &original, nullptr), 0);
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminationSignal, ::testing::Values(SIGQUIT, SIGTERM, SIGINT),
                         [](const auto& param_info) {
                           return std::string(sigabbrev_np(param_info.param));
                         });

TEST(ProcLib, RemovePathGivesTheLastComponent) {
  EXPECT_STREQ(proc_lib_remove_path("/usr/sbin/zibd"), "zibd");
  EXPECT_STREQ(proc_lib_remove_path("./zibd"), "zibd");
  EXPECT_STREQ(proc_lib_remove_path("zibd"), "zibd");
  EXPECT_STREQ(proc_lib_remove_path("/usr/sbin/"), "");
  const char* path = "/a/b";
  EXPECT_EQ(proc_lib_remove_path(path), path + 3);
}

// A name that cannot make a pid file name fails before anything changes. The
// call runs in a child, so that a wrong success cannot end the test process.
TEST(ProcLib, DaemonizeRefusesNamesThatAreNotFileNames) {
  for (const char* name : {"", "bad/name", "../zibd"}) {
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const pid_t before = ::getpid();
      const int rc = proc_lib_daemonize(name);
      const bool unchanged =
          ::getpid() == before && ::getsid(0) != before && ::fcntl(STDERR_FILENO, F_GETFD) >= 0;
      const char verdict = rc != 0 && unchanged ? 'u' : 'd';
      ::_exit(::write(report[1], &verdict, 1) == 1 ? 0 : 1);
    }
    ::close(report[1]);
    char verdict = 0;
    EXPECT_EQ(::read(report[0], &verdict, 1), 1);
    ::close(report[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(verdict, 'u') << '"' << name << '"';
  }
}

}  // namespace
}  // namespace zibd
