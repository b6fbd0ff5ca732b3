// "ProfilingStatus" of "VFS.MetaDataService": "Profiling" while the daemon is
// scanning and profiling, "Ready" otherwise. Bus thread only.
#pragma once

#include "storage/storage_model.h"

namespace zibd {

class ProfilingStatus {
 public:
  explicit ProfilingStatus(StorageModel& storage) : storage_(storage) {}

  // Publishes the new state when it differs from the current one; a failed
  // publication is not retried. Nothing is published at start-up.
  void set(int busy);
  bool busy() const { return busy_ == 1; }
  // The bus is new (a connection was lost): the next state is published
  // whatever it is.
  void forget() { busy_ = -1; }

 private:
  StorageModel& storage_;
  int busy_ = 0;  // -1: unknown to the bus
};

}  // namespace zibd
