#include "host/kord/condition.h"

#include <algorithm>

#include "host/kord/failure.h"

namespace zibd::kord {

namespace {

// Keeps SQL joins (one per term) well below SQLite's limit of 64 tables.
constexpr std::size_t kMaxTerms = 32;

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  std::vector<Term> run() {
    // A NUL byte would end the tag name written into the SQL text early (and
    // no C caller can pass one anyway).
    if (std::size_t nul = text_.find('\0'); nul != std::string_view::npos) {
      pos_ = nul;
      error("NUL byte");
    }
    std::vector<Term> terms;
    skipSpaces();
    if (atEnd()) error("empty condition");
    for (;;) {
      terms.push_back(term());
      if (terms.size() > kMaxTerms) error("more than " + std::to_string(kMaxTerms) + " terms");
      std::size_t spaces = skipSpaces();
      if (atEnd()) return terms;
      if (spaces == 0 || !take("and") || skipSpaces() == 0) error("expected \" and \"");
    }
  }

 private:
  Term term() {
    if (!take("@")) error("expected '@' starting a tag name");
    std::size_t end = text_.find('@', pos_);
    if (end == std::string_view::npos) error("tag name without closing '@'");
    if (end == pos_) error("empty tag name");
    Term t{std::string(text_.substr(pos_, end - pos_)), std::nullopt};
    pos_ = end + 1;
    skipSpaces();
    if (take("exists")) {
      if (!atEnd() && text_[pos_] != ' ') error("expected a space after \"exists\"");
      return t;
    }
    if (!take("=")) error("expected \"exists\" or \"=\"");
    skipSpaces();
    if (!take("'")) error("expected a quoted value");
    end = text_.find('\'', pos_);
    if (end == std::string_view::npos) error("value without closing quote");
    t.value = std::string(text_.substr(pos_, end - pos_));
    pos_ = end + 1;
    return t;
  }

  bool atEnd() const { return pos_ >= text_.size(); }

  std::size_t skipSpaces() {
    std::size_t start = pos_;
    while (!atEnd() && text_[pos_] == ' ') ++pos_;
    return pos_ - start;
  }

  bool take(std::string_view token) {
    if (text_.substr(pos_, token.size()) != token) return false;
    pos_ += token.size();
    return true;
  }

  [[noreturn]] void error(const std::string& what) const {
    fail(Status::kBadArgument, "bad condition at offset " + std::to_string(pos_) + ": " + what);
  }

  std::string_view text_;
  std::size_t pos_ = 0;
};

}  // namespace

Condition Condition::parse(std::string_view text) {
  Condition c;
  c.terms_ = Parser(text).run();
  // Value terms first: between terms that look equally selective, one with a
  // value is the better way in.
  std::stable_partition(c.terms_.begin(), c.terms_.end(),
                        [](const Term& t) { return t.value.has_value(); });
  return c;
}

bool Condition::matches(const std::vector<std::pair<std::string, std::string>>& tags) const {
  return std::all_of(terms_.begin(), terms_.end(), [&](const Term& t) {
    return std::any_of(tags.begin(), tags.end(), [&](const auto& tag) {
      return tag.first == t.name && (!t.value || tag.second == *t.value);
    });
  });
}

bool Condition::mentions(std::string_view name) const {
  return std::any_of(terms_.begin(), terms_.end(), [&](const Term& t) { return t.name == name; });
}

Condition Condition::reordered(const std::vector<std::int64_t>& weights) const {
  std::vector<std::size_t> order(terms_.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t a, std::size_t b) { return weights.at(a) < weights.at(b); });
  Condition c;
  for (std::size_t i : order) c.terms_.push_back(terms_[i]);
  return c;
}

std::string Condition::selectSql() const {
  // CROSS JOIN makes SQLite keep this order: without statistics it cannot
  // tell the batch index that selects 100 files from the file type that
  // selects all of them.
  int next = 1;
  std::string from = " FROM tags t0";
  std::string where;
  for (std::size_t i = 0; i < terms_.size(); ++i) {
    std::string t = "t" + std::to_string(i);
    if (i > 0) {
      from += " CROSS JOIN tags " + t;
      where += " AND " + t + ".file = t0.file";
    }
    where += " AND " + t + ".name = " + sqlLiteral(terms_[i].name);
    if (terms_[i].value) where += " AND " + t + ".value = ?" + std::to_string(next++);
  }
  return "SELECT f.id, f.path" + from + " CROSS JOIN files f WHERE f.id = t0.file" + where +
         " ORDER BY f.path";
}

std::string sqlLiteral(std::string_view text) {
  std::string literal = "'";
  for (char c : text) {
    if (c == '\'') literal += '\'';
    literal += c;
  }
  return literal + "'";
}

}  // namespace zibd::kord
