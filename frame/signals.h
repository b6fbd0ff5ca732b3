// The termination signals: SIGQUIT, SIGTERM and SIGINT end the daemon.
#pragma once

#include <signal.h>

#include "common/status.h"

namespace zibd {

// Blocks SIGQUIT, SIGTERM and SIGINT in the calling thread, and so in every
// thread it starts afterwards, and stores in *wait_mask the mask to wait with,
// in which they are unblocked. Waiting with ppoll(..., wait_mask) then makes
// the termination signals arrive only inside that wait, never between two
// waits, where a wake-up by the termination pipe could be missed.
// ThreadSanitizer makes this necessary, not just tidy: it runs a handler late,
// at its next intercepted call, unless the signal arrived inside a blocking
// call. A child process must restore its mask before exec.
Status blockTerminationSignals(sigset_t* wait_mask);

// Installs one handler for SIGQUIT, SIGTERM and SIGINT. The handler stores 0
// to g_daemon.running and writes one zero byte to the termination pipe's
// write end, which must be open before the first signal can arrive.
Status installTerminationHandler();

}  // namespace zibd
