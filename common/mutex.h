// The daemon's mutex, lock guard and condition variable, annotated for clang's
// thread-safety analysis (see thread_annotations.h).
//
// Declare a mutex beside the data it guards and mark that data GUARDED_BY it;
// functions that expect the caller to hold it say REQUIRES(mutex). Two
// mutexes of one object that are taken together say so with ACQUIRED_BEFORE,
// which clang checks; the daemon's lock order across objects is written once,
// in docs/code-map.md.
//
// Waits: threads wait only untimed on a CondVar (or in poll/select/sleep),
// because libfaketime, which speeds the clock in system tests, does not
// handle timed condition waits.
#pragma once

#include <condition_variable>
#include <mutex>

#include "common/thread_annotations.h"

namespace zibd {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  // Tells the analysis that the caller holds this mutex where it cannot see
  // it (a C callback called with the lock held, for instance).
  void assertHeld() const ASSERT_CAPABILITY(this) {}

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  friend class CondVar;
  std::unique_lock<std::mutex> lock_;
};

// A condition variable used with a MutexLock on the Mutex it belongs to.
class CondVar {
 public:
  // Releases the lock while waiting, holds it again on return. Spurious
  // wake-ups happen: callers test their condition again.
  void wait(MutexLock& lock) { cv_.wait(lock.lock_); }
  template <typename Predicate>
  void wait(MutexLock& lock, Predicate done) {
    cv_.wait(lock.lock_, done);
  }
  void notifyOne() noexcept { cv_.notify_one(); }
  void notifyAll() noexcept { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace zibd
