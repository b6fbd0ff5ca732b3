// The names the daemon shares with the tag store and the media server: the
// daemon's own tags, the category bits of an index rule, and the file whose
// opening tells the tag store to look at its configuration again. One place,
// so that the scanner, the change handling and the bus handling agree.
#pragma once

#include <cstdint>

namespace zibd {

// Tags (all values text):
//   ".s.mdt"       modification time when last profiled, "%Y%m%d%H%M%S" local
//   ".s.hash"      identity hash, 16 lower-case hex digits (new files only)
//   ".s.invisible" "1" outside the visible media tree, else "0"
//   ".s.tbp"       "1": to be profiled
//   ".s.filetype"  the type name of the file's type record, selects the profiler
//   ".s.batchidx"  the profiler batch (decimal) within its type
inline constexpr char kTagModified[] = ".s.mdt";
inline constexpr char kTagHash[] = ".s.hash";
inline constexpr char kTagInvisible[] = ".s.invisible";
inline constexpr char kTagToProfile[] = ".s.tbp";
inline constexpr char kTagFileType[] = ".s.filetype";
inline constexpr char kTagBatchIndex[] = ".s.batchidx";

// Category bits of an index rule's mask ("EnableMovie", "EnableMusic",
// "EnablePicture"); the file-type map ties each to its type name.
enum RuleCategory : uint32_t {
  kCategoryMovies = 1,
  kCategoryMusic = 2,
  kCategoryPictures = 4,
};

// Opened (and closed at once) after the tag store's configuration changed and
// after a database cleanup; a missing file is no error.
inline constexpr char kKordUpdateSignal[] = "/var/kord/meta/.update";

}  // namespace zibd
