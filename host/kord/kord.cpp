// The tag file system on SQLite, for development hosts (platform/kord.h).
//
// Each bulk handle owns its own SQLite connection, opened on the first setpath
// once a database is configured, reopened when the configuration names
// another one and closed when it names none. The calls without a handle share
// one connection under a mutex, closed by any call (kord_bulk_fini included)
// that finds the configuration emptied: a lost disk is let go as soon as the
// process touches the tag store once more.
// Every entry point catches everything: results are codes, and the reason for
// the last failure is kept per thread (kord_host.h: lastError()).
//
// Grouped commits. kord_bulk_commit leaves a handle's commits in its open
// SQLite transaction (a group) and really commits it when the group is
// kGroupWindow old or holds kGroupCommits commits (at that commit, or by the
// flusher thread once the window has passed while the handle is idle), at
// kord_bulk_fini, and before any call of this process that works on the rows
// through another handle or the shared connection (moves, deletes, views,
// cleanup, listings). A group holds the database's write lock, so that is
// also what keeps another handle's writer from waiting on it. A handle in the
// middle of a file (changes after its last commit) has the group written
// without them and its changes made again (flushGroup).
#include "platform/kord.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "host/kord/condition.h"
#include "host/kord/configuration.h"
#include "host/kord/failure.h"
#include "host/kord/kord_host.h"
#include "host/kord/paths.h"
#include "host/kord/store.h"

namespace zibd::kord {

using Clock = std::chrono::steady_clock;

// What a bulk handle holds. Shared with the library's list of open groups,
// which may flush it from another thread: every call on the handle holds
// `mutex`.
//
// The locks of this file, in the order they are taken (clang sees no two of
// them taken in one function, so the order is kept by review and by the tests
// under ThreadSanitizer):
//  - a handle's `mutex`, then Groups::mutex_, never the other way round: a
//    flusher copies the list of open groups and lets go of mutex_ before it
//    locks a handle. No two handles' mutexes are held together.
//  - a handle's `mutex` or Library::shared_mutex_, then (briefly) the
//    Configuration's own mutex.
//  - Library::shared_mutex_ is taken holding neither of the others:
//    withShared ends the groups of this process's handles first.
struct HandleState {
  Mutex mutex;
  std::string path GUARDED_BY(mutex);  // empty: nothing selected
  std::unique_ptr<Store> store GUARDED_BY(mutex) PT_GUARDED_BY(mutex);
  bool flush_requested GUARDED_BY(mutex) = false;  // flush at the next commit
  Clock::time_point group_deadline GUARDED_BY(mutex);
  // Commits are written one by one until then.
  Clock::time_point ungrouped_until GUARDED_BY(mutex);
  // Why a group flushed from outside failed; told at the next commit.
  std::string lost GUARDED_BY(mutex);
};

}  // namespace zibd::kord

// A bulk handle.
struct kord_bulk {
  std::shared_ptr<zibd::kord::HandleState> state = std::make_shared<zibd::kord::HandleState>();
};

namespace zibd::kord {

namespace {

// How long and how many commits a group may hold. A commit older than the
// window is written (see docs/kord.md for what survives a kill).
constexpr auto kGroupWindow = std::chrono::milliseconds(40);
constexpr int kGroupCommits = 1000;
// After a group is written the handle commits file by file for a moment, with
// the write lock free between files, so that another process's writer, which
// polls for the lock, gets its turn as it did before commits were grouped.
constexpr auto kUngroupedPause = std::chrono::milliseconds(5);

constexpr std::int64_t kCleanupChunk = 256;  // files checked between two drops
constexpr const char* kTagToBeProfiled = ".s.tbp";
constexpr const char* kTagFileType = ".s.filetype";

thread_local Error t_last_error;

// Ends the handle's group. A handle in the middle of a file gets its changes
// made again after the group, and commits them at once at its next commit
// (it holds the write lock again meanwhile).
void flushHandle(HandleState& state) noexcept REQUIRES(state.mutex) {
  if (!state.store || state.store->groupCommits() == 0) return;
  state.flush_requested = state.store->changedSinceCommit();
  state.ungrouped_until = Clock::now() + kUngroupedPause;
  try {
    state.store->flushGroup(true);
  } catch (const std::exception& e) {
    try {
      state.lost = e.what();
    } catch (...) {
    }
  }
}

// The handles with an open group, and the thread that ends groups whose
// window has passed.
class Groups {
 public:
  // Registers a handle whose group just opened.
  void opened(const std::shared_ptr<HandleState>& state, Clock::time_point deadline)
      EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    for (const Entry& e : open_) {
      if (e.state == state) return;
    }
    open_.push_back({state, deadline});
    count_.store(static_cast<int>(open_.size()), std::memory_order_release);
    if (!flusher_running_) {
      static std::once_flag at_fork;
      std::call_once(at_fork, [] { ::pthread_atfork(&forkPrepare, &forkParent, &forkChild); });
      // The flusher takes no signals: they are the process's threads' own.
      sigset_t all, old;
      ::sigfillset(&all);
      ::pthread_sigmask(SIG_BLOCK, &all, &old);
      try {
        std::thread([this] { flusherLoop(); }).detach();
        flusher_running_ = true;
      } catch (const std::system_error&) {
        // No thread now: the group ends at the handle's next commit or fini,
        // and the next group tries again.
      }
      ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    if (open_.size() == 1) wake_->notifyOne();
  }

