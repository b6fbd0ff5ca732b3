// The watcher thread's loop: takes one watch request at a time and adds or
// removes the watches of its tree.
#pragma once

#include <atomic>

#include "watch/watch_request_queue.h"
#include "watch/watch_table.h"

namespace zibd {

class WatcherThread {
 public:
  WatcherThread(WatchRequestQueue& queue, WatchTable& table, const std::atomic<int>& running)
      : queue_(queue), table_(table), running_(running) {}

  // Waits for one request and carries it out. False when the running flag
  // was found clear instead.
  bool step();
  // The thread body: steps until the running flag is clear (shutdown clears
  // it and calls WatchRequestQueue::fsStopWatcher). A step that throws drops
  // its request; the thread carries on.
  void run() noexcept;

 private:
  WatchRequestQueue& queue_;
  WatchTable& table_;
  const std::atomic<int>& running_;
};

}  // namespace zibd
