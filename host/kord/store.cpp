#include "host/kord/store.h"

#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>

#include "host/kord/failure.h"
#include "host/kord/paths.h"
#include "host/kord/view_dir.h"

namespace zibd::kord {

namespace {

// How long a writer waits for another connection's write lock. The daemon's
// writers hold it for one file's tags at a time.
constexpr int kBusyTimeoutMs = 10000;
constexpr int kCacheKiB = 512;
constexpr std::size_t kMaxViewName = 255;  // NAME_MAX: the name is a directory entry
// How far the rows of one condition term are counted to find the most
// selective term; a view holds at most 100 files.
constexpr std::int64_t kProbeLimit = 1000;
// How often a committing process checks that the creators of the views it
// keeps up to date still run (seconds).
constexpr std::int64_t kCreatorCheckInterval = 1;

// The statements of a Store, prepared once per connection.
enum Sql : int {
  kBegin,
  kCommit,
  kSavepoint,
  kRelease,
  kRollbackTo,
  kFindFile,
  kInsertFile,
  kGetTag,
  kSetTag,
  kDeleteTag,
  kSetTagBelow,
  kTagsOf,
  kPathOf,
  kIdsBelow,
  kFilesBelow,
  kFilesFrom,
  kFilesAfter,
  kDeleteTagsBelow,
  kDeleteFilesBelow,
  kDeleteFile,
  kDeleteTagsOf,
  kRenameFile,
  kViews,
  kViewInsert,
  kViewGet,
  kViewSetCondition,
  kViewDelete,
  kViewCreators,
  kCountValues,
  kIndexedTag,
  kAddIndexedTag,
  kSqlCount
};

// Indexed by Sql. A subtree is "path = ?e OR (path >= ?lo AND path < ?hi)"
// (see Subtree). A tag name is compared as "name = CAST(? AS TEXT)", never
// with a bare parameter: SQLite checks whether the bound value selects one of
// the partial indexes (WHERE name = '...') and then prepares the statement
// anew on every bind, which would cost each gettag a parse.
constexpr const char* kSqlText[] = {
    "BEGIN IMMEDIATE",
    "COMMIT",
    "SAVEPOINT grouped",
    "RELEASE grouped",
    "ROLLBACK TO grouped",
    "SELECT id FROM files WHERE path = ?1",
    "INSERT INTO files(path) VALUES(?1) ON CONFLICT(path) DO NOTHING",
    "SELECT t.value FROM files f LEFT JOIN tags t ON t.file = f.id AND t.name = CAST(?2 AS TEXT)"
    " WHERE f.path = ?1",
    "INSERT INTO tags(file, name, value) VALUES(?1, ?2, ?3)"
    " ON CONFLICT(file, name) DO UPDATE SET value = excluded.value",
    "DELETE FROM tags WHERE file = ?1 AND name = CAST(?2 AS TEXT)",
    "INSERT INTO tags(file, name, value) SELECT id, ?1, ?2 FROM files WHERE path >= ?3 AND path < "
    "?4"
    " ON CONFLICT(file, name) DO UPDATE SET value = excluded.value",
    "SELECT name, value FROM tags WHERE file = ?1 ORDER BY name",
    "SELECT path FROM files WHERE id = ?1",
    "SELECT id FROM files WHERE path >= ?1 AND path < ?2",
    "SELECT id, path FROM files WHERE path = ?1 OR (path >= ?2 AND path < ?3) ORDER BY path",
    "SELECT id, path FROM files WHERE path >= ?1 AND path < ?2 ORDER BY path LIMIT ?3",
    "SELECT id, path FROM files WHERE path > ?1 AND path < ?2 ORDER BY path LIMIT ?3",
    "DELETE FROM tags WHERE file IN"
    " (SELECT id FROM files WHERE path = ?1 OR (path >= ?2 AND path < ?3))",
    "DELETE FROM files WHERE path = ?1 OR (path >= ?2 AND path < ?3)",
    "DELETE FROM files WHERE id = ?1 AND path = ?2",
    "DELETE FROM tags WHERE file = ?1",
    "UPDATE files SET path = ?2 WHERE id = ?1",
    "SELECT name, condition, dir, creator_pid, creator_boot FROM views"
    " WHERE condition IS NOT NULL",
    "INSERT INTO views(name, condition, dir, creator_pid, creator_boot) VALUES(?1, NULL, ?2, ?3, ?4)"
    " ON CONFLICT(name) DO UPDATE SET creator_pid = excluded.creator_pid,"
    " creator_boot = excluded.creator_boot",
    "SELECT condition, dir FROM views WHERE name = ?1",
    "UPDATE views SET condition = ?2 WHERE name = ?1",
    "DELETE FROM views WHERE name = ?1",
    "SELECT name, dir, creator_pid, creator_boot FROM views WHERE creator_pid IS NOT NULL",
    "SELECT value, count(*) FROM tags WHERE name = CAST(?1 AS TEXT) GROUP BY value ORDER BY value",
    "SELECT id FROM indexed_tags WHERE name = ?1",
    "INSERT INTO indexed_tags(name) VALUES(?1)",
};
static_assert(std::size(kSqlText) == kSqlCount);

// The daemon names a partition without a database the first time it picks
// it: make the directory that will hold the file (one level only, never the
// mount point above it).
const std::string& withParentDirectory(const std::string& database) {
  std::string dir = database.substr(0, database.rfind('/'));
  if (!dir.empty()) ::mkdir(dir.c_str(), 0755);  // failures show when SQLite opens the file
  return database;
}

Query& bindSubtree(Query& q, const Subtree& s) {
  return q.bind(1, s.exact).bind(2, s.low).bind(3, s.high);
}

}  // namespace

namespace {

// This boot of the system, as a number (0 when unknown). Read from the kernel
// and not from /proc/PID: an emulator (qemu-user) answers its own guest's
// /proc/self questions with invented start times.
std::int64_t readBootId() {
  std::FILE* file = std::fopen("/proc/sys/kernel/random/boot_id", "re");
  if (!file) return 0;
  char text[64] = {};
  const bool read = std::fgets(text, sizeof text, file) != nullptr;
  std::fclose(file);
  if (!read) return 0;
  std::uint64_t id = 0;
  int digits = 0;
  for (const char* p = text; *p && digits < 15; ++p) {
    const char c = *p;
    int value;
    if (c >= '0' && c <= '9') value = c - '0';
    else if (c >= 'a' && c <= 'f') value = c - 'a' + 10;
    else continue;
    id = id * 16 + static_cast<std::uint64_t>(value);
    ++digits;
  }
  return static_cast<std::int64_t>(id);  // 60 bits: always positive
}

std::int64_t bootId() {
  static const std::int64_t id = readBootId();
  return id;
}

}  // namespace

std::pair<std::int64_t, std::int64_t> processIdentity() { return {::getpid(), bootId()}; }

bool processAlive(std::int64_t pid, std::int64_t boot) {
  if (pid <= 0 || pid > INT32_MAX) return true;  // not ours to judge
  // Every process of an earlier boot is gone, whatever has its number now.
  if (boot != 0 && bootId() != 0 && boot != bootId()) return false;
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

bool isValidViewName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxViewName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos;
}

Store::Store(std::shared_ptr<const Location> location)
    : location_(std::move(location)), connection_(withParentDirectory(location_->database)) {
  ::sqlite3_busy_timeout(connection_.get(), kBusyTimeoutMs);
  // WAL with synchronous=NORMAL: a commit is durable against a crash of the
  // process (it reached the kernel) without a disk flush per commit.
  {
    Statement wal(connection_, "PRAGMA journal_mode=WAL");
    Query(wal).run();
  }
  connection_.exec("PRAGMA synchronous=NORMAL");
  // A small page cache per connection: the gateway has little memory, and
  // the writes go in path order, touching few pages at a time.
  connection_.exec("PRAGMA cache_size=-" + std::to_string(kCacheKiB));
  std::int64_t version;
  {
    Statement pragma(connection_, "PRAGMA user_version");
    Query q(pragma);
    version = q.next() ? q.integer(0) : 0;
  }
  if (version > kSchemaVersion) {
    fail(Status::kNoDatabase, location_->database + " has schema version " +
                                  std::to_string(version) + ", newer than this library's");
  }
  if (version < kSchemaVersion) {
    connection_.exec("BEGIN IMMEDIATE");
    try {
      // Version 1 had views without their creator; they are kept, unjudged.
      if (version == 1) {
        connection_.exec(
            "ALTER TABLE views ADD COLUMN creator_pid INTEGER;"
            "ALTER TABLE views ADD COLUMN creator_boot INTEGER;");
      }
      connection_.exec(kSchemaSql);
      connection_.exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
      connection_.exec("COMMIT");
    } catch (...) {
      ::sqlite3_exec(connection_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
      throw;
    }
  }
}

Store::~Store() { rollback(); }

const Statement& Store::statement(int id) {
  static_assert(kSqlCount <= std::tuple_size_v<decltype(statements_)>);
  auto& slot = statements_[static_cast<std::size_t>(id)];
  if (!slot) slot = std::make_unique<Statement>(connection_, kSqlText[id]);
  return *slot;
}

// --- reads ---

bool Store::getTag(std::string_view path, std::string_view name, std::string* value) {
  Query q(statement(kGetTag));
  q.bind(1, path).bind(2, name);
  if (!q.next()) {
    // The scanner's question for a new file; its tags follow at once.
    unknown_path_.assign(path);
    return false;
  }
  if (q.isNull(0)) return false;
  value->assign(q.text(0));
  return true;
}

std::int64_t Store::findFile(std::string_view path) {
  Query q(statement(kFindFile));
  q.bind(1, path);
  return q.next() ? q.integer(0) : 0;
}

TagList Store::tagsOf(std::int64_t file) {
  TagList tags;
  Query q(statement(kTagsOf));
  q.bind(1, file);
  while (q.next()) tags.emplace_back(q.text(0), q.text(1));
  return tags;
}

FileList Store::filesBelow(std::string_view path) {
  Subtree s(path);
  FileList files;
  Query q(statement(kFilesBelow));
  bindSubtree(q, s);
  while (q.next()) files.emplace_back(q.integer(0), q.text(1));
  return files;
}

std::vector<std::string> Store::pathsBelow(std::string_view path) {
  std::vector<std::string> paths;
  for (auto& file : filesBelow(path)) paths.push_back(std::move(file.second));
  return paths;
}

FileList Store::filesMatching(const Condition& unordered) {
  // Counts the rows of each indexed term up to kProbeLimit, to start from the
  // rarest; a term without an index goes last (counting it would scan).
  std::vector<std::int64_t> rows;
  for (const Term& term : unordered.terms()) {
    if (!isIndexed(term.name)) {
      rows.push_back(kProbeLimit + 1);
      continue;
    }
    std::string sql =
        "SELECT count(*) FROM (SELECT 1 FROM tags WHERE name = " + sqlLiteral(term.name) +
        (term.value ? " AND value = ?1" : "") + " LIMIT " + std::to_string(kProbeLimit) + ")";
    Statement probe_statement(connection_, sql);
    Query probe(probe_statement);
    if (term.value) probe.bind(1, *term.value);
    rows.push_back(probe.next() ? probe.integer(0) : 0);
  }
  Condition condition = unordered.reordered(rows);
  Statement select(connection_, condition.selectSql());
  Query q(select);
  int index = 1;
  for (const Term& term : condition.terms()) {
    if (term.value) q.bind(index++, *term.value);
  }
  FileList files;
  while (q.next()) files.emplace_back(q.integer(0), q.text(1));
  return files;
}

std::vector<std::string> Store::pathsMatching(const Condition& condition) {
  std::vector<std::string> paths;
  for (auto& file : filesMatching(condition)) paths.push_back(std::move(file.second));
  return paths;
}

FileList Store::filesBelowAfter(std::string_view path, std::string_view after, std::int64_t limit) {
  Subtree s(path);
  FileList files;
  // The path itself sorts before everything below it, but outside the range
  // (except for "/", whose range holds it).
  if (after.empty() && s.exact < s.low) {
    if (std::int64_t id = findFile(s.exact)) files.emplace_back(id, s.exact);
  }
  bool from_start = after < s.low;
  Query q(statement(from_start ? kFilesFrom : kFilesAfter));
  q.bind(1, from_start ? std::string_view(s.low) : after)
      .bind(2, s.high)
      .bind(3, limit - static_cast<std::int64_t>(files.size()));
  while (q.next()) files.emplace_back(q.integer(0), q.text(1));
  return files;
}

std::int64_t Store::count(const std::string& sql) {
  Statement select(connection_, sql);
  Query q(select);
  return q.next() ? q.integer(0) : 0;
}

std::vector<std::pair<std::string, std::uint64_t>> Store::countValues(std::string_view name) {
  std::vector<std::pair<std::string, std::uint64_t>> counts;
  Query q(statement(kCountValues));
  q.bind(1, name);
  while (q.next()) counts.emplace_back(q.text(0), static_cast<std::uint64_t>(q.integer(1)));
  return counts;
}

// --- handle transaction ---

void Store::begin() {
  if (in_transaction_) {
    if (!::sqlite3_get_autocommit(connection_.get())) {
      if (group_commits_ > 0 && !savepoint_) {
        Query(statement(kSavepoint)).run();
        savepoint_ = true;
      }
      return;
    }
    // SQLite rolled the transaction back after an error (disk full, I/O).
    clearTransaction();
    fail(Status::kFailed, "earlier uncommitted changes were lost after an error");
  }
  Query(statement(kBegin)).run();
  in_transaction_ = true;
}

void Store::clearTransaction() noexcept {
  in_transaction_ = false;
  cached_path_.clear();
  cached_id_ = 0;
  touched_files_.clear();
  touched_below_.clear();
  changed_names_.clear();
  group_commits_ = 0;
  savepoint_ = false;
  changes_after_group_.clear();
}

void Store::commitTransaction() {
  Query(statement(kCommit)).run();
  clearTransaction();
}

void Store::rollback() noexcept {
  if (!in_transaction_) return;
  ::sqlite3_exec(connection_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  clearTransaction();
}

std::int64_t Store::fileForWrite(std::string_view path) {
  begin();
  if (cached_id_ != 0 && path == cached_path_) return cached_id_;
  // A path that getTag found unknown is most likely still unknown: insert
  // first and look it up only when someone else inserted it meanwhile.
  std::int64_t id = 0;
  if (path == unknown_path_) {
    Query(statement(kInsertFile)).bind(1, path).run();
    if (::sqlite3_changes(connection_.get()) > 0)
      id = ::sqlite3_last_insert_rowid(connection_.get());
  }
  if (id == 0) id = findFile(path);
  if (id == 0) {
    Query(statement(kInsertFile)).bind(1, path).run();
    id = ::sqlite3_last_insert_rowid(connection_.get());
  }
  cached_path_.assign(path);
  cached_id_ = id;
  return id;
}

void Store::noteChange(std::int64_t file, std::string_view name) {
  if (touched_files_.empty() || touched_files_.back() != file) touched_files_.push_back(file);
  if (std::find(changed_names_.begin(), changed_names_.end(), name) == changed_names_.end())
    changed_names_.emplace_back(name);
}

void Store::writeTag(std::string_view path, std::string_view name, std::string_view value) {
  std::int64_t id = fileForWrite(path);
  Query(statement(kSetTag)).bind(1, id).bind(2, name).bind(3, value).run();
  noteChange(id, name);
}

void Store::setTag(std::string_view path, std::string_view name, std::string_view value) {
  writeTag(path, name, value);
  noteForGroup(Change::kSet, path, name, value);
}

bool Store::deleteTag(std::string_view path, std::string_view name) {
  begin();
  std::int64_t id = cached_id_ != 0 && path == cached_path_ ? cached_id_ : findFile(path);
  if (id == 0) return false;
  Query(statement(kDeleteTag)).bind(1, id).bind(2, name).run();
  if (::sqlite3_changes(connection_.get()) == 0) return false;
  noteChange(id, name);
  noteForGroup(Change::kDelete, path, name, {});
  return true;
}

void Store::setTagBelow(std::string_view path, std::string_view name, std::string_view value) {
  writeTag(path, name, value);
  Subtree s(path);
  Query(statement(kSetTagBelow)).bind(1, name).bind(2, value).bind(3, s.low).bind(4, s.high).run();
  touched_below_.emplace_back(path);
  noteForGroup(Change::kSetBelow, path, name, value);
}

bool Store::commit(bool may_group) {
  if (!in_transaction_) return false;
  try {
    if (::sqlite3_get_autocommit(connection_.get()))
      fail(Status::kFailed, group_commits_ > 0
                                ? "grouped commits and later changes were lost after an error"
                                : "uncommitted changes were lost after an error");
    if (changedSinceCommit()) {
      updateViews();
      if (savepoint_) {
        Query(statement(kRelease)).run();
        savepoint_ = false;
        changes_after_group_.clear();
      }
      touched_files_.clear();
      touched_below_.clear();
      changed_names_.clear();
      ++group_commits_;
    }
    if (may_group) return true;
    commitTransaction();
    return false;
  } catch (...) {
    rollback();
    throw;
  }
}

void Store::flushGroup(bool keep_changes) {
  if (!in_transaction_) return;
  if (group_commits_ == 0) {
    if (!keep_changes) rollback();
    return;
  }
  std::vector<Change> changes;
  try {
    if (::sqlite3_get_autocommit(connection_.get()))
      fail(Status::kFailed, "grouped commits were lost after an error");
    if (savepoint_) {
      // The half-made changes after the group's last commit are not the
      // group's.
      Query(statement(kRollbackTo)).run();
      Query(statement(kRelease)).run();
      savepoint_ = false;
      changes = std::move(changes_after_group_);
    }
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
  if (!keep_changes) return;
  for (const Change& c : changes) {
    switch (c.kind) {
      case Change::kSet:
        writeTag(c.path, c.name, c.value);
        break;
      case Change::kDelete:
        (void)deleteTag(c.path, c.name);
        break;
      case Change::kSetBelow:
        setTagBelow(c.path, c.name, c.value);
        break;
    }
  }
}

void Store::noteForGroup(Change::Kind kind, std::string_view path, std::string_view name,
                         std::string_view value) {
  if (savepoint_)
    changes_after_group_.push_back(
        {kind, std::string(path), std::string(name), std::string(value)});
}

const std::vector<Store::View>& Store::loadViews() {
  std::vector<View> views;
  Query q(statement(kViews));
  while (q.next()) {
    View v{std::string(q.text(0)), std::string(q.text(2)), std::string(q.text(1)), {},
           q.isNull(3) ? 0 : q.integer(3), q.isNull(4) ? 0 : q.integer(4)};
    auto cached = std::find_if(views_.begin(), views_.end(), [&](const View& c) {
      return c.name == v.name && c.text == v.text && c.dir == v.dir;
    });
    if (cached != views_.end()) {
      v.condition = cached->condition;
    } else {
      try {
        v.condition = Condition::parse(v.text);
      } catch (const Failure&) {
        continue;  // not ours to judge here; setViewCondition refuses such text
      }
    }
    views.push_back(std::move(v));
  }
  views_ = std::move(views);
  return views_;
}

void Store::dropOrphanViews(bool now) {
  struct timespec ts {};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  const std::int64_t seconds = static_cast<std::int64_t>(ts.tv_sec);
  if (!now && seconds - last_orphan_check_ < kCreatorCheckInterval) return;
  last_orphan_check_ = seconds;
  std::vector<std::pair<std::string, std::string>> orphans;  // name, directory
  {
    Query q(statement(kViewCreators));
    while (q.next()) {
      if (!processAlive(q.integer(2), q.isNull(3) ? 0 : q.integer(3)))
        orphans.emplace_back(q.text(0), q.text(1));
    }
  }
  for (const auto& [name, dir] : orphans) {
    Query(statement(kViewDelete)).bind(1, name).run();
    // A directory that cannot go (someone put a file in it) is left, as
    // kord_view_delete would; the record is gone all the same.
    try {
      removeViewDirectory(dir);
    } catch (const Failure&) {
    }
  }
}

void Store::updateViews() {
  if (changed_names_.empty()) return;
  dropOrphanViews(false);
  std::vector<const View*> affected;
  for (const View& v : loadViews()) {
    if (std::any_of(changed_names_.begin(), changed_names_.end(),
                    [&](const std::string& name) { return v.condition.mentions(name); }))
      affected.push_back(&v);
  }
  if (affected.empty()) return;
  std::vector<std::int64_t> ids = touched_files_;
  for (const std::string& path : touched_below_) {
    Subtree s(path);
    Query q(statement(kIdsBelow));
    q.bind(1, s.low).bind(2, s.high);
    while (q.next()) ids.push_back(q.integer(0));
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  for (std::int64_t id : ids) {
    std::string path;
    {
      Query q(statement(kPathOf));
      q.bind(1, id);
      if (!q.next()) continue;
      path.assign(q.text(0));
    }
    TagList tags = tagsOf(id);
    std::string name = linkName(id, path);
    // Link failures do not undo the tag change; the directory is set right
    // again when its path is next asked for.
    for (const View* v : affected) {
      if (v->condition.matches(tags))
        ensureLink(v->dir, name, path);
      else
        removeLink(v->dir, name);
    }
  }
}

// --- whole operations ---

void Store::unlinkBelow(std::string_view path, const std::vector<View>& views) {
  if (views.empty()) return;
  for (const auto& [id, file] : filesBelow(path)) {
    TagList tags = tagsOf(id);
    for (const View& v : views) {
      if (v.condition.matches(tags)) removeLink(v.dir, linkName(id, file));
    }
  }
}

void Store::deleteBelow(std::string_view path, const std::vector<View>& views) {
  unlinkBelow(path, views);
  Subtree s(path);
  {
    Query q(statement(kDeleteTagsBelow));
    bindSubtree(q, s).run();
  }
  Query q(statement(kDeleteFilesBelow));
  bindSubtree(q, s).run();
}

void Store::move(std::string_view from, std::string_view to) {
  if (from == to) return;
  if (isBelow(to, from) || isBelow(from, to))
    fail(Status::kBadArgument, "cannot move " + std::string(from) + " to " + std::string(to));
  begin();
  try {
    std::vector<View> views = loadViews();
    // Like rename(2): whatever was known at the destination is replaced.
    deleteBelow(to, views);
    for (const auto& [id, old_path] : filesBelow(from)) {
      std::string new_path = std::string(to) + old_path.substr(from.size());
      if (!views.empty()) {
        TagList tags = tagsOf(id);
        for (const View& v : views) {
          if (!v.condition.matches(tags)) continue;
          removeLink(v.dir, linkName(id, old_path));
          ensureLink(v.dir, linkName(id, new_path), new_path);
        }
      }
      Query(statement(kRenameFile)).bind(1, id).bind(2, new_path).run();
    }
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
}

void Store::remove(std::string_view path) {
  begin();
  try {
    deleteBelow(path, loadViews());
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
}

void Store::dropFiles(const FileList& files) {
  if (files.empty()) return;
  begin();
  try {
    std::vector<View> views = loadViews();
    for (const auto& [id, path] : files) {
      TagList tags = views.empty() ? TagList() : tagsOf(id);
      Query(statement(kDeleteFile)).bind(1, id).bind(2, path).run();
      if (::sqlite3_changes(connection_.get()) == 0) continue;
      Query(statement(kDeleteTagsOf)).bind(1, id).run();
      for (const View& v : views) {
        if (v.condition.matches(tags)) removeLink(v.dir, linkName(id, path));
      }
    }
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
}

std::string Store::reconcileView(std::string_view name) {
  std::optional<std::string> text;
  std::string dir;
  {
    Query q(statement(kViewGet));
    q.bind(1, name);
    if (!q.next()) fail(Status::kNotFound, "no view named " + std::string(name));
    if (!q.isNull(0)) text = q.text(0);
    dir = q.text(1);
  }
  std::map<std::string, std::string> wanted;
  if (text) {
    for (auto& [id, path] : filesMatching(Condition::parse(*text)))
      wanted.emplace(linkName(id, path), std::move(path));
  }
  reconcileDirectory(dir, wanted);
  return dir;
}

void Store::createView(std::string_view name) {
  if (!isValidViewName(name)) fail(Status::kBadArgument, "bad view name");
  std::string dir = location_->views_root + '/' + std::string(name);
  const auto [pid, start] = processIdentity();
  begin();
  try {
    dropOrphanViews(true);
    // An existing view of that name (say, left by a process that died) is
    // taken over as it is, and belongs to this process from now on.
    Query(statement(kViewInsert)).bind(1, name).bind(2, dir).bind(3, pid).bind(4, start).run();
    reconcileView(name);
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
}

bool Store::isIndexed(std::string_view tag) {
  Query q(statement(kIndexedTag));
  q.bind(1, tag);
  return q.next();
}

void Store::ensureIndexed(std::string_view tag) {
  if (isIndexed(tag)) return;
  Query(statement(kAddIndexedTag)).bind(1, tag).run();
  std::int64_t id = ::sqlite3_last_insert_rowid(connection_.get());
  connection_.exec("CREATE INDEX IF NOT EXISTS tags_value_" + std::to_string(id) +
                   " ON tags(value) WHERE name = " + sqlLiteral(tag));
}

void Store::setViewCondition(std::string_view name, std::string_view condition) {
  Condition parsed = Condition::parse(condition);  // refuse bad text before touching anything
  begin();
  try {
    // Only values are worth an index: a view starts from its rarest value
    // term and checks the others file by file.
    for (const Term& term : parsed.terms()) {
      if (term.value) ensureIndexed(term.name);
    }
    Query(statement(kViewSetCondition)).bind(1, name).bind(2, condition).run();
    if (::sqlite3_changes(connection_.get()) == 0)
      fail(Status::kNotFound, "no view named " + std::string(name));
    reconcileView(name);
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
}

std::string Store::viewDirectory(std::string_view name) {
  begin();
  try {
    std::string dir = reconcileView(name);
    commitTransaction();
    return dir;
  } catch (...) {
    rollback();
    throw;
  }
}

void Store::deleteView(std::string_view name) {
  std::string dir;
  begin();
  try {
    {
      Query q(statement(kViewGet));
      q.bind(1, name);
      if (!q.next()) fail(Status::kNotFound, "no view named " + std::string(name));
      dir = q.text(1);
    }
    Query(statement(kViewDelete)).bind(1, name).run();
    commitTransaction();
  } catch (...) {
    rollback();
    throw;
  }
  // No committer touches the directory of a view that is gone.
  removeViewDirectory(dir);
}

}  // namespace zibd::kord
