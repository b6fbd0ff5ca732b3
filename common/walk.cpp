#include "common/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "common/fs_error.h"

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

int fsWalkDir(const char* dir, FsWalkCallback file_cb, FsWalkCallback dir_cb, void* data,
              bool recursive, FsPathBuffer& buffer) {
  const std::size_t dir_len = std::strlen(dir);
  if (dir_len >= kFsPathMax - 1) return kFsErrPath;
  const std::size_t prefix_len = writePrefix(dir, dir_len, buffer);

  // Subdirectories are only remembered while the stream is open, so that a
  // deep tree never holds more than one stream.
  std::vector<std::string> subdirs;
  int result = kFsOk;
  {
    DirStream stream = openDirectory(dir);
    if (!stream) return kFsErrPath;
    while (result == kFsOk) {
      const dirent* entry = ::readdir(stream.get());
      if (!entry) break;
      if (isHidden(*entry)) continue;
      writeName(entry->d_name, prefix_len, buffer);
      if (entry->d_type == DT_DIR && recursive) {
        if (dir_cb) result = dir_cb(buffer.data(), data);
        try {
          subdirs.emplace_back(buffer.data());
        } catch (const std::bad_alloc&) {
          result = kFsErrNoMemory;
        }
        continue;
      }
      if (file_cb && isReportedAsFile(*entry)) result = file_cb(buffer.data(), data);
    }
  }

  for (auto it = subdirs.rbegin(); it != subdirs.rend() && result == kFsOk; ++it)
    result = fsWalkDir(it->c_str(), file_cb, dir_cb, data, recursive, buffer);
  return result;
}

int fsWalkTree(const char* path, FsWalkCallback file_cb, FsWalkCallback dir_cb,
               FsWalkCallback done_cb, void* data, bool recursive) {
  if (!file_cb && !dir_cb) return kFsErrInvalid;
  struct stat st;
  if (!path || ::stat(path, &st) != 0) return kFsErrPath;

  int result = kFsOk;
  if (S_ISDIR(st.st_mode)) {
    if (dir_cb) dir_cb(path, data);
    // On the heap: walks also run on threads with small stacks.
    std::unique_ptr<FsPathBuffer> buffer(new (std::nothrow) FsPathBuffer);
    result = buffer ? fsWalkDir(path, file_cb, dir_cb, data, recursive, *buffer) : kFsErrNoMemory;
  } else if (S_ISREG(st.st_mode) && file_cb) {
    result = file_cb(path, data);
  }
  if (done_cb) done_cb(path, data);
  return result;
}

bool fsPathIsUnder(const char* prefix, const char* path) {
  if (!prefix || !path) return false;
  const std::size_t n = std::strlen(prefix);
  return std::strncmp(prefix, path, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

int fsDirName(const char* path, char* dest, std::size_t size) {
  if (!path || !dest || size < 1) return kFsErrInvalid;
  const char* last_slash = std::strrchr(path, '/');
  if (!last_slash) return kFsErrInvalid;
  const auto len = static_cast<std::size_t>(last_slash - path);
  if (size < len) return kFsErrTooSmall;
  std::memcpy(dest, path, len);
  dest[len] = '\0';
  return kFsOk;
}

}  // namespace zibd
