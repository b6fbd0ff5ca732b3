// The scanner thread: serves the scan request queue one request at a time.
//
//   kind 0  scan and profile the files directly in the directory
//   kind 1  scan and profile the tree, then report the partition scanned
//   kind 2  the same (a forced rescan)
//   kind 3  clean the database below the path: drop the files that are gone
//           or no longer wanted, then signal the tag store's update file
//   kind 4  scan and profile the tree of a directory that appeared
//
// Tags that a request could not store (a full or read-only metadata disk)
// leave their partition owed a scan (kind 1): it is queued at the next
// request that concerns that partition, or kRescanDelay after the failure,
// whichever comes first. Until then the scanner waits in poll on the queue
// with that time-out instead of blocking in its take.
//
// step() is one pass (one take, one request carried out, back to idle); run()
// is the thread body. Tests call step() directly.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "common/deadline.h"
#include "common/tag_names.h"
#include "scan/file_type_map.h"
#include "scan/kord_bulk.h"
#include "scan/profiler_run.h"
#include "scan/scan_queue.h"
#include "scan/scan_reports.h"
#include "scan/scanner_state.h"
#include "scan/tagging.h"
#include "storage/index_rules.h"
#include "storage/storage_queries.h"

namespace zibd {

// How long a partition whose tags could not be stored waits for its scan
// when nothing on it changes.
inline constexpr std::chrono::milliseconds kRescanDelay = std::chrono::minutes(10);

class ScannerThread {
 public:
  ScannerThread(ScanQueue& queue, ScannerState& state, FileTypeMap& types, IndexRules& rules,
                StorageQueries& storage, ScanReports& reports, const std::atomic<int>& running,
                std::string update_signal = kKordUpdateSignal,
                std::chrono::milliseconds profiler_limit = kProfilerTimeLimit,
                std::chrono::milliseconds rescan_delay = kRescanDelay);
  // Joins the thread if it still runs: stop it first (ScannerState::stopScanner
  // with running 0).
  ~ScannerThread();
  ScannerThread(const ScannerThread&) = delete;
  ScannerThread& operator=(const ScannerThread&) = delete;

  // Opens the tag-store handle. Fails with EIO when the tag store gives
  // none: there is no scanner then, and run() ends at once.
  Status open();

  // One pass: takes a request (blocking while the queue is empty and the
  // daemon runs, or until an owed scan is due), carries it out, and goes back
  // to idle.
  void step();

  // Partitions owed a scan, for tests.
  std::set<std::string> owedScans() const;

  // The thread body: open, then step() while running, then back to idle for
  // good. Nothing escapes it; a request that fails for want of memory is
  // dropped.
  void run() noexcept;

  // Starts run() on a thread of its own.
  Status start();
  void join();

 private:
  void cleanup(const std::string& path);
  // Closes the handle when the storage model asked for it (ScannerState).
  void releaseTagStoreIfAsked();
  // The next request once one waits or an owed scan is due (queued then).
  std::optional<ScanRequest> takeOrOwed();
  // After a request: queues the owed scans of the partitions it concerns,
  // then owes one to each partition where it lost tags.
  void settleOwed(const ScanRequest& request);
  // The mount path of the partition path lies on, if any.
  std::optional<std::string> partitionOf(const std::string& path) const;

  ScanQueue& queue_;
  ScannerState& state_;
  IndexRules& rules_;
  StorageQueries& storage_;
  ScanReports& reports_;
  const std::atomic<int>& running_;
  const std::string update_signal_;
  const std::chrono::milliseconds rescan_delay_;
  // Mount path -> when its scan is due.
  std::map<std::string, MonotonicClock::time_point> owed_;
  KordBulk bulk_;
  Tagger tagger_;
  ProfilerRun profiler_;
  std::thread thread_;
};

}  // namespace zibd
