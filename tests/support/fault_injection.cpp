#include "tests/support/fault_injection.h"

#include <sys/inotify.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "platform/kord.h"
#include "platform/rill.h"

namespace zibd::test {
namespace {

struct Fault {
  std::atomic<int> skip{0};
  std::atomic<int> times{0};  // < 0: every call
  std::atomic<int> error{0};
  std::atomic<int> calls{0};
};

Fault g_faults[static_cast<int>(Call::kCount)];

Fault& fault(Call call) { return g_faults[static_cast<int>(call)]; }

}  // namespace

void failCalls(Call call, int error, int times, int skip) {
  Fault& f = fault(call);
  f.error.store(error);
  f.skip.store(skip);
  f.times.store(times);
}

int callCount(Call call) { return fault(call).calls.load(); }

void resetFaults() {
  for (Fault& f : g_faults) {
    f.times.store(0);
    f.skip.store(0);
    f.calls.store(0);
  }
}

// True, errno set, when this call is to fail.
bool shouldFail(Call call) {
  Fault& f = fault(call);
  f.calls.fetch_add(1);
  if (f.times.load() == 0) return false;
  if (f.skip.load() > 0 && f.skip.fetch_sub(1) > 0) return false;
  int times = f.times.load();
  if (times > 0) {
    // Claim one failure; another thread may have taken the last one.
    while (times > 0 && !f.times.compare_exchange_weak(times, times - 1)) {
    }
    if (times <= 0) return false;
  }
  errno = f.error.load();
  return true;
}

}  // namespace zibd::test

using zibd::test::Call;
using zibd::test::shouldFail;

extern "C" {
pid_t __real_fork();
int __real_pipe2(int fds[2], int flags);
int __real_inotify_init1(int flags);
int __real_inotify_add_watch(int fd, const char* path, uint32_t mask);

pid_t __wrap_fork() { return shouldFail(Call::kFork) ? -1 : __real_fork(); }
int __wrap_pipe2(int fds[2], int flags) {
  return shouldFail(Call::kPipe2) ? -1 : __real_pipe2(fds, flags);
}
int __wrap_inotify_init1(int flags) {
  return shouldFail(Call::kInotifyInit1) ? -1 : __real_inotify_init1(flags);
}
int __wrap_inotify_add_watch(int fd, const char* path, uint32_t mask) {
  return shouldFail(Call::kInotifyAddWatch) ? -1 : __real_inotify_add_watch(fd, path, mask);
}
// Weak: tests without the tag store link no kord_*.
__attribute__((weak)) int __real_kord_bulk_commit(kord_bulk_t* handle);
__attribute__((weak)) int __real_kord_view_create(const char* name);
int __wrap_kord_bulk_commit(kord_bulk_t* bulk) { return shouldFail(Call::kKordBulkCommit) ? -1 : __real_kord_bulk_commit(bulk); }
int __wrap_kord_view_create(const char* name) { return shouldFail(Call::kKordViewCreate) ? -1 : __real_kord_view_create(name); }
// Weak: tests that do not link the bus library do without it.
int __real_rill_invoke_ccmd(rill_conn_t*, rill_ccmd_t*, rill_reply_fn, void*) __attribute__((weak));
int __wrap_rill_invoke_ccmd(rill_conn_t* conn, rill_ccmd_t* cmd, rill_reply_fn reply_fn, void* context) {
  return shouldFail(Call::kBusRead) || !__real_rill_invoke_ccmd ? -1 : __real_rill_invoke_ccmd(conn, cmd, reply_fn, context);
}
}
