#include "host/kord/paths.h"

namespace zibd::kord {

namespace {

constexpr std::size_t kNameMax = 255;  // NAME_MAX of Linux file systems

}  // namespace

bool isCanonical(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  if (path == "/") return true;
  if (path.back() == '/') return false;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    std::string_view part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}

bool isBelow(std::string_view path, std::string_view dir) {
  if (dir == "/") return !path.empty() && path.front() == '/';
  if (path.size() < dir.size() || path.compare(0, dir.size(), dir) != 0) return false;
  return path.size() == dir.size() || path[dir.size()] == '/';
}

Subtree::Subtree(std::string_view path) : exact(path) {
  // "/" sorts just before "0", so [P "/", P "0") holds exactly the strings that
  // start with P "/". Below the root "/" every absolute path is in ["/", "0").
  if (path == "/") {
    low = "/";
    high = "0";
  } else {
    low = std::string(path) + '/';
    high = std::string(path) + '0';
  }
}

std::string_view baseName(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string linkName(std::int64_t id, std::string_view path) {
  std::string name = std::to_string(id) + '-';
  std::string_view base = baseName(path);
  std::size_t room = kNameMax - name.size();
  // Keep the tail: the extension is what profilers look at.
  if (base.size() > room) base = base.substr(base.size() - room);
  name += base;
  return name;
}

}  // namespace zibd::kord
