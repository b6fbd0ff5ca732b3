// The daemon state record shared by every thread.
#pragma once

#include <signal.h>

#include <atomic>
#include <thread>

#include "common/file_descriptor.h"
#include "frame/file_type_map.h"

namespace zibd {

struct IndexRule;  // the index-rule registry's record

struct DaemonState {
  // 1 from the start of start-up until a termination signal; every loop polls
  // it. The signal handler stores to it, hence lock-free.
  std::atomic<int> running{0};
  static_assert(std::atomic<int>::is_always_lock_free);

  // Filled during start-up before any thread starts; see file_type_map.h for
  // who may use it afterwards.
  FileTypeMap type_map;

  // Head of the index-rule registry (owned and guarded by the registry).
  IndexRule* rule_registry = nullptr;

  // Started by start-up (the bus thread by the bus client's start call) and
  // joined by the main thread during shutdown.
  std::thread bus_thread;
  std::thread scanner_thread;
  std::thread watcher_thread;

  // The bus thread writes one byte into sync_pipe when it has left its loop;
  // shutdown reads it before joining the bus thread.
  Pipe sync_pipe;
  // The signal handler writes one zero byte into termination_pipe; the main
  // thread's loop waits on its read end. Non-blocking, so that the handler
  // never blocks however many signals arrive.
  Pipe termination_pipe;
  // The main thread keeps the termination signals blocked and waits with
  // this mask, which lets them in (see blockTerminationSignals).
  sigset_t termination_wait_mask{};
};

// The one daemon state. It is never destroyed: a failed start-up exits while
// threads may still be using it.
extern DaemonState& g_daemon;

}  // namespace zibd
