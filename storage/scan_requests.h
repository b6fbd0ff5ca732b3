// Where scan requests go: the scan request queue (scan/) implements it. The
// bus thread and the storage model (kinds 1, 2, 3) and the filesystem change
// handling (kinds 0, 4) queue through it; their unit tests use fakes.
#pragma once

#include <cstdint>
#include <string>

namespace zibd {

// Kinds 0, 2 and 4 go to the priority list, 1 and 3 to the ordinary one;
// any other kind is dropped.
enum ScanKind : uint32_t {
  kScanChangedDirectory = 0,  // a directory that changed in a watched tree
  kScanRuleDirectory = 1,     // a partition to scan, or an index rule's directory
  kScanForcedRescan = 2,      // "ForceRescan" of a partition
  kScanStorageRoot = 3,       // the whole storage root "/var/uuidmount"
  kScanNewTree = 4,           // a directory that appeared in a watched tree, with its subtree
};

class ScanRequests {
 public:
  virtual ~ScanRequests() = default;

  // Queues path (normalised with realpath; dropped when it does not resolve
  // or while no metadata storage is chosen). Any thread; the storage lock may
  // be held (docs/code-map.md).
  virtual void enqueue(const std::string& path, uint32_t kind) = 0;
};

}  // namespace zibd
