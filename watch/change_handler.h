// What the event loop does with the changes it sees: created and written
// paths mark their directory, which goes to the scanner and the media server
// once it has been quiet for 3 seconds; a directory that appeared is also
// marked itself, to be scanned with everything below it, because files and
// directories may have been made in it before its watches existed. Deleted
// paths leave the tag database 3 seconds later unless the path exists again by
// then; moves are applied to the tag database at once and carry the pending
// changes and deletes below their old path with them, and the old path itself
// is deleted like any other path 3 seconds later (what a scan in progress
// tagged there meanwhile).
//
// Main thread only: the pending lists take no lock. The calls out take their
// own (the storage model's, the scan queue's).
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <string>
#include <vector>

#include "common/status.h"

#include "storage/scan_requests.h"
#include "storage/storage_queries.h"

namespace zibd {

// Change flags of a notice: exactly one of the first four, and one of the
// last two.
enum FsChange : std::uint32_t {
  FS_CHANGE_CREATED = 0x001,
  FS_CHANGE_WRITTEN = 0x002,
  FS_CHANGE_DELETED = 0x004,
  FS_CHANGE_MOVED = 0x008,
  FS_CHANGE_DIR = 0x100,   // the object is a directory
  FS_CHANGE_FILE = 0x200,  // it is not
};

// Seconds a directory must stay quiet, and a delete wait, before they are
// acted on.
inline constexpr std::time_t kFsSettleSeconds = 3;

// Wall-clock seconds; tests hand in a clock of their own.
using FsClock = std::function<std::time_t()>;
std::time_t fsWallClock();

// The event loop's view of the change handling.
class ChangeNotices {
 public:
  virtual ~ChangeNotices() = default;
  // One notice: path, the old path of a move (else null), FsChange flags.
  virtual Status fsHandleChange(const char* path, const char* old_path, std::uint32_t flags) = 0;
  // Once per pass of the event loop: acts on what has settled.
  virtual void fsFlushChanges() = 0;
};

class ChangeHandler final : public ChangeNotices {
 public:
  ChangeHandler(ScanRequests& scans, StorageQueries& storage, FsClock now = fsWallClock)
      : scans_(scans), storage_(storage), now_(std::move(now)) {}

  // Fails with EINVAL for a path without '/' or a move without an old path,
  // and with EIO when the tag store could not move the old path's tags (the
  // move is followed all the same).
  Status fsHandleChange(const char* path, const char* old_path, std::uint32_t flags) override;
  // While no metadata storage is ready, drops everything pending.
  void fsFlushChanges() override;

  // What is pending (tests).
  struct PendingChange {
    std::string directory;
    std::time_t time;
    bool waiting_for_close;
    bool whole_tree = false;  // a directory that appeared: scanned with its subtree
  };
  const std::vector<PendingChange>& pendingChanges() const { return changes_; }
  std::vector<std::string> pendingDeletes() const;

 private:
  struct PendingDelete {
    std::string path;
    std::time_t time;
  };
  Status handleMove(const char* path, const char* old_path, const std::string& new_parent, std::uint32_t flags);
  PendingChange& markChanged(const std::string& directory, std::time_t now);
  void flushDeletes(std::time_t now);
  bool settled(std::time_t since, std::time_t now) const;

  ScanRequests& scans_;
  StorageQueries& storage_;
  FsClock now_;
  // At most one record per directory; order carries no meaning.
  std::vector<PendingChange> changes_;
  // Newest first.
  std::list<PendingDelete> deletes_;
};

}  // namespace zibd
