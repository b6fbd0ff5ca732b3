#include "frame/daemon.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "frame/daemon_state.h"
#include "watch/event_loop.h"

namespace zibd {
void Daemon::makeScanner() {
  if (!scan_storage || !scan_rules || !scan_reports || scan_queue) return;
  scan_queue = std::make_unique<ScanQueue>(*scan_storage, *scan_reports, g_daemon.running);
  scanner_state = std::make_unique<ScannerState>(*scan_queue);
  scanner = std::make_unique<ScannerThread>(*scan_queue, *scanner_state, type_map, *scan_rules,
                                            *scan_storage, *scan_reports, g_daemon.running);
}

bool Daemon::startScanner() {
  if (!scanner) return true;
  try {
    scanner->start();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void Daemon::wireStorageAndBus() {
  scan_storage = &storage;
  scan_rules = &index_rules;
  scan_reports = &bus_control;
  makeScanner();
  upward.scanner = scanner_state.get();
  upward.scans = scan_queue.get();
}

int Daemon::startBus() {
  const int result = bus.start();
  bus_started = result == 0;
  return result;
}

int Daemon::initWatch() {
  // The storage model and the bus thread queue watch requests through upward;
  // the change handling queues scans through it and asks the storage model.
  upward.watches = &watch_requests;
  watch_scans = &upward;
  watch_storage = &storage;
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
  // Stop the scanner: abort its work, kill a running profiler, wait until idle.
  if (scanner_state) scanner_state->stopScanner();
  // Stop the watch request queue; the watcher thread leaves its wait. The
  // loop may also have ended on a failed wait: the flag tells every thread.
  g_daemon.running.store(0);
  watch_requests.fsStopWatcher();
  // Stop the bus thread's loop (nowhere once it has ended by itself).
  bus_control.stop();
  (void)watch_table.fsCloseWatch();
  type_map.clear();
  // Whatever was queued meanwhile is dropped. The wake ends a take that began
  // before the running flag was cleared (the loop may end on a failed wait).
  if (scan_queue) {
    scan_queue->clear();
    scan_queue->wake();
  }
  if (scanner) scanner->join();
  if (watcher_thread.joinable()) watcher_thread.join();
  if (bus_started) {
    // The bus thread writes its byte when it has left its loop.
    char byte;
    while (::read(sync_pipe.read_end.get(), &byte, 1) < 0 && errno == EINTR) {
    }
    bus.join();
  }
  sync_pipe.read_end.reset();
  sync_pipe.write_end.reset();
  g_daemon.termination_pipe.read_end.reset();
  g_daemon.termination_pipe.write_end.reset();
}

}  // namespace zibd
