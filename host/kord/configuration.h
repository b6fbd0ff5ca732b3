// Where the database is: the gateway's configuration file, re-read whenever it
// changed (device, inode, size or modification time differ) or the update
// signal file has been opened since the last look (an inotify IN_OPEN watch,
// polled without blocking), plus the host-only override of useDatabase().
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/file_descriptor.h"
#include "common/mutex.h"

namespace zibd::kord {

// One configuration as seen at one moment. Immutable; shared by the handles
// that were opened on it.
struct Location {
  std::uint64_t generation = 0;  // changes whenever anything below changes
  bool configured = false;
  std::string database;    // the SQLite file
  std::string root;        // the database covers the paths below it
  std::string views_root;  // where new view directories are made
  std::string problem;     // why configured is false
};

// Parses the configuration line "NAME:ROOT:DATABASE" (the text up to the end
// of the first line). Fills database and root, or problem.
void parseConfigurationLine(const std::string& text, Location* out);

class Configuration {
 public:
  // The current location; never null. Thread-safe. Looks at the files again on
  // every call (one stat and one non-blocking read).
  std::shared_ptr<const Location> current();

  // Host-only override (kord_host.h); empty to return to the file.
  void useDatabase(const std::string& file);

 private:
  struct Stamp {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    std::int64_t mtime_ns = 0;
    bool operator==(const Stamp&) const = default;
  };

  bool followEnvironment() REQUIRES(mutex_);  // true when a path changed
  bool updateSignalled() REQUIRES(mutex_);    // true when .update was opened (or the watch is new)
  std::shared_ptr<const Location> reload() REQUIRES(mutex_);

  zibd::Mutex mutex_;
  std::string ini_path_ GUARDED_BY(mutex_);
  std::string update_path_ GUARDED_BY(mutex_);
  std::string views_root_ GUARDED_BY(mutex_);
  std::string override_database_ GUARDED_BY(mutex_);
  FileDescriptor inotify_ GUARDED_BY(mutex_);
  int watch_ GUARDED_BY(mutex_) = -1;
  std::int64_t next_watch_attempt_ns_ GUARDED_BY(mutex_) = 0;  // while watch_ < 0
  Stamp stamp_ GUARDED_BY(mutex_);
  std::string text_ GUARDED_BY(mutex_);  // content of the configuration file at the last reload
  std::shared_ptr<const Location> location_ GUARDED_BY(mutex_);
  std::uint64_t generation_ GUARDED_BY(mutex_) = 0;
};

}  // namespace zibd::kord
