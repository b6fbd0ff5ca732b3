// Thin RAII over the SQLite C API. Errors throw Failure(kFailed) carrying
// SQLite's message; nothing here is shared between threads by itself.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zibd::kord {

[[noreturn]] void failSqlite(sqlite3* db, const std::string& doing);

class Connection {
 public:
  // Opens (creating when missing) the database file; throws
  // Failure(kNoDatabase) when it cannot be opened.
  explicit Connection(const std::string& file);

  sqlite3* get() const { return db_.get(); }
  // Runs SQL that returns no rows we need (pragmas, DDL).
  void exec(const std::string& sql);

 private:
  struct Closer {
    void operator()(sqlite3* db) const { ::sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Closer> db_;
};

// A prepared statement, kept for the life of its connection and reused.
class Statement {
 public:
  Statement(const Connection& connection, std::string_view sql);
  sqlite3_stmt* get() const { return stmt_.get(); }

 private:
  struct Finalizer {
    void operator()(sqlite3_stmt* s) const { ::sqlite3_finalize(s); }
  };
  std::unique_ptr<sqlite3_stmt, Finalizer> stmt_;
};

// One execution of a Statement. The statement is reset when the Query goes
// out of scope, so that no read snapshot outlives the call that made it.
class Query {
 public:
  explicit Query(const Statement& statement) : stmt_(statement.get()) {}
  ~Query();
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& bind(int index, std::string_view text);
  Query& bind(int index, std::int64_t value);
  // Steps once: true when a row is available.
  bool next();
  // Steps to the end, ignoring rows.
  void run();

  std::int64_t integer(int column) const { return ::sqlite3_column_int64(stmt_, column); }
  std::string_view text(int column) const;
  bool isNull(int column) const { return ::sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

 private:
  sqlite3_stmt* stmt_;
};

}  // namespace zibd::kord
