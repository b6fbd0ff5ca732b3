#include "common/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/file_descriptor.h"

namespace zibd {

namespace {

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, DirCloser>;

// Opens a directory stream whose descriptor is close-on-exec: the scanner
// forks profilers while other threads may be walking.
DirStream openDirectory(const char* path) {
  FileDescriptor fd(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return nullptr;
  DirStream stream(::fdopendir(fd.get()));
  if (stream) fd.release();  // the stream owns it now
  return stream;
}

// Writes dir into buffer followed by a '/' unless it already ends in one.
// Returns the length of that prefix. dir is shorter than kFsPathMax - 1.
std::size_t writePrefix(const char* dir, std::size_t dir_len, FsPathBuffer& buffer) {
  std::memcpy(buffer.data(), dir, dir_len);
  std::size_t prefix_len = dir_len;
  if (dir_len == 0 || dir[dir_len - 1] != '/') buffer[prefix_len++] = '/';
  buffer[prefix_len] = '\0';
  return prefix_len;
}

// Puts name behind the prefix, cut so that the path never exceeds
// kFsPathMax characters.
void writeName(const char* name, std::size_t prefix_len, FsPathBuffer& buffer) {
  const std::size_t n = ::strnlen(name, kFsPathMax - prefix_len);
  std::memcpy(buffer.data() + prefix_len, name, n);
  buffer[prefix_len + n] = '\0';
}

bool isHidden(const dirent& entry) { return entry.d_name[0] == '.'; }

bool isReportedAsFile(const dirent& entry) {
  return entry.d_type == DT_REG || entry.d_type == DT_LNK;
}

}  // namespace

bool fsHasEntry(const char* dir, const char* name) {
  DirStream stream = openDirectory(dir);
  if (!stream) return false;
  while (const dirent* entry = ::readdir(stream.get()))
    if (std::strcmp(entry->d_name, name) == 0) return true;
  return false;
}

namespace {

// One level of the walk (see fsWalkTree); buffer is shared by every level of
// one walk, and each level overwrites it.
Status walkDirectory(const char* dir, const FsWalkVisitors& visit, bool recursive, FsPathBuffer& buffer) {
  const std::size_t dir_len = std::strlen(dir);
  if (dir_len >= kFsPathMax - 1) return Status::error(ENAMETOOLONG, std::string("opendir ") + dir);
  const std::size_t prefix_len = writePrefix(dir, dir_len, buffer);

  // Subdirectories are only remembered while the stream is open, so that a
  // deep tree never holds more than one stream.
  std::vector<std::string> subdirs;
  Status result;
  {
    DirStream stream = openDirectory(dir);
    if (!stream) return Status::lastError(std::string("opendir ") + dir);
    while (result.ok()) {
      const dirent* entry = ::readdir(stream.get());
      if (!entry) break;
      if (isHidden(*entry)) continue;
      writeName(entry->d_name, prefix_len, buffer);
      if (entry->d_type == DT_DIR && recursive) {
        if (visit.dir) result = visit.dir(buffer.data());
        subdirs.emplace_back(buffer.data());
        continue;
      }
      if (visit.file && isReportedAsFile(*entry)) result = visit.file(buffer.data());
    }
  }

  for (auto it = subdirs.rbegin(); it != subdirs.rend() && result.ok(); ++it)
    result = walkDirectory(it->c_str(), visit, recursive, buffer);
  return result;
}

}  // namespace

Status fsWalkTree(const char* path, const FsWalkVisitors& visit, bool recursive) {
  if (!visit.file && !visit.dir) return Status::error(EINVAL, "walk without a visitor");
  struct stat st;
  if (::stat(path, &st) != 0) return Status::lastError(std::string("stat ") + path);

  if (S_ISDIR(st.st_mode)) {
    if (visit.dir) (void)visit.dir(path);
    // On the heap: walks also run on threads with small stacks.
    const auto buffer = std::make_unique<FsPathBuffer>();
    return walkDirectory(path, visit, recursive, *buffer);
  }
  if (S_ISREG(st.st_mode) && visit.file) return visit.file(path);
  return Status();
}

bool fsPathIsUnder(const char* prefix, const char* path) {
  if (!prefix || !path) return false;
  const std::size_t n = std::strlen(prefix);
  return std::strncmp(prefix, path, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

std::optional<std::string_view> fsDirName(std::string_view path) {
  const std::size_t last_slash = path.rfind('/');
  if (last_slash == std::string_view::npos) return std::nullopt;
  return path.substr(0, last_slash);
}

}  // namespace zibd
