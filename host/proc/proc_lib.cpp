// Host implementation of the gateway's process helpers.
#include "platform/proc_lib.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/file_descriptor.h"

namespace {

constexpr char kPidDirectory[] = "/run/";
constexpr char kPidSuffix[] = ".pid";
constexpr char kNullDevice[] = "/dev/null";
constexpr mode_t kPidFileMode = 0644;
// What the daemon tells the waiting parent.
constexpr char kReady = 1;

bool validName(const char* name) {
  return name && *name != '\0' && std::strchr(name, '/') == nullptr;
}

bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Puts /dev/null on standard input, output and error.
bool detachStandardStreams() {
  zibd::FileDescriptor null_fd(::open(kNullDevice, O_RDWR | O_CLOEXEC));
  if (!null_fd) return false;
  for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target) {
    if (target == null_fd.get()) {
      // It already sits on a standard slot (that one was closed): keep it
      // open across exec like the others.
      if (::fcntl(target, F_SETFD, 0) != 0) return false;
      continue;
    }
    if (::dup2(null_fd.get(), target) < 0) return false;
  }
  if (null_fd.get() <= STDERR_FILENO) null_fd.release();
  return true;
}

bool writePidFile(const zibd::FileDescriptor& pid_file) {
  char text[32];
  const int len = std::snprintf(text, sizeof text, "%ld\n", static_cast<long>(::getpid()));
  return len > 0 && ::ftruncate(pid_file.get(), 0) == 0 &&
         writeAll(pid_file.get(), text, static_cast<size_t>(len));
}

// The new process: leaves the terminal's session and records its pid.
bool becomeDaemon(const zibd::FileDescriptor& pid_file) {
  return ::setsid() >= 0 && ::chdir("/") == 0 && detachStandardStreams() && writePidFile(pid_file);
}

// The original process: ends with status 0 once the daemon is ready; returns
// when it failed.
void awaitDaemon(pid_t child, zibd::FileDescriptor ready_read) {
  char byte = 0;
  ssize_t n;
  do n = ::read(ready_read.get(), &byte, 1);
  while (n < 0 && errno == EINTR);
  if (n == 1 && byte == kReady) ::_exit(0);
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

int daemonize(const char* name) {
  if (!validName(name)) {
    errno = EINVAL;
    return -1;
  }
  // Opened before the fork so that a failure leaves the process as it was.
  const std::string pid_path = std::string(kPidDirectory) + name + kPidSuffix;
  zibd::FileDescriptor pid_file(
      ::open(pid_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kPidFileMode));
  if (!pid_file) return -1;
  zibd::Pipe ready;
  if (!ready.open().ok()) return -1;

  std::fflush(nullptr);  // or both processes would write what is buffered
  const pid_t child = ::fork();
  if (child < 0) return -1;
  if (child > 0) {
    ready.write_end.reset();
    awaitDaemon(child, std::move(ready.read_end));
    return -1;
  }

  ready.read_end.reset();
  if (!becomeDaemon(pid_file)) ::_exit(1);
  if (!writeAll(ready.write_end.get(), &kReady, 1)) ::_exit(1);
  return 0;
}

}  // namespace

extern "C" const char* proc_lib_remove_path(const char* path) {
  if (!path) return path;
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

extern "C" int proc_lib_daemonize(const char* name) {
  try {
    return daemonize(name);
  } catch (...) {
    return -1;
  }
}
