#include "bus/control_pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"

namespace zibd::test {
namespace {

TEST(ControlPipeTest, MessagesArriveWholeInOrderWithTheirPaths) {
  ControlPipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  EXPECT_EQ(pipe.reportProfiling(7), 8);
  EXPECT_EQ(pipe.reportPartitionScanned("/var/uuidmount/ab"), 8);
  EXPECT_EQ(pipe.reportProfiling(0), 8);
  EXPECT_EQ(pipe.stop(), 8);
  auto m = pipe.read();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, kControlProfilingStarted);
  m = pipe.read();
  ASSERT_TRUE(m);
  EXPECT_EQ(m->type, kControlPartitionScanned);
  EXPECT_EQ(m->path, "/var/uuidmount/ab");
  EXPECT_EQ(pipe.read()->type, kControlProfilingFinished);
  EXPECT_EQ(pipe.read()->type, kControlStop);
  EXPECT_FALSE(pipe.read());  // empty: the read end does not block
  EXPECT_NE(::fcntl(pipe.readFd(), F_GETFD) & FD_CLOEXEC, 0);
  pipe.close();
}

TEST(ControlPipeTest, CreationFailureIsReported) {
  ScopedFault fault(Call::kPipe2, EMFILE);
  ControlPipe pipe;
  EXPECT_EQ(pipe.open(), -1);
  EXPECT_EQ(pipe.stop(), -1);
}

// After the bus thread has gone, reports go nowhere: not into a descriptor
// that took the pipe's number, and without SIGPIPE.
TEST(ControlPipeTest, ReportsAfterCloseGoNowhere) {
  TempDir dir;
  ControlPipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  pipe.reportPartitionScanned("/x");  // never read: freed with the pipe
  pipe.close();
  const int a = ::open((dir / "a").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const int b = ::open((dir / "b").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(pipe.reportProfiling(1), -1);
  EXPECT_EQ(pipe.reportPartitionScanned("/y"), -1);
  EXPECT_EQ(pipe.stop(), -1);
  ::close(a);
  ::close(b);
  EXPECT_EQ(readFile(dir / "a"), "");
  EXPECT_EQ(readFile(dir / "b"), "");
}

// A sender blocked on a full pipe when the bus thread leaves: the close
// waits for it, the sender returns, nothing hangs.
TEST(ControlPipeTest, CloseWhileASenderIsBlockedOnAFullPipe) {
  ControlPipe pipe;
  ASSERT_EQ(pipe.open(), 0);
  std::atomic<int> sent{0};
  std::atomic<bool> done{false};
  std::thread sender([&] {
    while (pipe.reportProfiling(1) == 8) sent.fetch_add(1);
    done.store(true);
  });
  // The sender fills the pipe, then blocks.
  const int capacity = ::fcntl(pipe.readFd(), F_GETPIPE_SZ);
  ASSERT_GT(capacity, 0);
  for (int waiting = 0; waiting < capacity;) {
    std::this_thread::yield();
    ASSERT_EQ(::ioctl(pipe.readFd(), FIONREAD, &waiting), 0);
  }
  pipe.close();
  sender.join();
  EXPECT_TRUE(done.load());
}

}  // namespace
}  // namespace zibd::test
