// What the scanner and the filesystem change handling ask of the storage
// model. The storage model implements it; unit tests of the layers above use
// fakes. frame/ hands the real one to its users.
#pragma once

#include <optional>
#include <string>

namespace zibd {

class StorageQueries {
 public:
  virtual ~StorageQueries() = default;

  // True while a metadata storage is chosen (status "OK").
  // Any thread; takes no lock.
  virtual bool storageReady() const = 0;

  // True when path equals, or lies below, the mount path of a known
  // partition. Any thread; takes the storage lock.
  virtual bool pathIsOnPartition(const std::string& path) const = 0;

  // Mount path of the first partition (disk order, then partition order)
  // whose "Manageddisk" flag is set. Any thread; takes the storage lock.
  virtual std::optional<std::string> managedPartitionPath() const = 0;

  // Sends the media server a change event (code 2) for path through the
  // event producer of the partition it lies on; nothing when it lies on none.
  // Any thread; takes the storage lock.
  virtual void sendChangeEvent(const std::string& path) = 0;

  // Records that the whole storage root has been scanned. Scanner thread.
  virtual void markInitialScanDone() = 0;
};

}  // namespace zibd
