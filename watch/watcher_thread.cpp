#include "watch/watcher_thread.h"

#include <exception>

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
    // A tree that is not watched (its add was dropped or failed) gives
    // kFsErrInvalid, which changes nothing.
    (void)table_.fsRemoveWatch(request->path.c_str());
  }
  return true;
}

void WatcherThread::run() noexcept {
  try {
    while (running_.load() != 0 && step()) {
    }
  } catch (const std::exception&) {
    // Only an allocation failure can get here; the thread ends, and the
    // watches made so far stay.
  }
}

}  // namespace zibd
