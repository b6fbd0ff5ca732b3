// Host-only additions to the tag file system (platform/kord.h), for kordctl,
// tests and benchmarks. The daemon uses platform/kord.h alone.
//
// Where things live on a development host. Each location is read from the
// environment on every call that needs it, so tests can point a process at a
// sandbox; unset or empty means the gateway's fixed path:
//   KORD_INI     the configuration file       (default "/tmp/.kord/kord.ini")
//   KORD_UPDATE  the update signal file       (default "/var/kord/meta/.update")
//   KORD_VIEWS   where new view directories go (default "/tmp/.kord/views")
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zibd::kord {

inline constexpr const char* kIniEnv = "KORD_INI";
inline constexpr const char* kUpdateEnv = "KORD_UPDATE";
inline constexpr const char* kViewsEnv = "KORD_VIEWS";
inline constexpr const char* kDefaultIni = "/tmp/.kord/kord.ini";
inline constexpr const char* kDefaultUpdate = "/var/kord/meta/.update";
inline constexpr const char* kDefaultViews = "/tmp/.kord/views";

enum class Status {
  kOk,
  kNotFound,     // unknown path, absent tag, unknown view
  kNoDatabase,   // nothing configured, or the database cannot be opened
  kBadArgument,  // malformed path, condition or name; a path outside the root
  kFailed,       // SQLite or system error, out of memory
};

// Why the calling thread's most recent failing call failed (platform/kord.h
// calls included). A successful call resets it to {kOk, ""}.
struct Error {
  Status status = Status::kOk;
  std::string message;  // one line, no trailing newline
};
Error lastError();

// Makes this process use the database file `file` for every absolute path,
// ignoring the configuration file; an empty string returns to the
// configuration file. Handles notice the switch on their next setpath.
void useDatabase(const std::string& file);

// The tags of one known file, sorted by name. kNotFound when the path is not
// known to the database.
Status listTags(const std::string& path, std::vector<std::pair<std::string, std::string>>* tags);

// The known paths equal to or below `under` ("/" for all), sorted bytewise.
Status listFiles(const std::string& under, std::vector<std::string>* paths);

// The known paths whose tags satisfy `condition` (the view condition
// language), sorted bytewise. kBadArgument for a malformed condition.
Status query(const std::string& condition, std::vector<std::string>* paths);

struct Stats {
  std::uint64_t files = 0;
  std::uint64_t to_be_profiled = 0;                                // files with ".s.tbp"
  std::vector<std::pair<std::string, std::uint64_t>> by_filetype;  // ".s.filetype" value, count
};
Status stats(Stats* out);

}  // namespace zibd::kord
