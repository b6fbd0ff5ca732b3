// Requests to add or remove the watches of a partition's tree, worked off one
// at a time by the watcher thread (watch/watcher_thread.h), so that neither
// the bus thread nor the event loop waits for a long walk.
//
// Lock order: docs/code-map.md; a remover waits on add_finished_ without the
// table's mutex.
#pragma once

#include <atomic>
#include <deque>
#include <optional>
#include <string>

#include "common/mutex.h"
#include "storage/watch_requests.h"

namespace zibd {

struct WatchRequest {
  enum class Operation { kRemove = 0, kAdd = 1 };
  Operation operation;
  std::string path;
};

class WatchRequestQueue final : public WatchRequests {
 public:
  WatchRequestQueue() = default;
  WatchRequestQueue(const WatchRequestQueue&) = delete;
  WatchRequestQueue& operator=(const WatchRequestQueue&) = delete;

  // Appends a recursive add of path. Any thread.
  void fsQueueAddWatch(const std::string& path) override EXCLUDES(mutex_);

  // Drops the queued requests for exactly path and appends a remove. When the
  // tree being added now lies at or below path, stops that add and returns
  // only once it has ended (the watch table's walk notices at its next
  // directory). Any thread but the watcher thread.
  void fsQueueRemoveWatch(const std::string& path) override EXCLUDES(mutex_);

  // Shutdown: empties the queue, stops an add in progress and wakes the
  // watcher thread, which then finds the running flag clear.
  void fsStopWatcher() EXCLUDES(mutex_);

  // The flag the watch table polls before every add; see WatchTable.
  const std::atomic<int>& addAbortedFlag() const { return add_aborted_; }
  bool fsWatchAddAborted() const { return add_aborted_.load() != 0; }

  // --- for the watcher thread ---
  // Waits until a request is queued or running is clear; nothing when it is
  // clear. An add is recorded as the add in progress until finishAdd.
  std::optional<WatchRequest> take(const std::atomic<int>& running) EXCLUDES(mutex_);
  // Ends the add in progress: clears the abort flag (whether it was set or
  // not) and wakes the removers waiting for it.
  void finishAdd() noexcept EXCLUDES(mutex_);
  // Wakes a take() that waits, so that it looks at the running flag again.
  void wake() EXCLUDES(mutex_);

  // Queued requests, and whether an add is in progress (tests).
  std::deque<WatchRequest> queued() const EXCLUDES(mutex_);
  bool addInProgress() const EXCLUDES(mutex_);

 private:
  void append(WatchRequest request) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  CondVar not_empty_;
  CondVar add_finished_;
  std::deque<WatchRequest> queue_ GUARDED_BY(mutex_);
  std::optional<std::string> adding_ GUARDED_BY(mutex_);
  // Written under mutex_, read without it by the watch table's adds.
  std::atomic<int> add_aborted_{0};
};

}  // namespace zibd