  void closed(const HandleState* state) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    open_.erase(std::remove_if(open_.begin(), open_.end(),
                               [&](const Entry& e) { return e.state.get() == state; }),
                open_.end());
    count_.store(static_cast<int>(open_.size()), std::memory_order_release);
  }

  // While a writer of this process waits for the write lock, handles write
  // every commit at once instead of grouping, so that it gets its turn.
  class Waiting {
   public:
    explicit Waiting(Groups& groups) : groups_(groups) { groups_.waiting_.fetch_add(1); }
    ~Waiting() { groups_.waiting_.fetch_sub(1); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

   private:
    Groups& groups_;
  };
  bool writerWaiting() const { return waiting_.load(std::memory_order_relaxed) != 0; }

  // Ends every open group but self's, so that what they committed is seen
  // (and their write lock is free). Called holding no handle's mutex.
  void flushAllBut(const HandleState* self) EXCLUDES(mutex_) {
    int open = count_.load(std::memory_order_acquire);
    if (open == 0 || (open == 1 && self && isOnlyOpen(self))) return;
    std::vector<std::shared_ptr<HandleState>> others;
    {
      MutexLock lock(mutex_);
      for (const Entry& e : open_) {
        if (e.state.get() != self) others.push_back(e.state);
      }
    }
    for (const auto& state : others) {
      flushAndForget(*state);
    }
  }

 private:
  struct Entry {
    std::shared_ptr<HandleState> state;
    Clock::time_point deadline;
  };

  // Under the handle's mutex, so that a group the handle opens meanwhile is
  // not forgotten.
  void flushAndForget(HandleState& state) EXCLUDES(mutex_, state.mutex) {
    MutexLock lock(state.mutex);
    flushHandle(state);
    closed(&state);
  }

  bool isOnlyOpen(const HandleState* self) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return open_.size() == 1 && open_.front().state.get() == self;
  }

  // Sleeps in nanosleep and waits for work untimed, so that a sped-up clock
  // (libfaketime in system tests) speeds it too.
  [[noreturn]] void flusherLoop() noexcept EXCLUDES(mutex_) {
    for (;;) {
      std::vector<std::shared_ptr<HandleState>> due;
      Clock::duration sleep{};
      {
        MutexLock lock(mutex_);
        while (open_.empty()) wake_->wait(lock);
        const Clock::time_point now = Clock::now();
        Clock::time_point earliest = Clock::time_point::max();
        for (Entry& e : open_) {
          if (e.deadline <= now) {
            due.push_back(e.state);
          } else {
            earliest = std::min(earliest, e.deadline);
          }
        }
        if (due.empty()) sleep = earliest - now;
      }
      if (due.empty()) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(sleep).count();
        struct timespec ts {
          static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)
        };
        ::nanosleep(&ts, nullptr);
        continue;
      }
      for (const auto& state : due) {
        flushAndForget(*state);
      }
    }
  }

  // A forked child has no flusher thread and none of the parent's groups.
  // mutex_ is held across fork(): forkPrepare takes it, forkParent and
  // forkChild let go of it.
  static void forkPrepare();
  static void forkParent();
  static void forkChild();

  Mutex mutex_;  // lock order: see HandleState
  // Replaced in a forked child, where the parent's flusher still counts as its
  // waiter.
  std::unique_ptr<CondVar> wake_ GUARDED_BY(mutex_) = std::make_unique<CondVar>();
  std::vector<Entry> open_ GUARDED_BY(mutex_);
  std::atomic<int> count_{0};  // open_.size(), read without the lock
  std::atomic<int> waiting_{0};
  bool flusher_running_ GUARDED_BY(mutex_) = false;
};

