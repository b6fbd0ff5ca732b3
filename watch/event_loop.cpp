#include "watch/event_loop.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "common/walk.h"

namespace zibd {

namespace {

constexpr std::uint32_t kDroppedEvents = IN_UNMOUNT | IN_Q_OVERFLOW | IN_IGNORED;
constexpr std::size_t kEventHeaderSize = sizeof(inotify_event);
static_assert(kEventHeaderSize == 16);

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
  std::string path;
  EventOutcome outcome;
  {
    MutexLock lock(table_.mutex());
    WatchNode* dir = table_.findDescriptor(wd);
    if (!dir) return;
    std::optional<std::string> event_path = eventPath(*dir, name);
    if (!event_path) return;
    path = std::move(*event_path);
    outcome = classify(dir, path, mask, cookie, name);
  }
  act(path, outcome);
}

std::optional<std::string> WatchEventLoop::eventPath(const WatchNode& dir, const char* name) {
  FsPathBuffer dir_path;
  if (!WatchTable::fullPath(&dir, dir_path)) return std::nullopt;
  std::string path = dir_path.data();
  if (!name) return path;
  if (name[0] == '.') return std::nullopt;
  path.append("/").append(name);
  if (path.size() > kFsPathMax) return std::nullopt;
  return path;
}

WatchEventLoop::EventOutcome WatchEventLoop::classify(WatchNode* dir, const std::string& path, std::uint32_t mask,
                                                      std::uint32_t cookie, const char* name) {
  const bool is_dir = (mask & IN_ISDIR) != 0;
  const std::uint32_t kind = is_dir ? FS_CHANGE_DIR : FS_CHANGE_FILE;
  const std::uint32_t event = mask & kFsWatchMask;
  if (event & IN_MOVED_TO) return movedTo(dir, path, is_dir, cookie, name);
  if (event & IN_CLOSE_WRITE) return {.notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE}};
  if (event & IN_MOVED_FROM) {
    moves_.push_front({is_dir, cookie, name ? name : "", path, now_()});
    return {};
  }
  if (event & IN_CREATE) return {.notice = Notice{path, std::nullopt, FS_CHANGE_CREATED | kind}, .add_watch = is_dir};
  if (event & IN_DELETE) return {.notice = Notice{path, std::nullopt, FS_CHANGE_DELETED | kind}, .remove_watch = is_dir};
  return {};
}

WatchEventLoop::EventOutcome WatchEventLoop::movedTo(WatchNode* dir, const std::string& path, bool is_dir,
                                                     std::uint32_t cookie, const char* name) {
  const auto from = std::find_if(moves_.begin(), moves_.end(),
                                 [cookie](const PendingMove& move) { return move.cookie == cookie; });
  if (from == moves_.end()) {
    // Moved in from outside every watched tree.
    if (is_dir) return {.notice = Notice{path, std::nullopt, FS_CHANGE_CREATED | FS_CHANGE_DIR}, .add_watch = true};
    return {.notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE}};
  }
  PendingMove move = std::move(*from);
  moves_.erase(from);
  if (is_dir) {
    // The watched subtree follows in the trie; the kernel's watches stay
    // where they are.
    WatchNode* moved = table_.findPath(move.path.c_str());
    if (moved && moved->parent && name) table_.moveNode(moved, dir, name);
    return {.notice = Notice{path, std::move(move.path), FS_CHANGE_MOVED | FS_CHANGE_DIR}};
  }
  if (name && move.name == name) return {.notice = Notice{path, std::move(move.path), FS_CHANGE_MOVED | FS_CHANGE_FILE}};
  // A rename: the old name is gone and a new file appeared.
  return {.renamed_away = Notice{std::move(move.path), std::nullopt, FS_CHANGE_DELETED | FS_CHANGE_FILE},
          .notice = Notice{path, std::nullopt, FS_CHANGE_WRITTEN | FS_CHANGE_FILE}};
}

// The change handling and the table's add and remove take locks of their
// own, the table's included: only after the table's mutex is released.
void WatchEventLoop::act(const std::string& path, const EventOutcome& outcome) {
  if (const auto& away = outcome.renamed_away) notify(away->path, nullptr, away->flags);
  if (const auto& notice = outcome.notice)
    notify(notice->path, notice->old_path ? notice->old_path->c_str() : nullptr, notice->flags);
  if (outcome.remove_watch) (void)table_.fsRemoveWatch(path.c_str());
  // With its subtree: a directory copied or moved in may hold directories
  // made before this watch existed.
  if (outcome.add_watch) (void)table_.fsAddWatchTree(path.c_str(), true);
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
