#include "frame/daemon.h"

#include <poll.h>

#include <cerrno>

#include "frame/daemon_state.h"

namespace zibd {
namespace {

// True once a termination signal has been handled. The signals are blocked
// except inside this ppoll, so none can slip in before the wait begins.
bool terminationSignalled() {
  struct pollfd termination = {g_daemon.termination_pipe.read_end.get(), POLLIN, 0};
  const int ready = ::ppoll(&termination, 1, nullptr, &g_daemon.termination_wait_mask);
  if (ready < 0) return errno != EINTR;  // a broken wait cannot be resumed: stop
  return ready > 0 && g_daemon.running.load() == 0;
}

}  // namespace

void Daemon::runEventLoop() {
  while (!terminationSignalled()) {
  }
}

void Daemon::shutdown() {
  type_map.clear();
  sync_pipe.read_end.reset();
  sync_pipe.write_end.reset();
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

}  // namespace zibd
