#include "bus/control_pipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/fault_injection.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd::test {
namespace {

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
  EXPECT_EQ(readFile(dir / "a") + readFile(dir / "b"), "");
}

// A sender blocked on a full pipe when the bus thread leaves: the close
// waits for it and the sender returns.
TEST(ControlPipeTest, CloseWhileASenderIsBlockedOnAFullPipe) {
  struct Shared {
    ControlPipe pipe;
    std::atomic<bool> returned{false};
  };
  auto* shared = new Shared;  // left to a sender that never returns
  ControlPipe* pipe = &shared->pipe;
  ASSERT_EQ(pipe->open(), 0);
  std::thread sender([shared] {
    while (shared->pipe.reportProfiling(1) == 8) {
    }
    shared->returned = true;
  });
  const int capacity = ::fcntl(pipe->readFd(), F_GETPIPE_SZ);
  int waiting = 0;
  EXPECT_TRUE(waitFor([&] { return ::ioctl(pipe->readFd(), FIONREAD, &waiting) == 0 && waiting >= capacity; }));
  pipe->close();
  if (!waitFor([&] { return shared->returned.load(); })) {
    ADD_FAILURE() << "the sender is still blocked";
    sender.detach();
    return;
  }
  sender.join();
  delete shared;
}

}  // namespace
}  // namespace zibd::test