class Library {
 public:
  Configuration& configuration() { return configuration_; }
  Groups& groups() { return groups_; }

  // Runs fn on the shared connection, (re)opened for the current location,
  // with shared_mutex_ held. Ends the groups of this process's handles first.
  template <typename Fn>
  auto withShared(Fn&& fn) EXCLUDES(shared_mutex_) {
    Groups::Waiting waiting(groups_);
    groups_.flushAllBut(nullptr);
    MutexLock lock(shared_mutex_);
    std::shared_ptr<const Location> location = configuration_.current();
    if (!location->configured) {
      shared_.reset();  // the disk it was on may be about to go
      fail(Status::kNoDatabase, location->problem);
    }
    if (!shared_ || shared_->location().generation != location->generation) {
      shared_.reset();
      shared_ = std::make_unique<Store>(std::move(location));
    }
    return fn(*shared_);
  }

  // Closes the shared connection when the configuration names no database
  // any more, so that the disk the database was on can be unmounted.
  void closeSharedIfUnconfigured() EXCLUDES(shared_mutex_) {
    MutexLock lock(shared_mutex_);
    if (shared_ && !configuration_.current()->configured) shared_.reset();
  }

 private:
  Configuration configuration_;  // thread-safe on its own
  Groups groups_;
  Mutex shared_mutex_;  // lock order: see HandleState
  // Used only under shared_mutex_, the Store as much as the pointer.
  std::unique_ptr<Store> shared_ GUARDED_BY(shared_mutex_) PT_GUARDED_BY(shared_mutex_);
};

// Never destroyed: threads of the daemon may still call in while the process
// exits, and SQLite needs no orderly close for what is committed.
Library& library() {
  static Library* instance = new Library;
  return *instance;
}

// Returns holding mutex_, which the analysis cannot follow into the handler
// that lets go of it after the fork.
void Groups::forkPrepare() NO_THREAD_SAFETY_ANALYSIS { library().groups().mutex_.lock(); }
void Groups::forkParent() {
  Groups& g = library().groups();
  g.mutex_.assertHeld();  // by forkPrepare
  g.mutex_.unlock();
}
void Groups::forkChild() {
  Groups& g = library().groups();
  g.mutex_.assertHeld();  // by forkPrepare, before the fork
  // The parent's handles are the parent's: the child never commits them.
  static auto* kept = new std::vector<std::shared_ptr<HandleState>>;
  for (Entry& e : g.open_) kept->push_back(std::move(e.state));
  g.open_.clear();
  static auto* old_wakes = new std::vector<CondVar*>;
  old_wakes->push_back(g.wake_.release());  // never touched again
  g.wake_ = std::make_unique<CondVar>();
  g.count_.store(0);
  g.flusher_running_ = false;
  g.mutex_.unlock();
}

void clearLastError() noexcept {
  t_last_error.status = Status::kOk;
  t_last_error.message.clear();
}

// Records a failure that is not worth an exception (a missing tag is the
// common answer of gettag for a new file) and returns the failure code.
int notFound(const char* what, const char* name) noexcept {
  try {
    setLastError(Status::kNotFound, std::string(what) + name);
  } catch (...) {
    setLastError(Status::kNotFound, {});
  }
  return -1;
}

void recordException() noexcept {
  // Called inside a catch block: the exception, and so what(), outlives this.
  Status status = Status::kFailed;
  const char* message = "unexpected failure";
  try {
    throw;
  } catch (const Failure& f) {
    status = f.status();
    message = f.what();
  } catch (const std::bad_alloc&) {
    message = "out of memory";
  } catch (const std::exception& e) {
    message = e.what();
  } catch (...) {
  }
  try {
    setLastError(status, message);
  } catch (...) {
    setLastError(status, {});  // no room for the text
  }
}

