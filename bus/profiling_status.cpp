#include "bus/profiling_status.h"

namespace zibd {

void ProfilingStatus::set(int busy) {
  const int normalised = busy != 0 ? 1 : 0;
  if (normalised == busy_) return;
  busy_ = normalised;
  MutexLock hold(storage_.storage_lock);
  (void)storage_.stSetBusValue("VFS.MetaDataService", "ProfilingStatus", busy_ ? "Profiling" : "Ready");
}

}  // namespace zibd
