// Classification and tagging of single files during a scan, and the check by
// which the database cleanup drops files that are no longer wanted. The tags
// are listed in common/tag_names.h; a scan gives ".s.hash" and ".s.invisible"
// to new files only.
//
// Thread: the scanner thread alone uses a Tagger. Only the abort flag is
// written by other threads (scan/scanner_state.h).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>

#include "common/status.h"
#include "common/tag_names.h"
#include "scan/file_type_map.h"
#include "scan/kord_bulk.h"
#include "storage/index_rules.h"

namespace zibd {

// Files per profiler batch. The pending count is incremented before it is
// divided by this, so batch 0 of a type holds one file less than the others.
inline constexpr int kBatchSize = 100;

// Formats seconds as local time "%Y%m%d%H%M%S" into buf (NUL-terminated).
// Returns false (buf then "") when it does not fit or cannot be converted.
bool formatTagTime(std::time_t seconds, char* buf, std::size_t size);

// The identity hash of a new file: starting at 5381, acc = acc * 33 + byte for
// every byte of path and then of time_text, each byte taken as a signed char
// (so bytes above 127 count negative on every target), modulo 2^64.
uint64_t tagHash(std::string_view path, std::string_view time_text);

// Which of a scan's new files are marked invisible.
struct Visibility {
  enum class Kind {
    kVisible,          // every file visible
    kInvisible,        // every file invisible
    kInsideDirectory,  // visible only inside directory
  };
  Kind kind = Kind::kVisible;
  std::string directory;

  bool invisible(const char* path) const;
};

class Tagger {
 public:
  // bulk is the scanner's handle, which the profiler run replaces between
  // phases; abort is the scanner's abort flag.
  Tagger(FileTypeMap& types, const IndexRules& rules, const KordBulk& bulk,
         const std::atomic<int>& abort);
  Tagger(const Tagger&) = delete;
  Tagger& operator=(const Tagger&) = delete;

  // Tags path when it is a wanted media file that is new to the database or
  // changed since it was last profiled: marks it to be profiled with its type
  // and batch, and gives a new file its hash and visibility. Stopped when
  // the abort flag is set (nothing looked at); otherwise it succeeds, as
  // every failure skips the file silently (a commit that failed is kept for
  // takeCommitFailed).
  Status tagFile(const char* path, const Visibility& visibility);

  // The cleanup's check: true (drop) when path is gone, has no known media
  // extension, or its type is not enabled by the index rules over it.
  bool unwanted(const char* path);

  // Files new to the database since this Tagger was made.
  long newFiles() const { return new_files_; }

  // Whether a file's tags could not be committed (a full or read-only
  // metadata disk) since the last call; clears it.
  bool takeCommitFailed() { return std::exchange(commit_failed_, false); }

  // Makes unwanted() of this Tagger the check that the C cleanup callback
  // (cleanupCheck) calls, for the scope of one cleanup on this thread.
  class CleanupScope {
   public:
    explicit CleanupScope(Tagger& tagger);
    ~CleanupScope();
    CleanupScope(const CleanupScope&) = delete;
    CleanupScope& operator=(const CleanupScope&) = delete;
  };
  // The kord_check_fn given to kord_cleanup_attached. Keeps every file when
  // no CleanupScope is open on the calling thread.
  static int cleanupCheck(const char* path);

 private:
  FileTypeMap& types_;
  const IndexRules& rules_;
  const KordBulk& bulk_;
  const std::atomic<int>& abort_;
  long new_files_ = 0;
  bool commit_failed_ = false;
};

}  // namespace zibd
