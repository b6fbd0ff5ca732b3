#include "host/rill/path.h"

#include <algorithm>
#include <charconv>

namespace zibd::rill {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isNameChar(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-';
}

// An instance number: decimal, no sign, no leading zero (so that every
// number has exactly one spelling and paths compare as text).
std::optional<uint32_t> parseInstance(std::string_view token) {
  if (token.empty() || !std::all_of(token.begin(), token.end(), isDigit)) return std::nullopt;
  if (token.size() > 1 && token[0] == '0') return std::nullopt;
  uint32_t value = 0;
  auto [end, ec] = std::from_chars(token.data(), token.data() + token.size(), value);
  if (ec != std::errc() || end != token.data() + token.size()) return std::nullopt;
  return value;
}

std::vector<std::string_view> splitDots(std::string_view text) {
  std::vector<std::string_view> tokens;
  size_t start = 0;
  for (;;) {
    size_t dot = text.find('.', start);
    tokens.push_back(text.substr(start, dot == std::string_view::npos ? dot : dot - start));
    if (dot == std::string_view::npos) return tokens;
    start = dot + 1;
  }
}

std::optional<Path> parse(std::string_view text, bool allow_wildcard) {
  if (text.empty() || text.size() > kMaxPathLength) return std::nullopt;
  Path path;
  for (std::string_view token : splitDots(text)) {
    if (token == "*") {
      if (!allow_wildcard) return std::nullopt;
      if (path.size() == kMaxSegments) return std::nullopt;
      path.push_back(Segment{{}, std::nullopt, true});
    } else if (isName(token)) {
      if (path.size() == kMaxSegments) return std::nullopt;
      path.push_back(Segment{std::string(token), std::nullopt, false});
    } else if (auto number = parseInstance(token)) {
      // A number belongs to the name right before it.
      if (path.empty() || path.back().wildcard || path.back().instance) return std::nullopt;
      path.back().instance = number;
    } else {
      return std::nullopt;
    }
  }
  return path;
}

bool segmentMatches(const Segment& pattern, const Segment& object) {
  if (pattern.wildcard) return true;
  if (pattern.name != object.name) return false;
  return !pattern.instance || pattern.instance == object.instance;
}

}  // namespace

bool isName(std::string_view token) {
  if (token.empty() || token.size() > kMaxPathLength) return false;
  if (isDigit(token[0]) || token[0] == '-') return false;
  return std::all_of(token.begin(), token.end(), isNameChar);
}

std::optional<Path> parsePattern(std::string_view text) { return parse(text, true); }

std::optional<Path> parseObjectPath(std::string_view text) { return parse(text, false); }

std::optional<ParamPath> parseParamPath(std::string_view text) {
  size_t dot = text.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  std::string_view name = text.substr(dot + 1);
  if (!isName(name)) return std::nullopt;
  auto object = parseObjectPath(text.substr(0, dot));
  if (!object) return std::nullopt;
  return ParamPath{std::move(*object), std::string(name)};
}

std::string format(const Path& path) {
  std::string text;
  for (const Segment& segment : path) {
    if (!text.empty()) text += '.';
    if (segment.wildcard) {
      text += '*';
      continue;
    }
    text += segment.name;
    if (segment.instance) {
      text += '.';
      text += std::to_string(*segment.instance);
    }
  }
  return text;
}

bool matches(const Path& pattern, const Path& object) {
  return pattern.size() == object.size() && matchesAtOrBelow(pattern, object);
}

bool matchesAtOrBelow(const Path& pattern, const Path& object) {
  if (pattern.size() > object.size()) return false;
  for (size_t i = 0; i < pattern.size(); ++i)
    if (!segmentMatches(pattern[i], object[i])) return false;
  return true;
}

bool namesOneInstance(const Path& pattern) {
  if (pattern.empty() || !pattern.back().instance) return false;
  return std::none_of(pattern.begin(), pattern.end(), [](const Segment& s) { return s.wildcard; });
}

bool isBelow(const Path& ancestor, const Path& descendant) {
  return descendant.size() > ancestor.size() &&
         std::equal(ancestor.begin(), ancestor.end(), descendant.begin());
}

}  // namespace zibd::rill
