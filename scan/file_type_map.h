// The file-type map: which media type a file extension stands for, and which
// profiler program handles files of that type. It is read once at start-up
// from the file given with -t, one record per line:
//
//   EXT[,EXT...]:TYPE:PROFILER[:ARG...]
//
// e.g. "avi,mpg,MP4:STDVIDEO:/usr/bin/prof:-v:". Lines whose first non-blank
// character is '#', and blank lines, are skipped.
//
// Thread safety: the map is filled before any thread starts and never changes
// shape afterwards. Lookups (they move the last-hit record) and the pending
// counts belong to the scanner thread alone; nothing locks the map.
#pragma once

#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"

namespace zibd {

// The type names that the category bits of an index rule's mask
// (common/tag_names.h) stand for: movies, music, pictures.
inline constexpr char kTypeVideo[] = "STDVIDEO";
inline constexpr char kTypeAudio[] = "STDAUDIO";
inline constexpr char kTypeImage[] = "STDIMAGE";

struct FileTypeRecord {
  std::string type;                     // written as the file's type tag
  std::vector<std::string> extensions;  // without dots, as written (may be empty strings)
  std::string profiler_command;
  std::vector<std::string> profiler_arguments;
  // Files of this type tagged as to be profiled since the last batch run.
  int pending_count = 0;
};

class FileTypeMap {
 public:
  // Records own their data; the order is the reverse of the lines in the file.
  using Records = std::deque<std::unique_ptr<FileTypeRecord>>;

  // The map reads its file in pieces of this size (terminator included), so
  // longer lines are taken as several lines.
  static constexpr int kLineBufferSize = 300;

  FileTypeMap() = default;
  FileTypeMap(const FileTypeMap&) = delete;
  FileTypeMap& operator=(const FileTypeMap&) = delete;

  // Adds the records of an open map file, called name, to the front of the
  // map. Fails with EINVAL and "Parse error on line N of name" for a line that
  // cannot be parsed (lines counted per read, comments and blank lines
  // included), or with EIO and "Could not open name for reading" when the
  // file cannot be read (fopen accepts a directory, whose reads fail). On an
  // error the records read so far stay, the broken one included: the caller
  // is expected to give up.
  Status load(std::FILE* file, const std::string& name);

  // The record listing extension (compared case-insensitively), or null.
  // Checks the record of the previous successful lookup first, then the map
  // from its front; a hit becomes the new last-hit record.
  FileTypeRecord* find(const char* extension);

  const Records& records() const { return records_; }
  bool empty() const { return records_.empty(); }

  // Releases every record.
  void clear();

 private:
  Records records_;
  FileTypeRecord* last_hit_ = nullptr;  // points into records_, or null
};

// The text after the last '.' of path when that '.' is in the last path
// component ("" for a name ending in '.'); null otherwise. Points into path.
const char* extensionOf(const char* path);

// True when record's type is one of the three categories and its bit is in
// mask. Other type names never match.
bool typeEnabled(const FileTypeRecord& record, unsigned mask);

}  // namespace zibd
