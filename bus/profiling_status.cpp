#include "bus/profiling_status.h"

namespace zibd {

void ProfilingStatus::set(int busy) {
  const int normalised = busy != 0 ? 1 : 0;
  if (normalised == busy_) return;
  busy_ = normalised;
  (void)storage_.setBusValue("VFS.MetaDataService", "ProfilingStatus", busy_ ? "Profiling" : "Ready");
}

}  // namespace zibd
