// The main thread's loop: waits on the inotify instance of the watch table
// and on the termination pipe, turns inotify events into change notices,
// pairs moves by their cookie, keeps the table in step with directories that
// appear, move or disappear, and once per pass lets the change handling act
// on what has settled.
#pragma once

#include <signal.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <list>
#include <optional>
#include <string>
#include <utility>

#include "watch/change_handler.h"
#include "watch/watch_table.h"

namespace zibd {

class WatchEventLoop {
 public:
  // Bytes read from inotify in one pass.
  static constexpr std::size_t kEventBufferSize = 16384;
  // Longest wait of one pass: bounds how late settled changes and unpaired
  // moves are handled when no event comes.
  static constexpr int kPassTimeoutMs = 2500;

  // notices may be null while the daemon has no storage model: notices are
  // then dropped, as they are while no metadata storage is ready.
  // termination_fd: the read end of the termination pipe; a readable pipe
  // ends the loop. wait_mask: the signal mask to wait with (null: the
  // thread's own). running: the daemon's running flag, read at every pass.
  WatchEventLoop(WatchTable& table, ChangeNotices* notices, int termination_fd,
                 const sigset_t* wait_mask, const std::atomic<int>& running,
                 FsClock now = fsWallClock, int pass_timeout_ms = kPassTimeoutMs)
      : table_(table),
        notices_(notices),
        termination_fd_(termination_fd),
        wait_mask_(wait_mask),
        running_(running),
        now_(std::move(now)),
        pass_timeout_ms_(pass_timeout_ms) {}
  WatchEventLoop(const WatchEventLoop&) = delete;
  WatchEventLoop& operator=(const WatchEventLoop&) = delete;

  // One pass: one wait, the events read, unpaired moves expired, settled
  // changes flushed. False when the loop is to end: the running flag was
  // clear, the termination pipe readable, or the wait itself failed.
  bool step();
  // The main thread's body: steps until one returns false. A pass that throws
  // loses the events it had read; the loop carries on.
  void run() noexcept;

  // Move-from events still waiting for their partner (tests).
  std::size_t pendingMoves() const { return moves_.size(); }

 private:
  struct PendingMove {
    bool is_dir;
    std::uint32_t cookie;
    std::string name;
    std::string path;
    std::time_t time;
  };
  // A change notice for the change handling.
  struct Notice {
    std::string path;
    std::optional<std::string> old_path;
    std::uint32_t flags;
  };
  // What one event asks for once the table's mutex is let go.
  struct EventOutcome {
    std::optional<Notice> renamed_away = {};  // the old path of a file whose name changed
    std::optional<Notice> notice = {};
    bool add_watch = false;
    bool remove_watch = false;
  };
  void readEvents();
  void handleEvent(int wd, std::uint32_t mask, std::uint32_t cookie, const char* name);
  // The full path of the event's entry (dir alone when there is no name);
  // nullopt for a hidden name or a path too long.
  static std::optional<std::string> eventPath(const WatchNode& dir, const char* name);
  EventOutcome classify(WatchNode* dir, const std::string& path, std::uint32_t mask, std::uint32_t cookie,
                        const char* name) REQUIRES(table_.mutex());
  // A move's second half: paired with its first by the cookie, or moved in
  // from outside.
  EventOutcome movedTo(WatchNode* dir, const std::string& path, bool is_dir, std::uint32_t cookie,
                       const char* name) REQUIRES(table_.mutex());
  void act(const std::string& path, const EventOutcome& outcome);
  void expireMoves();
  void notify(const std::string& path, const char* old_path, std::uint32_t flags);

  WatchTable& table_;
  ChangeNotices* notices_;
  int termination_fd_;
  const sigset_t* wait_mask_;
  const std::atomic<int>& running_;
  FsClock now_;
  int pass_timeout_ms_;
  // Newest first; main thread only.
  std::list<PendingMove> moves_;
  alignas(8) char buffer_[kEventBufferSize];
};

}  // namespace zibd
