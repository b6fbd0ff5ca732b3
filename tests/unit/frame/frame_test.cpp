// Command line and termination signals. The command line as a whole is
// tested by starting the daemon (tests/system/cli).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame/command_line.h"
#include "frame/daemon_state.h"
#include "frame/signals.h"

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

}  // namespace
}  // namespace zibd
