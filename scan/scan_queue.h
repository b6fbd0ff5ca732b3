// The scan request queue: paths to scan, carried from the threads that learn
// of them (the bus thread, the filesystem change handling) to the one scanner
// thread. Kinds 0 (a changed directory), 2 (a forced rescan) and 4 (a new
// directory's tree) wait in the priority list, which is always taken first;
// kinds 1 and 3 in the ordinary list. A forced rescan replaces the first
// waiting ordinary request of the same path.
//
// The queue tells the bus thread when it has work (reportProfiling(true), on
// the first request into an idle queue) and when a take finds it empty
// (reportProfiling(false)); these are the "Profiling" and "Ready" statuses.
//
// Lock order: docs/code-map.md (after the storage lock, before the control
// pipe's).
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "common/file_descriptor.h"
#include "common/mutex.h"
#include "scan/scan_reports.h"
#include "storage/scan_requests.h"
#include "storage/storage_queries.h"

namespace zibd {

struct ScanRequest {
  std::string path;  // canonical (realpath), without a trailing '/'
  uint32_t kind = 0;
};

class ScanQueue final : public ScanRequests {
 public:
  // running is the daemon's running flag: once it is 0, take() empties the
  // queue and returns nothing.
  ScanQueue(const StorageQueries& storage, ScanReports& reports, const std::atomic<int>& running);
  ScanQueue(const ScanQueue&) = delete;
  ScanQueue& operator=(const ScanQueue&) = delete;

  // Drops the request while no metadata storage is chosen, when path does not
  // resolve (missing, too long) or when kind is none of ScanKind. Any thread.
  void enqueue(const std::string& path, uint32_t kind) override EXCLUDES(mutex_);

  // The next request, priority list first. When nothing waits it blocks until
  // a request arrives, a wake() or a spurious wake-up, and tries once more
  // (with block false it returns at once): nothing is a normal result. Once
  // running is 0 it drops every waiting request and returns nothing. Scanner
  // thread only.
  std::optional<ScanRequest> take(bool block = true) EXCLUDES(mutex_);

  // The first waiting request when it is a changed directory (kind 0) at the
  // head of the priority list, without blocking and without reporting the
  // queue idle. Scanner thread only, while a profiler runs.
  std::optional<ScanRequest> takeChangedDirectory() EXCLUDES(mutex_);

  // Readable after an enqueue or a wake(), for a scanner that waits in poll
  // for something else too; drainWakeups() empties it before the scanner
  // looks at the queue.
  int wakeupFd() const { return wakeup_pipe_.read_end.get(); }
  void drainWakeups();

  // Drops every waiting request whose path is prefix or lies below it
  // (prefix followed by '/'); "" drops every request. The request that take()
  // returned last counts as withdrawn when it lies there too, until the
  // scanner has finished with it.
  void removeUnder(const std::string& prefix) EXCLUDES(mutex_);

  // Scanner thread: whether a removeUnder has withdrawn the request taken
  // last; and that the scanner is done with it.
  bool takenWithdrawn() const EXCLUDES(mutex_);
  void finishTaken() EXCLUDES(mutex_);

  // Drops every waiting request. The busy state is left as it is: the next
  // take reports the queue empty.
  void clear() EXCLUDES(mutex_);

  // Wakes a take that waits, without queuing anything.
  void wake() EXCLUDES(mutex_);

  // Waiting requests, for tests and diagnostics.
  std::size_t size() const EXCLUDES(mutex_);

 private:
  std::optional<ScanRequest> popLocked() REQUIRES(mutex_);
  void signalLocked() REQUIRES(mutex_);

  const StorageQueries& storage_;
  ScanReports& reports_;
  const std::atomic<int>& running_;

  mutable Mutex mutex_;
  CondVar wakeup_;
  std::list<ScanRequest> priority_ GUARDED_BY(mutex_);
  std::list<ScanRequest> ordinary_ GUARDED_BY(mutex_);
  // Set when "work pending" was reported and "idle" not yet.
  bool busy_ GUARDED_BY(mutex_) = false;
  // The path of the request take() returned last, until finishTaken().
  std::optional<std::string> taken_ GUARDED_BY(mutex_);
  bool taken_withdrawn_ GUARDED_BY(mutex_) = false;
  // Non-blocking both ways; a full pipe already says what a byte would.
  Pipe wakeup_pipe_;
};

}  // namespace zibd
