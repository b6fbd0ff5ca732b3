// View conditions: one that parses is one SQL statement, one parameter per
// value, selecting a file exactly when the condition matches it, in any order.
#include <sqlite3.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/check.h"
#include "host/kord/condition.h"
#include "host/kord/failure.h"
#include "host/kord/store.h"

namespace kord = zibd::kord;

namespace {

sqlite3* database() {
  static sqlite3* db = [] {
    sqlite3* opened = nullptr;
    FUZZ_CHECK(::sqlite3_open(":memory:", &opened) == SQLITE_OK);
    FUZZ_CHECK(::sqlite3_exec(opened, kord::kSchemaSql, nullptr, nullptr, nullptr) == SQLITE_OK);
    FUZZ_CHECK(::sqlite3_exec(opened, "INSERT INTO files(id, path) VALUES (1, '/f')", nullptr, nullptr,
                              nullptr) == SQLITE_OK);
    return opened;
  }();
  return db;
}

struct Finalizer {
  void operator()(sqlite3_stmt* s) const { ::sqlite3_finalize(s); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, Finalizer>;

Stmt prepare(const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  const int rc = ::sqlite3_prepare_v2(database(), sql.data(), static_cast<int>(sql.size()), &stmt, &tail);
  if (rc != SQLITE_OK) ::fprintf(stderr, "%s\n%s\n", sql.c_str(), ::sqlite3_errmsg(database()));
  FUZZ_CHECK(rc == SQLITE_OK && stmt != nullptr);
  FUZZ_CHECK(tail == sql.data() + sql.size());  // one statement, all of the text
  return Stmt(stmt);
}

// Whether the condition's statement selects file 1.
bool selects(const kord::Condition& condition) {
  Stmt stmt = prepare(condition.selectSql());
  int values = 0;
  for (const kord::Term& term : condition.terms()) {
    if (!term.value) continue;
    ++values;
    FUZZ_CHECK(::sqlite3_bind_text(stmt.get(), values, term.value->data(), static_cast<int>(term.value->size()),
                                   SQLITE_STATIC) == SQLITE_OK);
  }
  FUZZ_CHECK(::sqlite3_bind_parameter_count(stmt.get()) == values);
  const int rc = ::sqlite3_step(stmt.get());
  FUZZ_CHECK(rc == SQLITE_ROW || rc == SQLITE_DONE);
  if (rc == SQLITE_ROW) FUZZ_CHECK(::sqlite3_column_int64(stmt.get(), 0) == 1);
  return rc == SQLITE_ROW;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::optional<kord::Condition> condition;
  try {
    condition = kord::Condition::parse(text);
  } catch (const kord::Failure& failure) {
    FUZZ_CHECK(failure.status() == kord::Status::kBadArgument);
    FUZZ_CHECK(std::string_view(failure.what()).substr(0, 24) == "bad condition at offset ");
    return 0;
  }
  FUZZ_CHECK(!condition->terms().empty());

  // File 1 gets each tag once, with the first value asked for.
  std::vector<std::pair<std::string, std::string>> tags;
  for (const kord::Term& term : condition->terms()) {
    bool known = false;
    for (const auto& tag : tags) known = known || tag.first == term.name;
    if (!known) tags.emplace_back(term.name, term.value.value_or("any"));
  }
  FUZZ_CHECK(::sqlite3_exec(database(), "DELETE FROM tags", nullptr, nullptr, nullptr) == SQLITE_OK);
  Stmt insert = prepare("INSERT INTO tags(file, name, value) VALUES (1, ?1, ?2)");
  for (const auto& [name, value] : tags) {
    ::sqlite3_bind_text(insert.get(), 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    ::sqlite3_bind_text(insert.get(), 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    FUZZ_CHECK(::sqlite3_step(insert.get()) == SQLITE_DONE);
    ::sqlite3_reset(insert.get());
  }

  const bool expected = condition->matches(tags);
  FUZZ_CHECK(selects(*condition) == expected);
  std::vector<std::int64_t> backwards;
  for (size_t i = condition->terms().size(); i > 0; --i) backwards.push_back(static_cast<std::int64_t>(i));
  FUZZ_CHECK(selects(condition->reordered(backwards)) == expected);
  // A file without those tags is never selected.
  FUZZ_CHECK(::sqlite3_exec(database(), "DELETE FROM tags", nullptr, nullptr, nullptr) == SQLITE_OK);
  FUZZ_CHECK(!selects(*condition));
  return 0;
}
