#include "common/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/file_descriptor.h"

namespace zibd {
namespace {

// Highest descriptor number + 1 that the child may have to close when the
// kernel (or qemu-user) has no close_range.
int descriptorLimit() {
  struct rlimit limit {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 65536;
  return static_cast<int>(limit.rlim_cur);
}

// In the child: closes every descriptor from `first` up to (not including)
// `end`, end < 0 meaning all of them. Async-signal-safe.
void closeRange(int first, int end, int limit) {
  if (end >= 0 && first >= end) return;
  const unsigned last = end < 0 ? ~0U : static_cast<unsigned>(end - 1);
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, static_cast<unsigned>(first), last, 0U) == 0) return;
#endif
  const int stop = end < 0 ? limit : end;
  for (int fd = first; fd < stop; ++fd) ::close(fd);
}

[[noreturn]] void execChild(char* const* argv, int report_fd, int null_fd, int fd_limit) {
  sigset_t none;
  sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  (void)::setpgid(0, 0);
  // The daemon's standard error stays (close-on-exec) for the exec failure.
  const int daemon_stderr = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, report_fd + 1);
  (void)::dup2(null_fd, STDOUT_FILENO);
  (void)::dup2(null_fd, STDERR_FILENO);
  // Only 0-2, the close-on-exec report pipe and that copy of standard error
  // stay; they close themselves on a successful exec.
  closeRange(3, report_fd, fd_limit);
  closeRange(report_fd + 1, daemon_stderr < 0 ? -1 : daemon_stderr, fd_limit);
  if (daemon_stderr >= 0) closeRange(daemon_stderr + 1, -1, fd_limit);
  ::execvp(argv[0], argv);
  const int exec_errno = errno;
  // perror("execvp failed") without stdio, which may be locked by a thread
  // that no longer exists in this child.
  const char* what = ::strerrordesc_np(exec_errno);
  if (!what) what = "unknown error";
  const char prefix[] = "execvp failed: ";
  struct iovec parts[] = {{const_cast<char*>(prefix), sizeof prefix - 1},
                          {const_cast<char*>(what), std::strlen(what)},
                          {const_cast<char*>("\n"), 1}};
  if (::writev(daemon_stderr, parts, 3) < 0) {
    // No standard error: the exit status still tells.
  }
  if (::write(report_fd, &exec_errno, sizeof exec_errno) < 0) {
    // The parent then sees a child that ran: it is reaped all the same.
  }
  ::_exit(1);
}

}  // namespace

Result<ChildProcess> spawnProcess(const std::vector<std::string>& argv) {
  // Everything the child needs is made before fork: it must not allocate.
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const int fd_limit = descriptorLimit();

  Pipe report;
  if (Status made = report.open(); !made.ok()) return made;
  const FileDescriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (!null) return Status::lastError("open /dev/null");
  const pid_t pid = ::fork();
  if (pid < 0) return Status::lastError("fork for " + argv[0]);
  if (pid == 0) execChild(args.data(), report.write_end.get(), null.get(), fd_limit);

  ChildProcess child;
  child.pid = pid;
  // Also here, so that the group exists before anyone may signal it; the
  // child's own call may come first (this one then fails, harmlessly).
  (void)::setpgid(pid, pid);
  report.write_end.reset();
  int exec_errno = 0;
  ssize_t got;
  do {
    got = ::read(report.read_end.get(), &exec_errno, sizeof exec_errno);
  } while (got < 0 && errno == EINTR);
  if (got == static_cast<ssize_t>(sizeof exec_errno) && exec_errno != 0)
    child.exec = Status::error(exec_errno, "execvp " + argv[0]);
#ifdef SYS_pidfd_open
  // Not reaped yet, so the pid is still this child's.
  child.exited.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
#endif
  return child;
}

void killProcessGroup(pid_t pid) {
  if (pid > 0) (void)::kill(-pid, SIGKILL);
}

}  // namespace zibd
