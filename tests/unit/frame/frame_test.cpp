// Termination signals; the command line is tested by starting the daemon (system/cli).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "frame/daemon_state.h"
#include "frame/signals.h"

namespace zibd {
namespace {

// A termination signal is handled inside the wait, not while busy (the wait could miss it):
// it clears the running flag and writes a zero byte to the termination pipe.
class TerminationSignal : public ::testing::TestWithParam<int> {};

TEST_P(TerminationSignal, IsHandledInsideTheWaitThatLetsItIn) {
  ASSERT_TRUE(g_daemon.termination_pipe.open(O_NONBLOCK).ok());
  g_daemon.running.store(1);
  sigset_t original, wait_mask;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &original), 0);
  ASSERT_TRUE(blockTerminationSignals(&wait_mask).ok());
  ASSERT_TRUE(installTerminationHandler().ok());
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
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &original, nullptr), 0);
  g_daemon.termination_pipe = Pipe{};
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminationSignal, ::testing::Values(SIGQUIT, SIGTERM, SIGINT),
                         [](const auto& p) { return std::string(sigabbrev_np(p.param)); });

}  // namespace
}  // namespace zibd
