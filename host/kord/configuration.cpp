#include "host/kord/configuration.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>

#include <array>
#include <string_view>

#include "host/kord/kord_host.h"
#include "host/kord/paths.h"

namespace zibd::kord {

namespace {

// The configuration line is short; anything longer is not ours.
constexpr std::size_t kMaxConfigurationBytes = 8192;
constexpr std::int64_t kWatchRetryNs = 1000000000;

// A coarse clock is enough, and costs no system call.
std::int64_t monotonicNanoseconds() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::string_view environmentPath(const char* name, const char* fallback) {
  const char* value = ::getenv(name);
  return value && *value ? value : fallback;
}

// Reads at most kMaxConfigurationBytes; empty when missing or unreadable.
std::string readSmallFile(const std::string& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return {};
  std::string text;
  std::array<char, 1024> buffer;
  while (text.size() < kMaxConfigurationBytes) {
    ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return text;
}

}  // namespace

void parseConfigurationLine(const std::string& text, Location* out) {
  std::string line = text.substr(0, text.find('\n'));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) {
    out->problem = "is empty";
    return;
  }
  std::size_t first = line.find(':');
  std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
  if (second == std::string::npos) {
    out->problem = "has no NAME:ROOT:DATABASE line";
    return;
  }
  std::string root = line.substr(first + 1, second - first - 1);
  std::string database = line.substr(second + 1);
  if (!isCanonical(root) || !isCanonical(database) || database == "/") {
    out->problem = "names a root or database that is not a canonical absolute path";
    return;
  }
  out->configured = true;
  out->root = std::move(root);
  out->database = std::move(database);
}

std::shared_ptr<const Location> Configuration::current() {
  zibd::MutexLock lock(mutex_);
  bool moved = followEnvironment();
  bool signalled = updateSignalled();
  Stamp stamp;
  struct stat st;
  if (::stat(ini_path_.c_str(), &st) == 0) {
    stamp = {true, st.st_dev, st.st_ino, st.st_size,
             static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec};
  }
  if (!location_ || moved || signalled || stamp != stamp_) {
    // The stamp is taken before reading, so a write racing with the read
    // shows up as a changed stamp next time.
    stamp_ = stamp;
    location_ = reload();
  }
  return location_;
}

void Configuration::useDatabase(const std::string& file) {
  zibd::MutexLock lock(mutex_);
  override_database_ = file;
  location_.reset();
}

bool Configuration::followEnvironment() {
  // Called on every look: compares without copying.
  std::string_view ini = environmentPath(kIniEnv, kDefaultIni);
  std::string_view update = environmentPath(kUpdateEnv, kDefaultUpdate);
  std::string_view views = environmentPath(kViewsEnv, kDefaultViews);
  if (ini == ini_path_ && update == update_path_ && views == views_root_) return false;
  if (update != update_path_) {
    if (watch_ >= 0) ::inotify_rm_watch(inotify_.get(), watch_);
    watch_ = -1;
    next_watch_attempt_ns_ = 0;
  }
  ini_path_ = ini;
  update_path_ = update;
  views_root_ = views;
  return true;
}

bool Configuration::updateSignalled() {
  if (!inotify_) {
    inotify_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify_) return false;  // then only the stamp tells changes
  }
  bool signalled = false;
  alignas(struct inotify_event) std::array<char, 4096> buffer;
  for (;;) {
    ssize_t n = ::read(inotify_.get(), buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t off = 0; off < n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(buffer.data() + off);
      if (event->wd == watch_) {
        if (event->mask & IN_OPEN) signalled = true;
        // The file was replaced or removed: watch whatever has the name now.
        if (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
          if (!(event->mask & IN_IGNORED)) ::inotify_rm_watch(inotify_.get(), watch_);
          watch_ = -1;
          signalled = true;
        }
      }
      off += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
    }
  }
  if (watch_ < 0) {
    // A missing signal file (a development host) is looked for again at most
    // once a second rather than on every call: nobody can open it meanwhile.
    std::int64_t now = monotonicNanoseconds();
    if (now < next_watch_attempt_ns_) return signalled;
    next_watch_attempt_ns_ = now + kWatchRetryNs;
    watch_ = ::inotify_add_watch(inotify_.get(), update_path_.c_str(),
                                 IN_OPEN | IN_DELETE_SELF | IN_MOVE_SELF);
    // Opens before the watch existed went unseen: look once more.
    if (watch_ >= 0) signalled = true;
  }
  return signalled;
}

std::shared_ptr<const Location> Configuration::reload() {
  auto next = std::make_shared<Location>();
  next->views_root = views_root_;
  std::string text;
  if (!override_database_.empty()) {
    // Taken as it is: a file name may hold any byte but NUL, a newline
    // included, which the line format could not carry.
    text = "override:/:" + override_database_;
    if (isCanonical(override_database_) && override_database_ != "/") {
      next->configured = true;
      next->root = "/";
      next->database = override_database_;
    } else {
      next->problem = "names a database that is not a canonical absolute path";
    }
  } else if (!stamp_.exists) {
    next->problem = "is missing";
  } else {
    text = readSmallFile(ini_path_);
    parseConfigurationLine(text, next.get());
  }
  if (!next->configured)
    next->problem = "no database configured: " + ini_path_ + " " + next->problem;
  // A rewrite with the same content (the signal fires after every write) keeps
  // the generation, so open handles keep their connections.
  if (location_ && text == text_ && location_->configured == next->configured &&
      location_->views_root == next->views_root && location_->problem == next->problem)
    return location_;
  text_ = std::move(text);
  next->generation = ++generation_;
  return next;
}

}  // namespace zibd::kord
