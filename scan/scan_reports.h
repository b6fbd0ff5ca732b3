// What the scanning side reports to the bus thread. The bus control pipe
// implements it; frame/ wires it in.
#pragma once

#include <string>

namespace zibd {

class ScanReports {
 public:
  virtual ~ScanReports() = default;

  // Neither report blocks, and neither fails: one made when the bus thread
  // has ended goes nowhere.

  // Profiling started (busy) or finished. Called by the scan queue with its
  // mutex held, so that the reports keep their order.
  virtual void reportProfiling(bool busy) = 0;

  // The scanner has finished the scan of the partition at mount_path.
  virtual void reportPartitionScanned(const std::string& mount_path) = 0;
};

}  // namespace zibd
