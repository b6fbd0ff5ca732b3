// What the scanner thread shares with the threads that stop it: the abort and
// cleanup-stop flags, the paths of the scan or cleanup in progress and the pid
// of a running profiler, under the scanner lock, with the idle condition that
// the stop operations wait on.
//
// The stop operations (stopScanner at shutdown; stopBelow and stopAll from the
// storage model, with the storage lock held) raise the flags, kill a running
// profiler's process group with SIGKILL and return once the scanner has gone
// back to idle.
//
// Lock order: docs/code-map.md. The scanner thread takes the storage lock
// (for the managed partition) only before it publishes a scanning path, so a
// stop that holds the storage lock never waits for a scanner blocked on it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <optional>
#include <string>

#include "common/mutex.h"
#include "scan/scan_queue.h"
#include "storage/scanner_control.h"

namespace zibd {

class ScannerState final : public ScannerControl {
 public:
  explicit ScannerState(ScanQueue& queue);
  ScannerState(const ScannerState&) = delete;
  ScannerState& operator=(const ScannerState&) = delete;

  // --- other threads ---

  // Shutdown: drops every queued request, aborts the scan and the cleanup,
  // kills the profiler, wakes the scanner's take and waits until it is idle.
  void stopScanner() EXCLUDES(mutex_);

  // Drops the queued requests at and below path, stops a running cleanup
  // (wherever it runs), aborts a scan inside path and kills its profiler, and
  // waits until the scanner is idle. "" is the whole storage.
  void stopBelow(const std::string& path) override EXCLUDES(mutex_);

  // stopBelow for the whole storage: the metadata storage is gone.
  void stopAll() override EXCLUDES(mutex_);

  // Asks the scanner thread to close its tag-store handle and wakes it.
  void releaseTagStore() override;

  // Blocks while a stop is pending (abort or cleanup stop set) and the
  // scanner thread has not gone back to idle or ended.
  void waitIdle() EXCLUDES(mutex_);

  // --- scanner thread ---

  // Back to idle: clears both flags, the paths and the profiler pid, wakes
  // every waitIdle and ends the queue's hold on the request taken.
  void reset() EXCLUDES(mutex_);
  // The scanner thread has ended (or never ran): nothing will reset again, so
  // waitIdle no longer waits.
  void scannerEnded() EXCLUDES(mutex_);

  // Publish the scan or cleanup of the request just taken, so that a stop
  // finds it. False, with the abort (or cleanup stop) raised, when a stop
  // withdrew the request between its take and this call: the work is not
  // to begin. Published first and asked after, so that a stop either finds
  // the path or has withdrawn the request before the question.
  [[nodiscard]] bool setScanningPath(const std::string& path) EXCLUDES(mutex_);
  [[nodiscard]] bool setCleanupPath(const std::string& path) EXCLUDES(mutex_);

  // Publishes a started profiler so that a stop can kill it. When a stop came
  // while it was being started, it is killed at once. Returns false then.
  bool setProfilerPid(pid_t pid) EXCLUDES(mutex_);
  // The profiler has exited and is about to be reaped: no stop may signal its
  // pid any more.
  void clearProfilerPid() EXCLUDES(mutex_);

  // Read without the lock between steps of work; a stale read delays a stop
  // by one file at most.
  bool aborted() const { return abort_.load() != 0; }
  const std::atomic<int>& abortFlag() const { return abort_; }
  // The cleanup-stop flag as the tag store's cleanup polls it (atomic loads).
  int* cleanupStopFlag() { return &cleanup_stop_; }

  // Scanner thread: whether its handle is to be closed (the request is
  // taken with the answer).
  bool takeTagStoreRelease() { return release_tag_store_.exchange(false); }

  // For tests: true while a scan or a cleanup is in progress.
  bool busy() const EXCLUDES(mutex_);

 private:
  void resetFlags() EXCLUDES(mutex_);
  bool publish(const std::string& path, bool cleanup) EXCLUDES(mutex_);
  void killProfiler() REQUIRES(mutex_);
  void raiseCleanupStop() REQUIRES(mutex_);

  ScanQueue& queue_;
  mutable Mutex mutex_;
  CondVar idle_;
  // Written under mutex_; the scanner reads it without.
  std::atomic<int> abort_{0};
  std::atomic<bool> release_tag_store_{false};
  // Written under mutex_ with atomic stores; the tag store's cleanup loads it
  // atomically through the plain int* its C interface takes.
  alignas(std::atomic_ref<int>::required_alignment) int cleanup_stop_ = 0;
  std::optional<std::string> scanning_path_ GUARDED_BY(mutex_);
  std::optional<std::string> cleanup_path_ GUARDED_BY(mutex_);
  pid_t profiler_pid_ GUARDED_BY(mutex_) = -1;
  bool ended_ GUARDED_BY(mutex_) = false;
};

}  // namespace zibd
