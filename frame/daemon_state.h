// What the termination signal handler must reach, and so the only state that
// is global: the handler gets no context. Everything else the daemon has is
// owned by the Daemon object (frame/daemon.h) that main creates.
#pragma once

#include <signal.h>

#include <atomic>

#include "common/file_descriptor.h"

namespace zibd {

struct DaemonState {
  // 1 from the start of start-up until a termination signal. The signal
  // handler stores to it; every thread's loop polls it (they are handed a
  // reference to it, so tests can give them a flag of their own).
  std::atomic<int> running{0};
  static_assert(std::atomic<int>::is_always_lock_free);

  // The signal handler writes one zero byte into termination_pipe; the main
  // thread's loop waits on its read end. Non-blocking, so that the handler
  // never blocks however many signals arrive.
  Pipe termination_pipe;
  // The main thread keeps the termination signals blocked and waits with
  // this mask, which lets them in (see blockTerminationSignals).
  sigset_t termination_wait_mask{};
};

// The one daemon state. It is never destroyed: a failed start-up exits while
// threads may still be using it.
extern DaemonState& g_daemon;

}  // namespace zibd
