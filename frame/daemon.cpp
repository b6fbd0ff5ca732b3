#include "frame/daemon.h"

#include <cerrno>
#include <system_error>

#include "frame/daemon_state.h"
#include "watch/event_loop.h"

namespace zibd {
int Daemon::initWatch() {
  return watch_table.fsInitWatch();
}

bool Daemon::startWatcher() {
  try {
    watcher_thread = std::thread([this] { watcher.run(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void Daemon::runEventLoop() {
  if (!change_handler && watch_scans && watch_storage)
    change_handler = std::make_unique<ChangeHandler>(*watch_scans, *watch_storage);
  // Termination signals get in only inside the loop's wait, which also ends
  // on the termination pipe.
  WatchEventLoop loop(watch_table, change_handler.get(), g_daemon.termination_pipe.read_end.get(),
                      &g_daemon.termination_wait_mask, g_daemon.running);
  loop.run();
}

void Daemon::shutdown() {
  // Stop the watch request queue; the watcher thread leaves its wait. The
  // loop may also have ended on a failed wait: the flag tells every thread.
  g_daemon.running.store(0);
  watch_requests.fsStopWatcher();
  (void)watch_table.fsCloseWatch();
  type_map.clear();
  if (watcher_thread.joinable()) watcher_thread.join();
  sync_pipe.read_end.reset();
  sync_pipe.write_end.reset();
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

}  // namespace zibd
