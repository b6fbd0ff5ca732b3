// What the status view shows, gathered from what the gateway offers to any
// reader: the configuration bus (read only), the metadata storage files, the
// tag store (through `kordctl --db FILE stats`, which never creates a
// database) and the change-event log. Nothing here writes anywhere.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/rill.h"

namespace zibd::status {

// Fixed paths of the gateway, and the host hooks that move them (the same
// variables the host platform libraries read).
inline constexpr const char* kLocationFile = "/rw/zib_metadata_location";
inline constexpr const char* kDefaultKordIni = "/tmp/.kord/kord.ini";
inline constexpr const char* kDefaultEventLog = "/run/tock.events";
inline constexpr const char* kDefaultRillSocket = "/run/rill.sock";
inline constexpr const char* kMetaDataService = "VFS.MetaDataService";

std::string envOr(const char* name, const char* fallback);

struct BusState {
  bool reachable = false;
  std::string endpoint;  // the broker's socket
  std::string error;     // why it is unreachable, or why the service object is missing
  std::optional<std::string> storage_status;    // "MetaDataStorageStatus"
  std::optional<std::string> profiling_status;  // "ProfilingStatus"
  std::map<std::string, std::string> partition_by_mount;  // MountPoint -> object path
};

// One read-only connection to the bus, opened on demand and dropped when the
// broker goes away, so that the next read connects again.
class BusReader {
 public:
  BusReader();
  ~BusReader();
  BusReader(const BusReader&) = delete;
  BusReader& operator=(const BusReader&) = delete;

  BusState read();

 private:
  void drop();
  rill_conn_t* conn_ = nullptr;
};

struct StorageFiles {
  enum class Config { kAbsent, kEmpty, kMalformed, kChosen };
  Config config = Config::kAbsent;
  std::string config_path;  // kord.ini
  std::string database;     // the database file it names
  std::string mount;        // the chosen partition: the database's mount path
  std::optional<std::uint64_t> chosen_at;  // seconds since the epoch, from the instance name
  bool database_exists = false;
  std::optional<std::string> remembered;  // content of the metadata location file
};

StorageFiles readStorageFiles();
// Parses one kord.ini line "dms-metadata-db-SECONDS:ROOT:DATABASE" into files.
void parseKordIni(const std::string& text, StorageFiles* files);

struct StoreCounts {
  enum class State { kNoDatabase, kFailed, kOk };
  State state = State::kNoDatabase;
  std::string error;  // kFailed: what kordctl said
  std::uint64_t files = 0;
  std::uint64_t waiting = 0;  // ".s.tbp"
  std::vector<std::pair<std::string, std::uint64_t>> by_type;
  std::uint64_t typed() const;  // the media files: the sum over the types
};

// Counts through `KORDCTL --db DATABASE stats`, only when the database file
// exists (kordctl --db never creates one). A kordctl that does not answer
// within a few seconds is killed.
StoreCounts readStoreCounts(const std::string& kordctl, const StorageFiles& files);

// Where kordctl is: $KORDCTL, else next to this program in a build tree,
// else "kordctl" on PATH.
std::string findKordctl(const std::string& self);

// The change-event log, read incrementally: each refresh reads only what was
// appended since the last one; a log that was replaced or truncated is read
// again from its start.
class EventLog {
 public:
  explicit EventLog(std::string path, std::size_t keep = 500);

  void refresh();
  const std::string& path() const { return path_; }
  bool present() const { return present_; }
  std::uint64_t total() const { return total_; }
  const std::deque<std::string>& latest() const { return latest_; }  // oldest first

 private:
  void reset();
  void addLine(std::string line);

  std::string path_;
  std::size_t keep_;
  bool present_ = false;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  off_t offset_ = 0;
  std::string partial_;  // an unfinished last line
  std::uint64_t total_ = 0;
  std::deque<std::string> latest_;
};

struct Snapshot {
  BusState bus;
  StorageFiles storage;
  StoreCounts store;
};

}  // namespace zibd::status
