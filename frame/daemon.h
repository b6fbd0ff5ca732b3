// Everything the running daemon owns, made and wired by main. Start-up and
// shutdown call into it in the fixed order of frame/main.cpp.
//
// Wiring: the lower layers declare small interfaces for the calls they make
// upward (storage/watch_requests.h, storage/scanner_control.h,
// scan/scan_reports.h) and for the queries the upper layers make of them
// (storage/storage_queries.h, storage/index_rules.h, storage/scan_requests.h);
// this object owns the real implementations and hands each user the ones it
// needs by reference.
#pragma once

#include <thread>

#include "bus/bus_thread.h"
#include "bus/control_pipe.h"
#include "common/file_descriptor.h"
#include "frame/daemon_state.h"
#include "scan/file_type_map.h"
#include "scan/scan_queue.h"
#include "scan/scan_reports.h"
#include "scan/scanner_state.h"
#include "scan/scanner_thread.h"
#include "storage/index_rules.h"
#include "storage/rule_registry.h"
#include "storage/scanner_control.h"
#include "storage/storage_model.h"
#include "storage/storage_queries.h"
#include "storage/watch_requests.h"
#include "watch/change_handler.h"
#include "watch/watch_request_queue.h"
#include "watch/watch_table.h"
#include "watch/watcher_thread.h"

namespace zibd {

class Daemon {
 public:
  Daemon() = default;
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // The bus thread writes one byte into it when it has left its loop;
  // shutdown reads that byte before joining the bus thread.
  Pipe sync_pipe;

  // Loaded during start-up before any thread starts; read-only afterwards
  // except for the pending counts, which only the scanner thread touches.
  FileTypeMap type_map;

  // Subsystem objects, one section each, in layer order. Each section owns its
  // objects (members declared here) and fills in its own steps of start(),
  // runEventLoop() and shutdown() in daemon.cpp.
  // --- storage model (storage/) ---
  // The storage model and the bus thread call up into the watcher and the
  // scanner, which are made after it, through `upward`; wire() points it at
  // them before any thread starts. A call whose receiver is missing does
  // nothing.
  struct UpwardCalls final : WatchRequests, ScannerControl, ScanRequests {
    WatchRequests* watches = nullptr;
    ScannerControl* scanner = nullptr;
    ScanRequests* scans = nullptr;
    void fsQueueAddWatch(const std::string& path) override {
      if (watches) watches->fsQueueAddWatch(path);
    }
    void fsQueueRemoveWatch(const std::string& path) override {
      if (watches) watches->fsQueueRemoveWatch(path);
    }
    void stopBelow(const std::string& path) override {
      if (scanner) scanner->stopBelow(path);
    }
    void stopAll() override {
      if (scanner) scanner->stopAll();
    }
    void releaseTagStore() override {
      if (scanner) scanner->releaseTagStore();
    }
    void enqueue(const std::string& path, uint32_t kind) override {
      if (scans) scans->enqueue(path, kind);
    }
  };
  UpwardCalls upward;
  StorageModel storage{upward, upward};
  RuleRegistry index_rules;
  // Other threads send the bus thread its work through bus_control (the
  // scanner's ScanReports).
  ControlPipe bus_control;
  // --- scanner (scan/) ---
  // The bus and watch sections queue scans through scan_queue (ScanRequests);
  // the storage model stops the scanner through scanner_state
  // (ScannerControl).
  ScanQueue scan_queue{storage, bus_control, g_daemon.running};
  ScannerState scanner_state{scan_queue};
  ScannerThread scanner{scan_queue, scanner_state, type_map, index_rules,
                        storage,    bus_control,   g_daemon.running};
  bool scanner_started = false;
  // Start-up: starts the scanner thread.
  Status startScanner();
  // --- watcher and event loop (watch/) ---
  // Partition trees come and go through watch_requests (WatchRequests), which
  // the watcher thread works off into watch_table; the event loop on the main
  // thread reads the table's inotify instance and hands what changed to
  // change_handler.
  WatchRequestQueue watch_requests;
  WatchTable watch_table{watch_requests.addAbortedFlag()};
  WatcherThread watcher{watch_requests, watch_table, g_daemon.running};
  std::thread watcher_thread;
  ChangeHandler change_handler{scan_queue, storage};
  // Start-up: makes the inotify instance.
  Status initWatch();
  // Start-up: starts the watcher thread.
  Status startWatcher();
  // --- bus client (bus/) ---
  // The bus thread writes "0" into sync_pipe when it ends.
  BusThread bus{storage, index_rules, upward, bus_control, sync_pipe.write_end, g_daemon.running};
  bool bus_started = false;
  // Start-up, before any thread starts: points `upward` at the scanner's and
  // the watcher's objects.
  void wire();
  // Start-up: creates the control pipe and starts the bus thread.
  Status startBus();

  // The main thread's work until a termination signal arrives.
  void runEventLoop();

  // Stops and joins everything start-up started, frees what the daemon owns
  // and closes its pipes, in the daemon's fixed shutdown order.
  void shutdown();
};

}  // namespace zibd
