// The termination signals: SIGQUIT, SIGTERM and SIGINT end the daemon.
#pragma once

namespace zibd {

// Installs one handler for SIGQUIT, SIGTERM and SIGINT. The handler stores 0
// to g_daemon.running and writes one zero byte to the termination pipe's
// write end, which must be open before the first signal can arrive.
// Returns 0, or -1 with errno set when sigaction failed.
int installTerminationHandler();

}  // namespace zibd
