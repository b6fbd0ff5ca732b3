#include "host/kord/sqlite.h"

#include "host/kord/failure.h"

namespace zibd::kord {

void failSqlite(sqlite3* db, const std::string& doing) {
  fail(Status::kFailed, doing + ": " + (db ? ::sqlite3_errmsg(db) : "out of memory"));
}

Connection::Connection(const std::string& file) {
  sqlite3* db = nullptr;
  // NOMUTEX: every connection is used by one thread at a time (a handle's by
  // contract, the shared one under its mutex), so SQLite's own locking per
  // call would be paid for nothing.
  int rc = ::sqlite3_open_v2(
      file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  db_.reset(db);
  if (rc != SQLITE_OK) {
    fail(Status::kNoDatabase,
         "cannot open database " + file + ": " + (db ? ::sqlite3_errmsg(db) : "out of memory"));
  }
  ::sqlite3_extended_result_codes(db, 1);
}

void Connection::exec(const std::string& sql) {
  if (::sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    failSqlite(db_.get(), sql);
}

Statement::Statement(const Connection& connection, std::string_view sql) {
  sqlite3_stmt* stmt = nullptr;
  int rc = ::sqlite3_prepare_v3(connection.get(), sql.data(), static_cast<int>(sql.size()),
                                SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
  stmt_.reset(stmt);
  if (rc != SQLITE_OK) failSqlite(connection.get(), "prepare " + std::string(sql));
}

Query::~Query() {
  ::sqlite3_reset(stmt_);
  ::sqlite3_clear_bindings(stmt_);
}

Query& Query::bind(int index, std::string_view text) {
  // SQLITE_STATIC: the text outlives the execution (callers keep it alive
  // until the Query is destroyed, which resets the statement).
  if (::sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                          SQLITE_STATIC) != SQLITE_OK)
    failSqlite(::sqlite3_db_handle(stmt_), "bind");
  return *this;
}

Query& Query::bind(int index, std::int64_t value) {
  if (::sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK)
    failSqlite(::sqlite3_db_handle(stmt_), "bind");
  return *this;
}

bool Query::next() {
  int rc = ::sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  failSqlite(::sqlite3_db_handle(stmt_), ::sqlite3_sql(stmt_));
}

void Query::run() {
  while (next()) {
  }
}

std::string_view Query::text(int column) const {
  const auto* p = reinterpret_cast<const char*>(::sqlite3_column_text(stmt_, column));
  int n = ::sqlite3_column_bytes(stmt_, column);
  return p ? std::string_view(p, static_cast<std::size_t>(n)) : std::string_view();
}

}  // namespace zibd::kord
