// Object paths of the host configuration bus.
//
// A path is a dotted list of object names, each optionally followed by its
// instance number: "Storage.Disk.1.Partition.2" is two names with instances
// below "Storage". A name without a number stands for every instance of that
// object class (and for an object that has no instance number at all); "*"
// stands for any one name with its instance number. Object paths that name a
// real object never contain "*".
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zibd::rill {

// Longest path or parameter name accepted anywhere (broker, library, tool).
inline constexpr size_t kMaxPathLength = 1024;
// Most segments (names, each with its number if any) in a path, not counting
// the parameter name of a parameter path. Every object
// above an object exists too, keyed by its own path, so what an object costs
// grows with the square of its depth: unbounded, one 1 KiB path of 500
// segments would cost the broker megabytes.
inline constexpr size_t kMaxSegments = 32;

struct Segment {
  std::string name;                 // empty for a wildcard
  std::optional<uint32_t> instance;  // none: an object without number, or a whole class
  bool wildcard = false;             // "*"

  friend bool operator==(const Segment&, const Segment&) = default;
  // Objects sort by name, then an instance-less object before its numbered
  // instances, which sort numerically.
  friend bool operator<(const Segment& a, const Segment& b) {
    if (a.name != b.name) return a.name < b.name;
    return a.instance < b.instance;
  }
};

using Path = std::vector<Segment>;

// A parameter named with its object: "Storage.Disk.1.CapacityInMBytes".
struct ParamPath {
  Path object;
  std::string param;
};

// True for a valid object or parameter name: letters, digits, "_" and "-",
// not starting with a digit or "-".
bool isName(std::string_view token);

// Parses a read or subscription pattern ("*" allowed); nullopt when malformed.
std::optional<Path> parsePattern(std::string_view text);
// Parses the path of one object (no "*"); nullopt when malformed.
std::optional<Path> parseObjectPath(std::string_view text);
// Parses "Object.Path.Param" (no "*"): the last name is the parameter.
std::optional<ParamPath> parseParamPath(std::string_view text);

std::string format(const Path& path);

// Whether object (a real object path) is matched by pattern segment by
// segment, with the same number of segments.
bool matches(const Path& pattern, const Path& object);
// Whether object lies at or below something the pattern matches.
bool matchesAtOrBelow(const Path& pattern, const Path& object);
// Whether the pattern can only ever match one object: no "*" and an instance
// number on its last segment. Reading such a path that matches nothing is an
// error; reading an empty class is not.
bool namesOneInstance(const Path& pattern);
// Whether descendant lies strictly below ancestor.
bool isBelow(const Path& ancestor, const Path& descendant);

}  // namespace zibd::rill
