// One scan request carried out: tag the new and changed media files below a
// path, then run each file type's profiler over its pending files in batches
// of at most 100, each batch presented to the profiler as a tag-store view
// (a directory of symbolic links), and mark the batch's files as profiled.
//
// A profiler is started as
//   PROFILER_COMMAND [PROFILER_ARGUMENTS...] VIEW_DIRECTORY
// on the view "zibprof.<daemon pid>.<type>.<batch>.<run>" with the condition
// "@.s.tbp@ exists and @.s.filetype@='<type>' and @.s.batchidx@='<batch>'".
// It runs in a process group of its own with its output on /dev/null. A
// profiler that is still running kProfilerTimeLimit after its start is
// killed; whatever it does (crash, hang, fail to start, write much output),
// the batch's files are marked as profiled unless the run was stopped. When
// it exits, the rest of its process group is killed: nothing it started
// outlives its batch.
//
// While a profiler runs, changed directories (kind 0) that wait at the head
// of the queue are tagged at once, so that new files are tagged however long
// a batch takes. Their files get batch numbers above every batch the run has
// yet to start for their type, and the run profiles them once its batches are
// done (in another pass, with the next run number, for a type whose batches
// had ended).
//
// Tags that could not be stored (a commit or a view that failed: a full or
// read-only metadata disk) leave the path of the work concerned in
// takeUnstored(), so that the scanner can scan its partition again.
//
// Marking takes the view's links at most 50 per pass and reopens the
// directory after each pass, since marked files leave the view. Each link is
// marked under the path it names, which is the path the file was tagged
// under: a symbolic link to a media file is tagged and marked as the link,
// never as its target (resolving the link would mark the target, leave the
// link in the view and loop for ever). A link that cannot be marked (its file
// is gone) is passed over in later passes, so the marking always ends.
//
// Thread: the scanner thread only.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "common/deadline.h"
#include "common/spawn.h"
#include "scan/file_type_map.h"
#include "scan/kord_bulk.h"
#include "scan/scan_queue.h"
#include "scan/scanner_state.h"
#include "scan/tagging.h"
#include "storage/storage_queries.h"

namespace zibd {

inline constexpr char kViewPrefix[] = "zibprof";
// Links marked per pass over a view directory.
inline constexpr int kMarkPerPass = 50;
// How long a profiler may run before it is killed.
inline constexpr std::chrono::milliseconds kProfilerTimeLimit = std::chrono::minutes(10);

class ProfilerRun {
 public:
  ProfilerRun(ScannerState& state, FileTypeMap& types, Tagger& tagger,
              const StorageQueries& storage, KordBulk& bulk, ScanQueue& queue,
              const std::atomic<int>& running,
              std::chrono::milliseconds profiler_limit = kProfilerTimeLimit);
  ProfilerRun(const ProfilerRun&) = delete;
  ProfilerRun& operator=(const ProfilerRun&) = delete;

  // Tags the files below path (only those directly in it unless recursive),
  // then runs the pending batches of every type, until a stop.
  void run(const std::string& path, bool recursive);

  // Runs that reached the batch phase.
  int runCounter() const { return run_counter_; }

  // The paths below which tags were lost since the last call; clears them.
  std::set<std::string> takeUnstored() { return std::exchange(unstored_, {}); }

 private:
  Visibility visibilityFor(const std::string& path) const;
  bool stopped() const;
  // Tags the files below path and ends the phase (renewBulk).
  void tag(const std::string& path, bool recursive);
  // Every type's pending batches, once.
  void runBatches();
  void runBatch(FileTypeRecord& record, int batch);
  void runProfiler(const FileTypeRecord& record, const char* view_path);
  // Until the profiler has exited (not reaped) or has been killed for taking
  // too long, tagging changed directories meanwhile. False when the system
  // cannot wait without reaping: the caller then reaps it, untimed.
  bool waitForProfiler(const ChildProcess& child);
  void tagChangedDirectories();
  void markBatch(const char* view_path);
  // Marks the file at path as profiled at its current modification time.
  // False when it is gone or the tag store refused.
  bool markProfiled(const std::string& path);
  void lost(const std::string& path) { unstored_.insert(path); }

  ScannerState& state_;
  FileTypeMap& types_;
  Tagger& tagger_;
  const StorageQueries& storage_;
  KordBulk& bulk_;
  ScanQueue& queue_;
  const std::atomic<int>& running_;
  const std::chrono::milliseconds profiler_limit_;
  int run_counter_ = 0;
  // The run's request path, and the managed partition as it was when the run
  // began (asked only then: see run()).
  std::string run_path_;
  std::optional<std::string> managed_;
  std::set<std::string> unstored_;
};

}  // namespace zibd
