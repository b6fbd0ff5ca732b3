#include "host/kord/view_dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "common/file_descriptor.h"
#include "host/kord/failure.h"

namespace zibd::kord {

namespace {

constexpr mode_t kDirectoryMode = 0755;

[[noreturn]] void failErrno(const std::string& doing, int error) {
  fail(Status::kFailed, doing + ": " + ::strerror(error));
}

struct DirCloser {
  void operator()(DIR* d) const { ::closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// Opens dir for reading entries; the DIR owns the descriptor.
DirPtr openDirectory(const std::string& dir) {
  FileDescriptor fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return nullptr;
  DIR* d = ::fdopendir(fd.get());
  if (d) fd.release();
  return DirPtr(d);
}

bool isSymlink(DIR* d, const struct dirent* entry) {
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_LNK;
  struct stat st;
  return ::fstatat(::dirfd(d), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
}

// The target of dirfd/name; empty when it is not a readable link.
std::string readLinkAt(int dirfd, const char* name) {
  std::string target(256, '\0');
  for (;;) {
    ssize_t n = ::readlinkat(dirfd, name, target.data(), target.size());
    if (n < 0) return {};
    if (static_cast<std::size_t>(n) < target.size()) {
      target.resize(static_cast<std::size_t>(n));
      return target;
    }
    target.resize(target.size() * 2);
  }
}

// mkdir -p; false with errno set when a component could not be made.
bool createDirectories(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    std::string prefix = path.substr(0, slash);
    if (::mkdir(prefix.c_str(), kDirectoryMode) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace

void makeDirectories(const std::string& path) {
  if (!createDirectories(path)) failErrno("cannot create " + path, errno);
}

bool ensureLink(const std::string& dir, const std::string& name, const std::string& target) {
  std::string link = dir + '/' + name;
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (::symlink(target.c_str(), link.c_str()) == 0) return true;
    if (errno == ENOENT) {
      if (!createDirectories(dir)) return false;
    } else if (errno == EEXIST) {
      if (readLinkAt(AT_FDCWD, link.c_str()) == target) return true;
      if (::unlink(link.c_str()) != 0 && errno != ENOENT) return false;
    } else {
      return false;
    }
  }
  return false;
}

bool removeLink(const std::string& dir, const std::string& name) {
  std::string link = dir + '/' + name;
  return ::unlink(link.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR;
}

void reconcileDirectory(const std::string& dir, const std::map<std::string, std::string>& wanted) {
  makeDirectories(dir);
  DirPtr d = openDirectory(dir);
  if (!d) failErrno("cannot open view directory " + dir, errno);
  std::map<std::string, std::string> missing = wanted;
  while (const struct dirent* entry = ::readdir(d.get())) {
    if (!isSymlink(d.get(), entry)) continue;
    auto it = missing.find(entry->d_name);
    if (it != missing.end() && readLinkAt(::dirfd(d.get()), entry->d_name) == it->second) {
      missing.erase(it);
      continue;
    }
    if (::unlinkat(::dirfd(d.get()), entry->d_name, 0) != 0 && errno != ENOENT)
      failErrno("cannot remove link in " + dir, errno);
  }
  for (const auto& [name, target] : missing) {
    if (!ensureLink(dir, name, target)) failErrno("cannot link " + target + " in " + dir, errno);
  }
}

void removeViewDirectory(const std::string& dir) {
  DirPtr d = openDirectory(dir);
  if (!d) {
    if (errno == ENOENT) return;
    failErrno("cannot open view directory " + dir, errno);
  }
  std::vector<std::string> links;
  while (const struct dirent* entry = ::readdir(d.get())) {
    if (isSymlink(d.get(), entry)) links.emplace_back(entry->d_name);
  }
  for (const auto& name : links) ::unlinkat(::dirfd(d.get()), name.c_str(), 0);
  d.reset();
  if (::rmdir(dir.c_str()) != 0 && errno != ENOENT) failErrno("cannot remove " + dir, errno);
}

}  // namespace zibd::kord
