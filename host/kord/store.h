// One SQLite connection to the tag database, with its prepared statements and
// the bookkeeping of its open write transaction. A Store is used by one thread
// at a time: a bulk handle's by contract, the process's shared one under the
// library's mutex.
//
// Tables: files (integer id, unique path), tags (file id, name, value; one
// value per name), views (name, condition, directory), indexed_tags (the tag
// names that have an index of their values, "tags_value_<id>"). Views are
// kept in the database so that every process that commits tag changes keeps
// every view directory right; the links of a view directory are changed only
// while the database's write lock is held.
//
// Tag values are indexed only for the names that view conditions compare
// with a value: every index costs each commit that touches such a tag another
// page written, and the scanner commits once per file.
//
// Grouped commits: commit(true) may leave the handle's changes in the open
// SQLite transaction (a group) instead of committing it; the view links follow
// at once all the same. The next write after such a commit opens a savepoint,
// so that flushGroup() can drop a half-made file's changes and commit only
// what commit() was called for. The library decides when a group ends
// (kord.cpp).
//
// Each view records the process that created it (pid and boot); a view
// whose creator is gone is deleted by the next process that creates a view
// or commits while it is loaded, so that views left by a killed daemon stop
// costing every later commit.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/kord/condition.h"
#include "host/kord/configuration.h"
#include "host/kord/sqlite.h"

namespace zibd::kord {

// The schema, also used by the benchmark to load rows directly.
inline constexpr int kSchemaVersion = 2;
inline constexpr const char* kSchemaSql =
    "CREATE TABLE IF NOT EXISTS files(id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS tags(file INTEGER NOT NULL, name TEXT NOT NULL,"
    " value TEXT NOT NULL, PRIMARY KEY(file, name)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS views(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE,"
    " condition TEXT, dir TEXT NOT NULL, creator_pid INTEGER, creator_boot INTEGER);"
    "CREATE TABLE IF NOT EXISTS indexed_tags(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);";

using TagList = std::vector<std::pair<std::string, std::string>>;
using FileList = std::vector<std::pair<std::int64_t, std::string>>;  // id, path

class Store {
 public:
  // Opens the location's database (creating the file, and the directory that
  // holds it, when missing) and brings its schema up. Throws Failure.
  explicit Store(std::shared_ptr<const Location> location);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const Location& location() const { return *location_; }

  // Reads; outside a transaction each sees the latest committed state.
  bool getTag(std::string_view path, std::string_view name, std::string* value);
  std::int64_t findFile(std::string_view path);  // 0 when unknown
  TagList tagsOf(std::int64_t file);             // sorted by name
  std::vector<std::string> pathsBelow(std::string_view path);
  std::vector<std::string> pathsMatching(const Condition& condition);
  // Up to `limit` files below `path` sorted by path, starting after `after`
  // ("" for the start).
  FileList filesBelowAfter(std::string_view path, std::string_view after, std::int64_t limit);
  std::int64_t count(const std::string& sql);
  std::vector<std::pair<std::string, std::uint64_t>> countValues(std::string_view name);

  // Writes of a bulk handle. The first opens a write transaction (taking the
  // database's write lock) that lasts until commit() or rollback().
  void setTag(std::string_view path, std::string_view name, std::string_view value);
  bool deleteTag(std::string_view path, std::string_view name);  // false: no such tag
  void setTagBelow(std::string_view path, std::string_view name, std::string_view value);
  // Brings the view directories in line with the changes and commits; a
  // no-op without changes. With may_group the SQLite transaction may stay
  // open as a group of commits; returns whether a group is open afterwards.
  bool commit(bool may_group);
  // The number of commits in the open group (0: none).
  int groupCommits() const { return group_commits_; }
  // Whether changes were made since the last commit().
  bool changedSinceCommit() const { return in_transaction_ && (group_commits_ == 0 || savepoint_); }
  // Ends the open group: the committed changes are written. Changes made
  // since the last commit() are dropped, or with keep_changes made again in a
  // new transaction (taking the write lock again). Without a group, rolls
  // back (or, with keep_changes, does nothing).
  void flushGroup(bool keep_changes);
  void rollback() noexcept;

  // Operations that are each one transaction; not while a handle transaction
  // is open on this Store.
  void move(std::string_view from, std::string_view to);
  void remove(std::string_view path);
  // Drops the files whose (id, path) are given; a file moved or dropped by
  // someone else in the meantime is left alone.
  void dropFiles(const FileList& files);
  void createView(std::string_view name);
  void setViewCondition(std::string_view name, std::string_view condition);  // parsed first
  std::string viewDirectory(std::string_view name);
  void deleteView(std::string_view name);

 private:
  struct View {
    std::string name;
    std::string dir;
    std::string text;
    Condition condition;
    std::int64_t creator_pid;
    std::int64_t creator_boot;
  };

  const Statement& statement(int id);  // prepared on first use
  void begin();
  void commitTransaction();
  std::int64_t fileForWrite(std::string_view path);
  const std::vector<View>& loadViews();
  // Deletes the views whose creating process is gone; inside a write
  // transaction. Only every kCreatorCheckInterval unless `now`.
  void dropOrphanViews(bool now);
  void updateViews();
  void unlinkBelow(std::string_view path, const std::vector<View>& views);
  void deleteBelow(std::string_view path, const std::vector<View>& views);
  FileList filesBelow(std::string_view path);
  FileList filesMatching(const Condition& condition);
  std::string reconcileView(std::string_view name);  // returns the directory
  bool isIndexed(std::string_view tag);
  void ensureIndexed(std::string_view tag);  // inside a write transaction
  void noteChange(std::int64_t file, std::string_view name);
  void clearTransaction() noexcept;
  void writeTag(std::string_view path, std::string_view name, std::string_view value);

  // A change made after the group's last commit, kept so that the group can
  // be written without it and the change made again.
  struct Change {
    enum Kind { kSet, kDelete, kSetBelow } kind;
    std::string path;
    std::string name;
    std::string value;
  };
  void noteForGroup(Change::Kind kind, std::string_view path, std::string_view name,
                    std::string_view value);

  std::shared_ptr<const Location> location_;
  Connection connection_;
  std::array<std::unique_ptr<Statement>, 32> statements_;
  std::vector<View> views_;  // cache of loadViews()
  std::int64_t last_orphan_check_ = 0;  // CLOCK_MONOTONIC seconds

  // State of the open write transaction.
  bool in_transaction_ = false;
  std::string cached_path_;  // fileForWrite() cache, valid inside the transaction
  std::int64_t cached_id_ = 0;
  std::vector<std::int64_t> touched_files_;
  std::vector<std::string> touched_below_;  // setTagBelow() paths
  std::vector<std::string> changed_names_;
  std::string unknown_path_;  // the last path getTag found no file for
  int group_commits_ = 0;     // commits kept in the open transaction
  bool savepoint_ = false;    // a savepoint marks the end of the group's last commit
  std::vector<Change> changes_after_group_;
};

// The calling process's identity as views record it: its pid and the boot of
// the system it runs in (0 when unknown).
std::pair<std::int64_t, std::int64_t> processIdentity();
// Whether the process that recorded (pid, boot) may still run: false when no
// process has that id, or the system has been booted since.
bool processAlive(std::int64_t pid, std::int64_t boot);

// Checks a view name: it becomes a directory name.
bool isValidViewName(std::string_view name);

}  // namespace zibd::kord
