#include "watch/watcher_thread.h"

namespace zibd {

bool WatcherThread::step() {
  std::optional<WatchRequest> request = queue_.take(running_);
  if (!request) return false;
  if (request->operation == WatchRequest::Operation::kAdd) {
    // A partition that could only partly be watched stays partly watched;
    // nothing retries.
    (void)table_.fsAddWatchTree(request->path.c_str(), true);
    queue_.finishAdd();
  } else {
    // A tree that is not watched (its add was dropped or failed) is not
    // found, which changes nothing.
    (void)table_.fsRemoveWatch(request->path.c_str());
  }
  return true;
}

void WatcherThread::run() noexcept {
  while (running_.load() != 0) {
    try {
      if (!step()) return;
    } catch (...) {
      // The request is dropped and the thread carries on (docs/code-map.md).
    }
  }
}

}  // namespace zibd
