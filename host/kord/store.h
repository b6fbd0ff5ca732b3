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
inline constexpr int kSchemaVersion = 1;
inline constexpr const char* kSchemaSql =
    "CREATE TABLE IF NOT EXISTS files(id INTEGER PRIMARY KEY, path TEXT NOT NULL UNIQUE);"
    "CREATE TABLE IF NOT EXISTS tags(file INTEGER NOT NULL, name TEXT NOT NULL,"
    " value TEXT NOT NULL, PRIMARY KEY(file, name)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS views(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE,"
    " condition TEXT, dir TEXT NOT NULL);"
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
  // no-op without changes.
  void commit();
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
  };

  const Statement& statement(int id);  // prepared on first use
  void begin();
  void commitTransaction();
  std::int64_t fileForWrite(std::string_view path);
  const std::vector<View>& loadViews();
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

  std::shared_ptr<const Location> location_;
  Connection connection_;
  std::array<std::unique_ptr<Statement>, 32> statements_;
  std::vector<View> views_;  // cache of loadViews()

  // State of the open write transaction.
  bool in_transaction_ = false;
  std::string cached_path_;  // fileForWrite() cache, valid inside the transaction
  std::int64_t cached_id_ = 0;
  std::vector<std::int64_t> touched_files_;
  std::vector<std::string> touched_below_;  // setTagBelow() paths
  std::vector<std::string> changed_names_;
  std::string unknown_path_;  // the last path getTag found no file for
};

// Checks a view name: it becomes a directory name.
bool isValidViewName(std::string_view name);

}  // namespace zibd::kord
