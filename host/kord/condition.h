// View conditions: terms "@TAG@ exists" and "@TAG@='VALUE'" joined by "and".
// Spaces around the tokens are optional, except that "and" stands between
// spaces; values cannot contain "'" and names cannot contain "@".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zibd::kord {

struct Term {
  std::string name;
  std::optional<std::string> value;  // none: the tag only has to exist
};

class Condition {
 public:
  // Throws Failure(kBadArgument) naming the offending position.
  static Condition parse(std::string_view text);

  const std::vector<Term>& terms() const { return terms_; }

  // Whether a file with these tags (name, value; any order) satisfies it.
  bool matches(const std::vector<std::pair<std::string, std::string>>& tags) const;

  // Whether a change of the tag `name` can change the outcome.
  bool mentions(std::string_view name) const;

  // The same condition with its terms in the order of `weights` (one per
  // term, smallest first; equal weights keep their order).
  Condition reordered(const std::vector<std::int64_t>& weights) const;

  // A SELECT of (id, path) of the matching files ordered by path, which walks
  // the terms in terms() order: the first drives, the others are probed per
  // file. Tag names are written into the text (so that SQLite can use the
  // per-name indexes); the values are parameters ?1, ?2... in terms() order.
  std::string selectSql() const;

 private:
  std::vector<Term> terms_;
};

// text as an SQL string literal.
std::string sqlLiteral(std::string_view text);

}  // namespace zibd::kord
