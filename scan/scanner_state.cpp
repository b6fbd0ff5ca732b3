#include "scan/scanner_state.h"

#include "common/spawn.h"
#include "common/walk.h"

namespace zibd {

ScannerState::ScannerState(ScanQueue& queue) : queue_(queue) {}

void ScannerState::killProfiler() {
  // The whole group: a profiler's own children must not outlive it.
  if (profiler_pid_ != -1) killProcessGroup(profiler_pid_);
}

void ScannerState::raiseCleanupStop() { std::atomic_ref<int>(cleanup_stop_).store(1); }

void ScannerState::stopScanner() {
  queue_.clear();
  {
    MutexLock lock(mutex_);
    abort_.store(1);
    killProfiler();
    raiseCleanupStop();
  }
  queue_.wake();
  waitIdle();
}

void ScannerState::stopBelow(const std::string& path) {
  queue_.removeUnder(path);
  {
    MutexLock lock(mutex_);
    if (cleanup_path_) raiseCleanupStop();
    if (scanning_path_ && fsPathIsUnder(path.c_str(), scanning_path_->c_str())) {
      abort_.store(1);
      killProfiler();
    }
  }
  waitIdle();
}

void ScannerState::stopAll() { stopBelow(""); }

void ScannerState::releaseTagStore() {
  release_tag_store_.store(true);
  queue_.wake();
}

void ScannerState::waitIdle() {
  MutexLock lock(mutex_);
  // Held across the wait by design: the scanner's reset takes this lock to
  // clear the flags and signals the condition.
  idle_.wait(lock, [this]() REQUIRES(mutex_) {
    return ended_ || (abort_.load() == 0 && std::atomic_ref<int>(cleanup_stop_).load() == 0);
  });
}

void ScannerState::resetFlags() {
  MutexLock lock(mutex_);
  abort_.store(0);
  std::atomic_ref<int>(cleanup_stop_).store(0);
  cleanup_path_.reset();
  scanning_path_.reset();
  profiler_pid_ = -1;
  idle_.notifyAll();
}

void ScannerState::reset() {
  resetFlags();
  queue_.finishTaken();
}

void ScannerState::scannerEnded() {
  MutexLock lock(mutex_);
  ended_ = true;
  idle_.notifyAll();
}

bool ScannerState::setScanningPath(const std::string& path) { return publish(path, false); }

bool ScannerState::setCleanupPath(const std::string& path) { return publish(path, true); }

bool ScannerState::publish(const std::string& path, bool cleanup) {
  {
    MutexLock lock(mutex_);
    (cleanup ? cleanup_path_ : scanning_path_) = path;
  }
  if (!queue_.takenWithdrawn()) return true;
  MutexLock lock(mutex_);
  if (cleanup) raiseCleanupStop();
  else abort_.store(1);
  return false;
}

bool ScannerState::setProfilerPid(pid_t pid) {
  MutexLock lock(mutex_);
  profiler_pid_ = pid;
  if (abort_.load() == 0) return true;
  killProfiler();
  return false;
}

void ScannerState::clearProfilerPid() {
  MutexLock lock(mutex_);
  profiler_pid_ = -1;
}

bool ScannerState::busy() const {
  MutexLock lock(mutex_);
  return scanning_path_.has_value() || cleanup_path_.has_value();
}

}  // namespace zibd
