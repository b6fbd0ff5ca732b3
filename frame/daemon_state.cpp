#include "frame/daemon_state.h"

namespace zibd {

DaemonState& g_daemon = *new DaemonState;

}  // namespace zibd
