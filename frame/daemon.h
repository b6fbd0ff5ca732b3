// Everything the running daemon owns, made and wired by main. Start-up and
// shutdown call into it in the fixed order of frame/main.cpp.
//
// Wiring: the lower layers declare small interfaces for the calls they make
// upward (storage/watch_requests.h, storage/scanner_control.h,
// scan/scan_reports.h) and for the queries the upper layers make of them
// (storage/storage_queries.h, storage/index_rules.h, scan/scan_requests.h);
// this object owns the real implementations and hands each user the ones it
// needs by reference.
#pragma once

#include "common/file_descriptor.h"
#include "scan/file_type_map.h"

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
  // --- scanner (scan/) ---
  // --- watcher and event loop (watch/) ---
  // --- bus client (bus/) ---

  // The main thread's work until a termination signal arrives.
  void runEventLoop();

  // Stops and joins everything start-up started, frees what the daemon owns
  // and closes its pipes, in the daemon's fixed shutdown order.
  void shutdown();
};

}  // namespace zibd
