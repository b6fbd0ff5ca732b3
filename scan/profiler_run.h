// One scan request carried out: tag the new and changed media files below a
// path, then run each file type's profiler over its pending files in batches
// of at most 100, each batch presented to the profiler as a tag-store view
// (a directory of symbolic links), and mark the batch's files as profiled.
//
// A profiler is started as
//   PROFILER_COMMAND [PROFILER_ARGUMENTS...] VIEW_DIRECTORY
// on the view "zibprof.<daemon pid>.<type>.<batch>.<run>" with the condition
// "@.s.tbp@ exists and @.s.filetype@='<type>' and @.s.batchidx@='<batch>'".
// Whatever it does (crash, hang until a stop kills it, fail to start, write
// much output), the batch's files are marked as profiled unless the run was
// stopped.
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
#include <string>

#include "scan/file_type_map.h"
#include "scan/kord_bulk.h"
#include "scan/scanner_state.h"
#include "scan/tagging.h"
#include "storage/storage_queries.h"

namespace zibd {

inline constexpr char kViewPrefix[] = "zibprof";
// Links marked per pass over a view directory.
inline constexpr int kMarkPerPass = 50;

class ProfilerRun {
 public:
  ProfilerRun(ScannerState& state, FileTypeMap& types, Tagger& tagger,
              const StorageQueries& storage, KordBulk& bulk, const std::atomic<int>& running);
  ProfilerRun(const ProfilerRun&) = delete;
  ProfilerRun& operator=(const ProfilerRun&) = delete;

  // Tags the files below path (only those directly in it unless recursive),
  // then runs the pending batches of every type, until a stop.
  void run(const std::string& path, bool recursive);

  // Runs that reached the batch phase.
  int runCounter() const { return run_counter_; }

 private:
  Visibility visibilityFor(const std::string& path) const;
  bool stopped() const;
  void runBatch(FileTypeRecord& record, int batch);
  void runProfiler(const FileTypeRecord& record, const char* view_path);
  void markBatch(const char* view_path);
  // Marks the file at path as profiled at its current modification time.
  // False when it is gone or the tag store refused.
  bool markProfiled(const std::string& path);

  ScannerState& state_;
  FileTypeMap& types_;
  Tagger& tagger_;
  const StorageQueries& storage_;
  KordBulk& bulk_;
  const std::atomic<int>& running_;
  int run_counter_ = 0;
};

}  // namespace zibd
