// The tag file system on SQLite, for development hosts (platform/kord.h).
//
// Each bulk handle owns its own SQLite connection, opened on the first setpath
// once a database is configured and reopened when the configuration names
// another one. The calls without a handle share one connection under a mutex.
// Every entry point catches everything: results are codes, and the reason for
// the last failure is kept per thread (kord_host.h: lastError()).
#include "platform/kord.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "host/kord/condition.h"
#include "host/kord/configuration.h"
#include "host/kord/failure.h"
#include "host/kord/kord_host.h"
#include "host/kord/paths.h"
#include "host/kord/store.h"

// A bulk handle: the selected path and the connection it writes through.
struct kord_bulk {
  std::string path;  // empty: nothing selected
  std::unique_ptr<zibd::kord::Store> store;
};

namespace zibd::kord {

namespace {

constexpr std::int64_t kCleanupChunk = 256;  // files checked between two drops
constexpr const char* kTagToBeProfiled = ".s.tbp";
constexpr const char* kTagFileType = ".s.filetype";

thread_local Error t_last_error;

class Library {
 public:
  Configuration& configuration() { return configuration_; }

  // Runs fn on the shared connection, (re)opened for the current location.
  // Takes shared_mutex_, then (briefly) the Configuration's own mutex.
  template <typename Fn>
  auto withShared(Fn&& fn) {
    std::lock_guard lock(shared_mutex_);
    std::shared_ptr<const Location> location = configuration_.current();
    if (!location->configured) fail(Status::kNoDatabase, location->problem);
    if (!shared_ || shared_->location().generation != location->generation) {
      shared_.reset();
      shared_ = std::make_unique<Store>(std::move(location));
    }
    return fn(*shared_);
  }

 private:
  Configuration configuration_;  // thread-safe on its own
  std::mutex shared_mutex_;      // guards shared_ and every use of the Store in it
  std::unique_ptr<Store> shared_;
};

// Never destroyed: threads of the daemon may still call in while the process
// exits, and SQLite needs no orderly close for what is committed.
Library& library() {
  static Library* instance = new Library;
  return *instance;
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

Store& selected(kord_bulk_t* handle) {
  requireArgument(handle, "handle");
  if (handle->path.empty()) fail(Status::kBadArgument, "no path selected");
  return *handle->store;
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
    zibd::kord::requireArgument(handle, "handle");
    handle->path.clear();  // a failed selection selects nothing
    std::string_view canonical = zibd::kord::canonicalPath(path);
    auto location = library().configuration().current();
    if (!location->configured) fail(Status::kNoDatabase, location->problem);
    if (!zibd::kord::isBelow(canonical, location->root))
      fail(Status::kBadArgument,
           std::string(canonical) + " is not below the database root " + location->root);
    if (!handle->store || handle->store->location().generation != location->generation) {
      // Uncommitted changes were meant for the database that is no longer
      // configured: they go with its connection.
      handle->store.reset();
      handle->store = std::make_unique<Store>(std::move(location));
    }
    handle->path.assign(canonical);  // reuses the handle's buffer
    return 0;
  });
}

extern "C" int kord_bulk_gettag(kord_bulk_t* handle, const char* name, char* value, size_t size) {
  return guarded([&] {
    Store& store = zibd::kord::selected(handle);
    zibd::kord::requireArgument(name, "name");
    zibd::kord::requireArgument(value, "value");
    if (size == 0) fail(Status::kBadArgument, "no room for the value");
    std::string text;
    if (!store.getTag(handle->path, name, &text)) return zibd::kord::notFound("no tag ", name);
    std::size_t n = std::min(text.size(), size - 1);
    std::memcpy(value, text.data(), n);
    value[n] = '\0';
    return 0;
  });
}

extern "C" int kord_bulk_settag(kord_bulk_t* handle, const char* name, const char* value) {
  return guarded([&] {
    Store& store = zibd::kord::selected(handle);
    zibd::kord::requireTag(name, value);
    store.setTag(handle->path, name, value);
    return 0;
  });
}

extern "C" int kord_bulk_settag_recursive(kord_bulk_t* handle, const char* name,
                                          const char* value) {
  return guarded([&] {
    Store& store = zibd::kord::selected(handle);
    zibd::kord::requireTag(name, value);
    store.setTagBelow(handle->path, name, value);
    return 0;
  });
}

extern "C" int kord_bulk_deltag(kord_bulk_t* handle, const char* name) {
  return guarded([&] {
    Store& store = zibd::kord::selected(handle);
    zibd::kord::requireArgument(name, "name");
    return store.deleteTag(handle->path, name) ? 0 : zibd::kord::notFound("no tag ", name);
  });
}

extern "C" int kord_bulk_commit(kord_bulk_t* handle) {
  return guarded([&] {
    zibd::kord::requireArgument(handle, "handle");
    if (handle->store) handle->store->commit();
    return 0;
  });
}

extern "C" void kord_bulk_fini(kord_bulk_t* handle) {
  delete handle;  // ~Store rolls back what was not committed
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
