#include "watch/watch_request_queue.h"

#include <utility>

#include "common/walk.h"

namespace zibd {

void WatchRequestQueue::append(WatchRequest request) {
  MutexLock lock(mutex_);
  queue_.push_back(std::move(request));
  not_empty_.notifyOne();
}

void WatchRequestQueue::fsQueueAddWatch(const std::string& path) {
  append({WatchRequest::Operation::kAdd, path});
}

void WatchRequestQueue::fsQueueRemoveWatch(const std::string& path) {
  bool wait = false;
  {
    MutexLock lock(mutex_);
    if (adding_ && fsPathIsUnder(path.c_str(), adding_->c_str())) {
      add_aborted_.store(1);
      wait = true;
    }
    std::erase_if(queue_, [&](const WatchRequest& r) { return r.path == path; });
  }
  append({WatchRequest::Operation::kRemove, path});
  if (!wait) return;
  // Waits for the watcher thread by design: the partition's tree must not be
  // walked any more once its remove has been queued.
  MutexLock lock(mutex_);
  add_finished_.wait(lock, [this]() REQUIRES(mutex_) { return add_aborted_.load() == 0; });
}

void WatchRequestQueue::fsStopWatcher() {
  MutexLock lock(mutex_);
  queue_.clear();
  add_aborted_.store(1);
  not_empty_.notifyAll();
}

std::optional<WatchRequest> WatchRequestQueue::take(const std::atomic<int>& running) {
  MutexLock lock(mutex_);
  not_empty_.wait(lock, [&]() REQUIRES(mutex_) { return running.load() == 0 || !queue_.empty(); });
  if (running.load() == 0) return std::nullopt;
  WatchRequest request = std::move(queue_.front());
  queue_.pop_front();
  if (request.operation == WatchRequest::Operation::kAdd) adding_ = request.path;
  return request;
}

void WatchRequestQueue::finishAdd() noexcept {
  MutexLock lock(mutex_);
  add_aborted_.store(0);
  adding_.reset();
  add_finished_.notifyAll();
}

void WatchRequestQueue::wake() {
  MutexLock lock(mutex_);
  not_empty_.notifyAll();
}

std::deque<WatchRequest> WatchRequestQueue::queued() const {
  MutexLock lock(mutex_);
  return queue_;
}

bool WatchRequestQueue::addInProgress() const {
  MutexLock lock(mutex_);
  return adding_.has_value();
}

}  // namespace zibd