// Runs fn (returning an int code) with everything caught; -1 on exceptions.
template <typename Fn>
int guarded(Fn&& fn) noexcept {
  clearLastError();
  try {
    return fn();
  } catch (...) {
    recordException();
    return -1;
  }
}

// The same for the host API, which answers a Status.
template <typename Fn>
Status guardedStatus(Fn&& fn) noexcept {
  int rc = guarded([&] {
    fn();
    return 0;
  });
  return rc == 0 ? Status::kOk : t_last_error.status;
}

void requireArgument(const void* p, const char* what) {
  if (!p) fail(Status::kBadArgument, std::string(what) + " is NULL");
}

// A tag to write: a non-empty name and a value.
void requireTag(const char* name, const char* value) {
  requireArgument(name, "name");
  requireArgument(value, "value");
  if (!*name) fail(Status::kBadArgument, "empty tag name");
}

std::string_view canonicalPath(const char* path) {
  requireArgument(path, "path");
  if (!isCanonical(path))
    fail(Status::kBadArgument, std::string("not a canonical absolute path: ") + path);
  return path;
}

// Closes a handle's connection: grouped commits go to the database they were
// made for; changes not committed yet go with the connection.
void closeStore(HandleState& state) REQUIRES(state.mutex) {
  if (!state.store) return;
  try {
    state.store->flushGroup(false);
  } catch (const Failure&) {
    // lost with the old database, like changes not committed
  }
  library().groups().closed(&state);
  state.store.reset();
}

// A call on a handle: the other handles' groups are ended first, then the
// handle is locked for the call (state().mutex, held until the call ends). A
// call that writes counts as a waiting writer (Groups::Waiting) while it runs.
class SCOPED_CAPABILITY HandleCall {
 public:
  explicit HandleCall(kord_bulk_t* handle, bool writes = false) ACQUIRE(state().mutex)
      : state_(stateOf(handle)) {
    if (writes) waiting_.emplace(library().groups());
    library().groups().flushAllBut(&state_);
    lock_.emplace(state_.mutex);
  }
  ~HandleCall() RELEASE() {}
  HandleCall(const HandleCall&) = delete;
  HandleCall& operator=(const HandleCall&) = delete;

  HandleState& state() { return state_; }
  // The handle's store, with a path selected.
  Store& selected() REQUIRES(state().mutex) {
    if (state().path.empty()) fail(Status::kBadArgument, "no path selected");
    return *state().store;
  }

 private:
  static HandleState& stateOf(kord_bulk_t* handle) {
    requireArgument(handle, "handle");
    return *handle->state;
  }

  HandleState& state_;
  std::optional<Groups::Waiting> waiting_;  // destroyed after the lock is let go
  std::optional<MutexLock> lock_;
};

// kord_bulk_setpath on its locked handle.
void selectPath(HandleState& state, const char* path) REQUIRES(state.mutex) {
  state.path.clear();  // a failed selection selects nothing
  std::string_view canonical = canonicalPath(path);
  auto location = library().configuration().current();
  if (!location->configured) {
    // The connection goes with the database it was on.
    closeStore(state);
    fail(Status::kNoDatabase, location->problem);
  }
  if (!isBelow(canonical, location->root))
    fail(Status::kBadArgument,
         std::string(canonical) + " is not below the database root " + location->root);
  if (!state.store || state.store->location().generation != location->generation) {
    closeStore(state);
    state.store = std::make_unique<Store>(std::move(location));
  }
  state.path.assign(canonical);  // reuses the handle's buffer
}

// kord_bulk_commit on its locked handle; shared is the handle's own pointer to
// its state, which an opened group is listed by.
void commitHandle(HandleState& state, const std::shared_ptr<HandleState>& shared)
    REQUIRES(state.mutex) {
  if (!state.lost.empty()) {
    std::string lost = std::move(state.lost);
    state.lost.clear();
    fail(Status::kFailed, "grouped commits were lost: " + lost);
  }
  if (!state.store) return;
  const int before = state.store->groupCommits();
  const auto now = Clock::now();
  // A commit with nothing new asks for what the group holds to be written
  // now, so that a write that fails is told to this caller.
  const bool flush = state.flush_requested || before + 1 >= kGroupCommits ||
                     (before > 0 && now >= state.group_deadline) ||
                     (before > 0 && !state.store->changedSinceCommit()) ||
                     (before == 0 && now < state.ungrouped_until) ||
                     library().groups().writerWaiting();
  bool open;
  try {
    open = state.store->commit(!flush);
  } catch (...) {
    if (before > 0) library().groups().closed(&state);
    throw;
  }
  if (open && before == 0) {
    state.group_deadline = now + kGroupWindow;
    library().groups().opened(shared, state.group_deadline);
  } else if (!open) {
    state.flush_requested = false;
    if (before > 0) {
      state.ungrouped_until = now + kUngroupedPause;
      library().groups().closed(&state);
    }
  }
}

}  // namespace

