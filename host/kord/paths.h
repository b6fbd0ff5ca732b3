// Path rules of the tag store. Paths are absolute byte strings; one path lies
// below another when it equals it or continues it with "/".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zibd::kord {

// Absolute, no empty, "." or ".." component, no trailing "/" (except "/").
bool isCanonical(std::string_view path);

// path equals dir or continues it with "/"; every absolute path lies below "/".
bool isBelow(std::string_view path, std::string_view dir);

// The rows below `path` are those with path == exact, or with
// low <= path < high (bytewise). This stays correct for paths holding the
// characters that LIKE and GLOB treat specially.
struct Subtree {
  explicit Subtree(std::string_view path);
  std::string exact;
  std::string low;
  std::string high;
};

// The last component of a canonical path ("" for "/").
std::string_view baseName(std::string_view path);

// Name of the link to file `id` at `path` inside a view directory: unique per
// id, ending with the file's own name so that its extension survives, and no
// longer than a directory entry may be.
std::string linkName(std::int64_t id, std::string_view path);

}  // namespace zibd::kord
