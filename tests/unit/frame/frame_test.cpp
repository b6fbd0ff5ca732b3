// Command line, termination signals and the host process helpers. The
// command line as a whole is tested by starting the daemon (tests/system/cli).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/command_line.h"
#include "frame/daemon_state.h"
#include "frame/signals.h"
#include "platform/proc_lib.h"

namespace zibd {
namespace {

TEST(CommandLine, TakesTheLastMapPathAndTheDaemonFlag) {
  const struct {
    std::vector<std::string> args;
    const char* map;
    bool daemonize;
  } cases[] = {{{"zibd", "-t", "first.ini", "-d", "-t", "second.ini"}, "second.ini", true},
               {{"zibd", "-t", ""}, "", false}};
  for (auto c : cases) {
    std::vector<char*> argv;
    for (auto& a : c.args) argv.push_back(a.data());
    argv.push_back(nullptr);
    optind = 0;  // glibc: start a fresh scan
    CommandLine options;
    EXPECT_EQ(parseCommandLine(static_cast<int>(c.args.size()), argv.data(), options), CommandLineVerdict::kRun);
    EXPECT_EQ(options.map_path, c.map);
    EXPECT_EQ(options.daemonize, c.daemonize);
  }
}

// A termination signal sent while the daemon is busy must not be handled then
// (the next wait could miss it) but inside the wait, which it ends: it clears
// the running flag and writes a zero byte to the termination pipe.
class TerminationSignal : public ::testing::TestWithParam<int> {};

TEST_P(TerminationSignal, IsHandledInsideTheWaitThatLetsItIn) {
  ASSERT_EQ(g_daemon.termination_pipe.open(O_NONBLOCK), 0);
  g_daemon.running.store(1);
  sigset_t original, wait_mask;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &original), 0);
  ASSERT_EQ(blockTerminationSignals(&wait_mask), 0);
  ASSERT_EQ(installTerminationHandler(), 0);
  ASSERT_EQ(::raise(GetParam()), 0);
  EXPECT_EQ(g_daemon.running.load(), 1) << "handled outside the wait";

  struct pollfd termination = {g_daemon.termination_pipe.read_end.get(), POLLIN, 0};
  const struct timespec limit = {10, 0};
  const int ready = ::ppoll(&termination, 1, &limit, &wait_mask);
  EXPECT_TRUE(ready == 1 || (ready < 0 && errno == EINTR)) << ready;
  EXPECT_EQ(g_daemon.running.load(), 0);
  char bytes[2] = {'x', 'x'};
  EXPECT_EQ(::read(termination.fd, bytes, sizeof bytes), 1);
  EXPECT_EQ(bytes[0], 0);
  // Unblocked, a second signal is handled at once and adds a second byte.
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &original, nullptr), 0);
  ASSERT_EQ(::raise(GetParam()), 0);
  EXPECT_EQ(::read(termination.fd, bytes, sizeof bytes), 1);
  g_daemon.termination_pipe = Pipe{};
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminationSignal, ::testing::Values(SIGQUIT, SIGTERM, SIGINT),
                         [](const auto& p) { return std::string(sigabbrev_np(p.param)); });

TEST(ProcLib, RemovePathPointsAfterTheLastSlash) {
  const struct {
    const char* path;
    int offset;
  } cases[] = {{"/usr/sbin/zibd", 10}, {"./zibd", 2}, {"zibd", 0}, {"/usr/sbin/", 10}};
  for (const auto& c : cases) EXPECT_EQ(proc_lib_remove_path(c.path), c.path + c.offset) << c.path;
}

// A name that cannot make a pid file name fails before anything changes. The
// call runs in a child, so that a wrong success cannot end the test program.
TEST(ProcLib, DaemonizeRefusesNamesThatAreNotFileNames) {
  for (const char* name : {"", "bad/name", "../zibd"}) {
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      const pid_t before = ::getpid();
      const bool unchanged = proc_lib_daemonize(name) != 0 && ::getpid() == before && ::getsid(0) != before &&
                             ::fcntl(STDERR_FILENO, F_GETFD) >= 0;
      ::_exit(::write(report[1], unchanged ? "u" : "d", 1) == 1 ? 0 : 1);
    }
    ::close(report[1]);
    char verdict = 0;
    EXPECT_EQ(::read(report[0], &verdict, 1), 1);
    ::close(report[0]);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(verdict, 'u') << '"' << name << '"';
  }
}

}  // namespace
}  // namespace zibd
