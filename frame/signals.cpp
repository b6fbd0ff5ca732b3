#include "frame/signals.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "frame/daemon_state.h"

namespace zibd {

namespace {

constexpr int kTerminationSignals[] = {SIGQUIT, SIGTERM, SIGINT};

// Only async-signal-safe work: an atomic store and write(). errno is kept for
// the code the signal interrupted.
void onTerminationSignal(int) {
  const int saved_errno = errno;
  g_daemon.running.store(0);
  const char zero = 0;
  if (::write(g_daemon.termination_pipe.write_end.get(), &zero, 1) < 0) {
    // Nothing to do: a full pipe already wakes the loop.
  }
  errno = saved_errno;
}

}  // namespace

Status blockTerminationSignals(sigset_t* wait_mask) {
  sigset_t termination;
  sigemptyset(&termination);
  for (int sig : kTerminationSignals) sigaddset(&termination, sig);
  sigset_t previous;
  if (const int rc = ::pthread_sigmask(SIG_BLOCK, &termination, &previous); rc != 0)
    return Status::error(rc, "pthread_sigmask");
  *wait_mask = previous;
  for (int sig : kTerminationSignals) sigdelset(wait_mask, sig);
  return Status();
}

Status installTerminationHandler() {
  struct sigaction action {};
  action.sa_handler = onTerminationSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  for (int sig : kTerminationSignals)
    if (::sigaction(sig, &action, nullptr) != 0) return Status::lastError("sigaction");
  return Status();
}

}  // namespace zibd
