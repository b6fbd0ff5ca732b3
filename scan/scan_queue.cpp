#include "scan/scan_queue.h"

#include <climits>
#include <cstdlib>

#include "common/walk.h"

namespace zibd {

ScanQueue::ScanQueue(const StorageQueries& storage, ScanReports& reports,
                     const std::atomic<int>& running)
    : storage_(storage), reports_(reports), running_(running) {
  // Without the pipe a scanner that waits in poll sees new work only when
  // that wait ends for another reason.
  (void)wakeup_pipe_.open(O_NONBLOCK);
}

void ScanQueue::signalLocked() {
  wakeup_.notifyAll();
  sendWakeup(wakeup_pipe_.write_end);
}

void ScanQueue::drainWakeups() { zibd::drainWakeups(wakeup_pipe_.read_end); }

void ScanQueue::enqueue(const std::string& path, uint32_t kind) {
  if (!storage_.storageReady()) return;
  if (kind == kScanChangedDirectory) {
    // Asked for every changed directory although nothing depends on the
    // answer; it only takes the storage lock, which the caller does not hold.
    (void)storage_.pathIsOnPartition(path);
  }
  if (kind > kScanNewTree) return;

  char resolved[PATH_MAX];
  if (!::realpath(path.c_str(), resolved)) return;
  ScanRequest request{resolved, kind};
  // realpath leaves a trailing '/' only on the root, which becomes "".
  if (!request.path.empty() && request.path.back() == '/') request.path.pop_back();

  MutexLock lock(mutex_);
  switch (kind) {
    case kScanRuleDirectory:
    case kScanStorageRoot:
      ordinary_.push_back(std::move(request));
      break;
    case kScanChangedDirectory:
    case kScanNewTree:
      priority_.push_back(std::move(request));
      break;
    case kScanForcedRescan: {
      const std::string& queued = priority_.emplace_back(std::move(request)).path;
      for (auto it = ordinary_.begin(); it != ordinary_.end(); ++it) {
        if (it->path == queued) {
          ordinary_.erase(it);
          break;
        }
      }
      break;
    }
  }
  if (!busy_) {
    // Made with the mutex held, so the started and finished reports keep
    // their order; a report never blocks.
    reports_.reportProfiling(true);
    busy_ = true;
  }
  signalLocked();
}

std::optional<ScanRequest> ScanQueue::popLocked() {
  std::list<ScanRequest>& from = priority_.empty() ? ordinary_ : priority_;
  if (from.empty()) return std::nullopt;
  std::optional<ScanRequest> request(std::move(from.front()));
  from.pop_front();
  return request;
}

std::optional<ScanRequest> ScanQueue::take(bool block) {
  MutexLock lock(mutex_);
  if (busy_ && priority_.empty() && ordinary_.empty()) {
    reports_.reportProfiling(false);
    busy_ = false;
  }
  std::optional<ScanRequest> request;
  if (running_.load() != 0) {
    request = popLocked();
    if (!request && block) {
      // One untimed wait: an enqueue, a wake() or a spurious wake-up ends it.
      // The running flag is tested with the mutex held and every stop wakes
      // the queue with it held, so a stop cannot slip in before the wait.
      wakeup_.wait(lock);
      request = popLocked();
    }
  }
  if (running_.load() == 0) {
    priority_.clear();
    ordinary_.clear();
    return std::nullopt;
  }
  if (request) {
    taken_ = request->path;
    taken_withdrawn_ = false;
  }
  return request;
}

bool ScanQueue::takenWithdrawn() const {
  MutexLock lock(mutex_);
  return taken_withdrawn_;
}

void ScanQueue::finishTaken() {
  MutexLock lock(mutex_);
  taken_.reset();
  taken_withdrawn_ = false;
}

std::optional<ScanRequest> ScanQueue::takeChangedDirectory() {
  MutexLock lock(mutex_);
  if (running_.load() == 0 || priority_.empty() || priority_.front().kind != kScanChangedDirectory)
    return std::nullopt;
  return popLocked();
}

void ScanQueue::removeUnder(const std::string& prefix) {
  MutexLock lock(mutex_);
  auto under = [&prefix](const ScanRequest& r) {
    return fsPathIsUnder(prefix.c_str(), r.path.c_str());
  };
  priority_.remove_if(under);
  ordinary_.remove_if(under);
  if (taken_ && fsPathIsUnder(prefix.c_str(), taken_->c_str())) taken_withdrawn_ = true;
}

void ScanQueue::clear() {
  MutexLock lock(mutex_);
  priority_.clear();
  ordinary_.clear();
}

void ScanQueue::wake() {
  MutexLock lock(mutex_);
  signalLocked();
}

std::size_t ScanQueue::size() const {
  MutexLock lock(mutex_);
  return priority_.size() + ordinary_.size();
}

}  // namespace zibd
