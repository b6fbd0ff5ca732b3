#include "watch/event_loop.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "common/walk.h"

namespace zibd {

namespace {

constexpr std::uint32_t kDroppedEvents = IN_UNMOUNT | IN_Q_OVERFLOW | IN_IGNORED;
constexpr std::size_t kEventHeaderSize = sizeof(inotify_event);
static_assert(kEventHeaderSize == 16);

struct Notice {
  std::string path;
  std::optional<std::string> old_path;
  std::uint32_t flags;
};

}  // namespace

bool WatchEventLoop::step() {
  if (running_.load() == 0) return false;
  struct pollfd fds[2] = {{termination_fd_, POLLIN, 0}, {table_.descriptor(), POLLIN, 0}};
  const struct timespec timeout = {pass_timeout_ms_ / 1000, (pass_timeout_ms_ % 1000) * 1000000L};
  // Termination signals are let in only inside this wait (wait_mask_).
  const int ready = ::ppoll(fds, 2, &timeout, wait_mask_);
  if (ready < 0 && errno != EINTR) return false;  // a broken wait cannot be resumed
  if (ready > 0) {
    if (fds[0].revents != 0) return false;
    if (fds[1].revents & POLLIN) readEvents();
  }
  expireMoves();
  if (notices_) notices_->fsFlushChanges();
  return true;
}

void WatchEventLoop::run() noexcept {
  for (;;) {
    try {
      if (!step()) return;
    } catch (...) {
      // The rest of the pass is lost and the loop carries on (docs/code-map.md).
    }
  }
}

void WatchEventLoop::readEvents() {
  const ssize_t count = ::read(table_.descriptor(), buffer_, sizeof buffer_);
  if (count <= 0) return;
  const auto end = static_cast<std::size_t>(count);
  for (std::size_t offset = 0; offset + kEventHeaderSize <= end;) {
    inotify_event event;
    std::memcpy(&event, buffer_ + offset, kEventHeaderSize);
    const std::size_t next = offset + kEventHeaderSize + event.len;
    if (next > end) break;
    // The kernel pads the name with NULs; a name that fills its field to the
    // end is cut at it.
    std::string name;
    if (event.len > 0) name.assign(buffer_ + offset + kEventHeaderSize, ::strnlen(buffer_ + offset + kEventHeaderSize, event.len));
    handleEvent(event.wd, event.mask, event.cookie, event.len > 0 ? name.c_str() : nullptr);
    offset = next;
  }
}

void WatchEventLoop::handleEvent(int wd, std::uint32_t mask, std::uint32_t cookie, const char* name) {
  if (mask & kDroppedEvents) return;
  const bool is_dir = (mask & IN_ISDIR) != 0;
  std::optional<Notice> renamed_away;  // the old path of a file whose name changed
  std::optional<Notice> notice;
  bool add_watch = false;
  bool remove_watch = false;
  std::string path;
  {
    MutexLock lock(table_.mutex());
    WatchNode* dir = table_.findDescriptor(wd);
    if (!dir) return;
    FsPathBuffer dir_path;
    if (!WatchTable::fullPath(dir, dir_path)) return;
    path = dir_path.data();
    if (name) {
      if (name[0] == '.') return;
      path.append("/").append(name);
      if (path.size() > kFsPathMax) return;
    }

    const std::uint32_t event = mask & kFsWatchMask;
    if (event & IN_MOVED_TO) {
      auto from = moves_.begin();
      while (from != moves_.end() && from->cookie != cookie) ++from;
      if (from == moves_.end()) {
        // Moved in from outside every watched tree.
        if (is_dir) {
          notice = Notice{path, std::nullopt, FS_CHANGE_CREATED | FS_CHANGE_DIR};
          add_watch = true;
        } else {
          notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE};
        }
      } else {
        std::string old_path = std::move(from->path);
        const std::string old_name = std::move(from->name);
        moves_.erase(from);
        if (is_dir) {
          // The watched subtree follows in the trie; the kernel's watches
          // stay where they are.
          WatchNode* moved = table_.findPath(old_path.c_str());
          if (moved && moved->parent && name) table_.moveNode(moved, dir, name);
          notice = Notice{path, std::move(old_path), FS_CHANGE_MOVED | FS_CHANGE_DIR};
        } else if (name && old_name == name) {
          notice = Notice{path, std::move(old_path), FS_CHANGE_MOVED | FS_CHANGE_FILE};
        } else {
          // A rename: the old name is gone and a new file appeared.
          renamed_away = Notice{std::move(old_path), std::nullopt, FS_CHANGE_DELETED | FS_CHANGE_FILE};
          notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE};
        }
      }
    } else if (event & IN_CLOSE_WRITE) {
      notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE};
    } else if (event & IN_MOVED_FROM) {
      moves_.push_front({is_dir, cookie, name ? name : "", path, now_()});
    } else if (event & IN_CREATE) {
      notice = Notice{path, std::nullopt, FS_CHANGE_CREATED | (is_dir ? FS_CHANGE_DIR : FS_CHANGE_FILE)};
      add_watch = is_dir;
    } else if (event & IN_DELETE) {
      notice = Notice{path, std::nullopt, FS_CHANGE_DELETED | (is_dir ? FS_CHANGE_DIR : FS_CHANGE_FILE)};
      remove_watch = is_dir;
    }
  }
  // The change handling and the table's add and remove take locks of their
  // own, the table's included: only after the table's mutex is released.
  if (renamed_away) notify(renamed_away->path, nullptr, renamed_away->flags);
  if (notice) notify(notice->path, notice->old_path ? notice->old_path->c_str() : nullptr, notice->flags);
  if (remove_watch) (void)table_.fsRemoveWatch(path.c_str());
  // With its subtree: a directory copied or moved in may hold directories
  // made before this watch existed.
  if (add_watch) (void)table_.fsAddWatchTree(path.c_str(), true);
}

void WatchEventLoop::expireMoves() {
  if (moves_.empty()) return;  // an idle pass reads no clock
  const std::time_t now = now_();
  for (;;) {
    auto it = moves_.begin();
    // Unsigned, as a clock that steps back must not hold a move for ever.
    while (it != moves_.end() &&
           static_cast<std::uint64_t>(now - it->time) < static_cast<std::uint64_t>(kFsSettleSeconds))
      ++it;
    if (it == moves_.end()) return;
    const PendingMove move = std::move(*it);
    moves_.erase(it);
    // Moved out of every watched tree: as good as deleted.
    if (move.is_dir) {
      (void)table_.fsRemoveWatch(move.path.c_str());
      notify(move.path, nullptr, FS_CHANGE_DELETED | FS_CHANGE_DIR);
    } else {
      notify(move.path, nullptr, FS_CHANGE_DELETED | FS_CHANGE_FILE);
    }
  }
}

void WatchEventLoop::notify(const std::string& path, const char* old_path, std::uint32_t flags) {
  if (notices_) (void)notices_->fsHandleChange(path.c_str(), old_path, flags);
}

}  // namespace zibd
