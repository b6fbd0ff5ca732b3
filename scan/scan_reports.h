// What the scanning side reports to the bus thread. The bus control pipe
// implements it (one 8-byte message per report); frame/ wires it in.
#pragma once

#include <string>

namespace zibd {

class ScanReports {
 public:
  virtual ~ScanReports() = default;

  // Profiling started (busy != 0) or finished (busy == 0). Called by the scan
  // queue with its mutex held; must not block on the scanner.
  // Returns the result of the message write.
  virtual int reportProfiling(int busy) = 0;

  // The scanner has finished the scan of the partition at mount_path.
  // Returns the result of the message write.
  virtual int reportPartitionScanned(const std::string& mount_path) = 0;
};

}  // namespace zibd
