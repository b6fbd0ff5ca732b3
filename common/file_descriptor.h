// Move-only owner of one file descriptor. Every descriptor the project opens
// lives in one of these, and is opened close-on-exec: the scanner forks
// profiler programs, which must not inherit the daemon's pipes, sockets or
// inotify instance.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/status.h"

namespace zibd {

class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
  ~FileDescriptor() { reset(); }

  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  explicit operator bool() const noexcept { return valid(); }

  // Gives up ownership without closing.
  int release() noexcept { return std::exchange(fd_, -1); }

  // Closes the current descriptor (if any) and takes ownership of fd.
  // Returns the result of close(), or 0 when there was nothing to close.
  int reset(int fd = -1) noexcept {
    int old = std::exchange(fd_, fd);
    return old >= 0 ? ::close(old) : 0;
  }

 private:
  int fd_ = -1;
};

// Both ends of a pipe made with pipe2(O_CLOEXEC | extra_flags).
struct Pipe {
  FileDescriptor read_end;
  FileDescriptor write_end;

  Status open(int extra_flags = 0) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | extra_flags) != 0) return Status::lastError("pipe2");
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    return Status();
  }
};

// A non-blocking pipe that only wakes a poll on its read end. A wake-up that
// finds the pipe full is not lost: the bytes already there say the same.
inline void sendWakeup(const FileDescriptor& write_end) {
  if (!write_end) return;
  const char byte = 0;
  while (::write(write_end.get(), &byte, 1) < 0 && errno == EINTR) {
  }
}
inline void drainWakeups(const FileDescriptor& read_end) {
  char bytes[64];
  while (read_end && ::read(read_end.get(), bytes, sizeof bytes) > 0) {
  }
}

}  // namespace zibd