void setLastError(Status status, std::string message) noexcept {
  t_last_error.status = status;
  t_last_error.message = std::move(message);  // a move cannot throw
}

Error lastError() { return t_last_error; }

void useDatabase(const std::string& file) { library().configuration().useDatabase(file); }

Status listTags(const std::string& path, std::vector<std::pair<std::string, std::string>>* tags) {
  return guardedStatus([&] {
    library().withShared([&](Store& store) {
      std::int64_t id = store.findFile(canonicalPath(path.c_str()));
      if (id == 0) fail(Status::kNotFound, "not in the database: " + path);
      *tags = store.tagsOf(id);
    });
  });
}

Status listFiles(const std::string& under, std::vector<std::string>* paths) {
  return guardedStatus([&] {
    std::string_view dir = canonicalPath(under.c_str());
    *paths = library().withShared([&](Store& store) { return store.pathsBelow(dir); });
  });
}

Status query(const std::string& condition, std::vector<std::string>* paths) {
  return guardedStatus([&] {
    Condition parsed = Condition::parse(condition);
    *paths = library().withShared([&](Store& store) { return store.pathsMatching(parsed); });
  });
}

Status stats(Stats* out) {
  return guardedStatus([&] {
    library().withShared([&](Store& store) {
      out->files = static_cast<std::uint64_t>(store.count("SELECT count(*) FROM files"));
      out->to_be_profiled = static_cast<std::uint64_t>(store.count(
          std::string("SELECT count(*) FROM tags WHERE name = '") + kTagToBeProfiled + "'"));
      out->by_filetype = store.countValues(kTagFileType);
    });
  });
}

}  // namespace zibd::kord

using zibd::kord::fail;
using zibd::kord::guarded;
using zibd::kord::library;
using zibd::kord::Status;
using zibd::kord::Store;

extern "C" kord_bulk_t* kord_bulk_init(void) {
  // Connections are used from several threads (one at a time each); that
  // needs a SQLite built thread-safe.
  if (!::sqlite3_threadsafe()) return nullptr;
  try {
    library();
    return new kord_bulk_t;
  } catch (...) {
    zibd::kord::recordException();
    return nullptr;
  }
}

extern "C" int kord_bulk_setpath(kord_bulk_t* handle, const char* path) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle);
    zibd::kord::selectPath(call.state(), path);
    return 0;
  });
}

extern "C" int kord_bulk_gettag(kord_bulk_t* handle, const char* name, char* value, size_t size) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle);
    Store& store = call.selected();
    zibd::kord::requireArgument(name, "name");
    zibd::kord::requireArgument(value, "value");
    if (size == 0) fail(Status::kBadArgument, "no room for the value");
    std::string text;
    if (!store.getTag(call.state().path, name, &text)) return zibd::kord::notFound("no tag ", name);
    std::size_t n = std::min(text.size(), size - 1);
    std::memcpy(value, text.data(), n);
    value[n] = '\0';
    return 0;
  });
}

extern "C" int kord_bulk_settag(kord_bulk_t* handle, const char* name, const char* value) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle, true);
    Store& store = call.selected();
    zibd::kord::requireTag(name, value);
    store.setTag(call.state().path, name, value);
    return 0;
  });
}

extern "C" int kord_bulk_settag_recursive(kord_bulk_t* handle, const char* name,
                                          const char* value) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle, true);
    Store& store = call.selected();
    zibd::kord::requireTag(name, value);
    store.setTagBelow(call.state().path, name, value);
    return 0;
  });
}

