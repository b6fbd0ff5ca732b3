#include "frame/daemon.h"

#include <unistd.h>

#include <cerrno>

#include "common/start_thread.h"
#include "frame/daemon_state.h"
#include "watch/event_loop.h"

namespace zibd {
Status Daemon::startScanner() {
  Status started = scanner.start();
  scanner_started = started.ok();
  return started;
}

void Daemon::wire() {
  upward.scanner = &scanner_state;
  upward.scans = &scan_queue;
  upward.watches = &watch_requests;
}

Status Daemon::startBus() {
  Status started = bus.start();
  bus_started = started.ok();
  return started;
}

Status Daemon::initWatch() { return watch_table.fsInitWatch(); }

Status Daemon::startWatcher() {
  return startThread(watcher_thread, [this] { watcher.run(); }, "watcher");
}

void Daemon::runEventLoop() {
  // Termination signals get in only inside the loop's wait, which also ends
  // on the termination pipe.
  WatchEventLoop loop(watch_table, &change_handler, g_daemon.termination_pipe.read_end.get(),
                      &g_daemon.termination_wait_mask, g_daemon.running);
  loop.run();
}

void Daemon::shutdown() {
  // Stop the scanner: abort its work, kill a running profiler, wait until idle.
  if (scanner_started) scanner_state.stopScanner();
  // Stop the watch request queue; the watcher thread leaves its wait. The
  // loop may also have ended on a failed wait: the flag tells every thread.
  g_daemon.running.store(0);
  watch_requests.fsStopWatcher();
  // Stop the bus thread's loop (nowhere once it has ended by itself).
  bus_control.stop();
  // Whatever was queued meanwhile is dropped. The wake ends a take that began
  // before the running flag was cleared (the loop may end on a failed wait).
  scan_queue.clear();
  scan_queue.wake();
  if (scanner_started) scanner.join();
  if (watcher_thread.joinable()) watcher_thread.join();
  if (bus_started) {
    // The bus thread writes its byte when it has left its loop.
    char byte;
    while (::read(sync_pipe.read_end.get(), &byte, 1) < 0 && errno == EINTR) {
    }
    bus.join();
  }
  // Only now that no thread runs: the scanner reads the map until it is joined.
  type_map.clear();
  sync_pipe.read_end.reset();
  sync_pipe.write_end.reset();
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

}  // namespace zibd