extern "C" int kord_bulk_deltag(kord_bulk_t* handle, const char* name) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle, true);
    Store& store = call.selected();
    zibd::kord::requireArgument(name, "name");
    return store.deleteTag(call.state().path, name) ? 0 : zibd::kord::notFound("no tag ", name);
  });
}

extern "C" int kord_bulk_commit(kord_bulk_t* handle) {
  return guarded([&] {
    zibd::kord::HandleCall call(handle);
    zibd::kord::commitHandle(call.state(), handle->state);
    return 0;
  });
}

extern "C" void kord_bulk_fini(kord_bulk_t* handle) {
  if (!handle) return;
  zibd::kord::HandleState& state = *handle->state;
  {
    zibd::MutexLock lock(state.mutex);
    if (state.store) {
      // What was committed is written; what was not is discarded.
      try {
        state.store->flushGroup(false);
      } catch (...) {
        zibd::kord::recordException();
      }
      state.store.reset();
    }
  }
  library().groups().closed(&state);
  delete handle;
  try {
    library().closeSharedIfUnconfigured();
  } catch (...) {
    zibd::kord::recordException();
  }
}

extern "C" int kord_move(const char* old_path, const char* new_path) {
  return guarded([&] {
    std::string_view from = zibd::kord::canonicalPath(old_path);
    std::string_view to = zibd::kord::canonicalPath(new_path);
    library().withShared([&](Store& store) {
      if (!zibd::kord::isBelow(to, store.location().root))
        fail(Status::kBadArgument,
             std::string(to) + " is not below the database root " + store.location().root);
      store.move(from, to);
    });
    return 0;
  });
}

extern "C" int kord_delete(const char* path) {
  return guarded([&] {
    std::string_view canonical = zibd::kord::canonicalPath(path);
    library().withShared([&](Store& store) { store.remove(canonical); });
    return 0;
  });
}

extern "C" int kord_cleanup_attached(const char* path, int* stop, kord_check_fn check) {
  return guarded([&] {
    std::string_view dir = zibd::kord::canonicalPath(path);
    zibd::kord::requireArgument(reinterpret_cast<const void*>(check), "check");
    // The checks run without the shared connection's lock: they call
    // access(), and may take long.
    std::string after;
    for (;;) {
      zibd::kord::FileList chunk = library().withShared([&](Store& store) {
        return store.filesBelowAfter(dir, after, zibd::kord::kCleanupChunk);
      });
      zibd::kord::FileList drop;
      bool stopped = false;
      for (const auto& file : chunk) {
        if (stop && std::atomic_ref<int>(*stop).load()) {
          stopped = true;
          break;
        }
        if (check(file.second.c_str()) == 1) drop.push_back(file);
      }
      library().withShared([&](Store& store) { store.dropFiles(drop); });
      if (stopped) {
        zibd::kord::setLastError(Status::kFailed, "stopped on request");
        return 1;
      }
      if (static_cast<std::int64_t>(chunk.size()) < zibd::kord::kCleanupChunk) return 0;
      after = chunk.back().second;
    }
  });
}

extern "C" int kord_view_create(const char* name) {
  return guarded([&] {
    zibd::kord::requireArgument(name, "name");
    library().withShared([&](Store& store) { store.createView(name); });
    return 0;
  });
}

extern "C" int kord_view_set_cond(const char* name, const char* condition) {
  return guarded([&] {
    zibd::kord::requireArgument(name, "name");
    zibd::kord::requireArgument(condition, "condition");
    library().withShared([&](Store& store) { store.setViewCondition(name, condition); });
    return 0;
  });
}

extern "C" int kord_view_get_path(const char* name, char* path, size_t size) {
  int rc = guarded([&] {
    zibd::kord::requireArgument(name, "name");
    zibd::kord::requireArgument(path, "path");
    std::string dir = library().withShared([&](Store& store) { return store.viewDirectory(name); });
    if (dir.size() >= size) fail(Status::kBadArgument, "no room for the view path " + dir);
    std::memcpy(path, dir.c_str(), dir.size() + 1);
    return 0;
  });
  return rc == 0 ? 1 : 0;  // this call alone answers non-zero for success
}

extern "C" int kord_view_delete(const char* name) {
  return guarded([&] {
    zibd::kord::requireArgument(name, "name");
    library().withShared([&](Store& store) { store.deleteView(name); });
    return 0;
  });
}
