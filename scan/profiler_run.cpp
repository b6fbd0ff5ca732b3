#include "scan/profiler_run.h"

#include <dirent.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "common/spawn.h"
#include "common/walk.h"

namespace zibd {
namespace {

// Sizes of the view texts; a longer name or condition is cut to fit.
constexpr std::size_t kViewNameSize = 60;
constexpr std::size_t kViewConditionSize = 300;
constexpr std::size_t kViewPathSize = 100;
constexpr std::size_t kTimeTextSize = 20;

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using Dir = std::unique_ptr<DIR, DirCloser>;  // glibc opens it close-on-exec

bool isSymlink(const struct dirent& entry, const std::string& path) {
  if (entry.d_type == DT_LNK) return true;
  if (entry.d_type != DT_UNKNOWN) return false;
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Whether the child has exited, leaving it unreaped (with block, once it
// has); nullopt when the system cannot tell without reaping it.
std::optional<bool> exitedUnreaped(pid_t pid, bool block = false) {
  for (;;) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | (block ? 0 : WNOHANG)) == 0)
      return info.si_pid == pid;
    if (errno != EINTR) return std::nullopt;
  }
}

void reap(pid_t pid) {
  while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

// Without a pidfd the profiler's state is looked at this often.
constexpr std::chrono::milliseconds kExitPollInterval = std::chrono::seconds(1);

}  // namespace

ProfilerRun::ProfilerRun(ScannerState& state, FileTypeMap& types, Tagger& tagger,
                         const StorageQueries& storage, KordBulk& bulk, ScanQueue& queue,
                         const std::atomic<int>& running,
                         std::chrono::milliseconds profiler_limit)
    : state_(state),
      types_(types),
      tagger_(tagger),
      storage_(storage),
      bulk_(bulk),
      queue_(queue),
      running_(running),
      profiler_limit_(profiler_limit) {}

bool ProfilerRun::stopped() const { return running_.load() == 0 || state_.aborted(); }

Visibility ProfilerRun::visibilityFor(const std::string& path) const {
  if (!managed_ || !fsPathIsUnder(managed_->c_str(), path.c_str())) return {};
  std::string media = *managed_ + "/Media";
  if (path == *managed_) return {Visibility::Kind::kInsideDirectory, std::move(media)};
  if (fsPathIsUnder(media.c_str(), path.c_str())) return {};
  return {Visibility::Kind::kInvisible, {}};
}

void ProfilerRun::run(const std::string& path, bool recursive) {
  // Asked before the scan is published: a stop that holds the storage lock
  // then never waits for this thread while it waits for that lock. The
  // directories tagged while a profiler runs use the same answer.
  managed_ = storage_.managedPartitionPath();
  run_path_ = path;
  if (!state_.setScanningPath(path)) return;
  tag(path, recursive);
  if (stopped()) return;
  // Another pass, with the next run number, for the types whose batches had
  // ended when files of theirs were tagged meanwhile.
  auto pending = [this] {
    return std::any_of(types_.records().begin(), types_.records().end(),
                       [](const auto& record) { return record->pending_count != 0; });
  };
  do {
    ++run_counter_;
    runBatches();
  } while (!stopped() && pending());
}

void ProfilerRun::tag(const std::string& path, bool recursive) {
  const Visibility visibility = visibilityFor(path);
  // A tree that cannot be read tags nothing; the batches still run for what
  // earlier scans left pending.
  (void)fsWalkTree(path.c_str(), {.file = [&](const char* file) { return tagger_.tagFile(file, visibility); }},
                   recursive);
  const Status renewed = renewBulk(bulk_);
  if (tagger_.takeCommitFailed() || !renewed.ok()) lost(path);
}

void ProfilerRun::runBatches() {
  for (const auto& record : types_.records()) {
    if (stopped()) break;
    if (record->pending_count == 0) continue;
    // Counted up to the end of the last batch, so that a file tagged while
    // these batches run gets the batch after them (and the loop reaches it).
    record->pending_count = (record->pending_count / kBatchSize + 1) * kBatchSize - 1;
    for (int batch = 0; batch <= record->pending_count / kBatchSize && !stopped(); ++batch)
      runBatch(*record, batch);
    record->pending_count = 0;
  }
}

void ProfilerRun::runBatch(FileTypeRecord& record, int batch) {
  char name[kViewNameSize];
  std::snprintf(name, sizeof name, "%s.%u.%s.%d.%d", kViewPrefix,
                static_cast<unsigned>(::getpid()), record.type.c_str(), batch, run_counter_);
  char condition[kViewConditionSize];
  std::snprintf(condition, sizeof condition, "@%s@ exists and @%s@='%s' and @%s@='%d'",
                kTagToProfile, kTagFileType, record.type.c_str(), kTagBatchIndex, batch);
  char view_path[kViewPathSize];
  // A view that cannot be made leaves the batch pending, for the scan that
  // the lost tags ask for.
  if (kord_view_create(name) != 0 || kord_view_set_cond(name, condition) != 0 ||
      kord_view_get_path(name, view_path, sizeof view_path) == 0) {
    lost(run_path_);
    return;
  }

  if (!stopped()) runProfiler(record, view_path);
  if (!stopped()) markBatch(view_path);
  if (!renewBulk(bulk_).ok()) lost(run_path_);
  (void)kord_view_delete(name);
}

void ProfilerRun::runProfiler(const FileTypeRecord& record, const char* view_path) {
  std::vector<std::string> argv;
  argv.reserve(record.profiler_arguments.size() + 2);
  argv.push_back(record.profiler_command);
  argv.insert(argv.end(), record.profiler_arguments.begin(), record.profiler_arguments.end());
  argv.emplace_back(view_path);

  // A profiler that could not be started (fork failed) is skipped; one that
  // could not be executed has said "execvp failed" and exits with status 1.
  const Result<ChildProcess> spawned = spawnProcess(argv);
  if (!spawned.ok()) return;
  const ChildProcess& child = spawned.value();
  // A stop that came while it started has killed it already.
  (void)state_.setProfilerPid(child.pid);
  if (!waitForProfiler(child)) {
    reap(child.pid);
    state_.clearProfilerPid();
    return;
  }
  // The pid is withdrawn before the child is reaped, so a stop never signals
  // a number that the system may have given to another process; the group
  // is still the child's until then.
  state_.clearProfilerPid();
  killProcessGroup(child.pid);
  reap(child.pid);
}

bool ProfilerRun::waitForProfiler(const ChildProcess& child) {
  const MonotonicClock::time_point deadline = MonotonicClock::now() + profiler_limit_;
  for (;;) {
    const std::optional<bool> exited = exitedUnreaped(child.pid);
    if (!exited) return false;
    if (*exited) return true;
    const MonotonicClock::time_point now = MonotonicClock::now();
    if (now >= deadline) {
      killProcessGroup(child.pid);
      return exitedUnreaped(child.pid, true).has_value();
    }
    struct pollfd fds[2] = {{child.exited.get(), POLLIN, 0}, {queue_.wakeupFd(), POLLIN, 0}};
    const auto wake = child.exited ? deadline : std::min(deadline, now + kExitPollInterval);
    (void)::poll(fds, 2, pollTimeoutUntil(wake));
    if (fds[1].revents & POLLIN) {
      queue_.drainWakeups();
      tagChangedDirectories();
    }
  }
}

void ProfilerRun::tagChangedDirectories() {
  while (!stopped()) {
    const std::optional<ScanRequest> request = queue_.takeChangedDirectory();
    if (!request) return;
    tag(request->path, false);
  }
}

void ProfilerRun::markBatch(const char* view_path) {
  const std::string prefix = std::string(view_path) + "/";
  // Links whose file could not be marked; later passes pass them over.
  std::set<std::string> unmarkable;
  while (!state_.aborted()) {
    std::vector<std::pair<std::string, std::string>> links;  // name, the path it names
    bool ran_out = false;
    {
      Dir dir(::opendir(view_path));
      if (!dir) return;
      while (links.size() < static_cast<std::size_t>(kMarkPerPass)) {
        const struct dirent* entry = ::readdir(dir.get());
        if (!entry) {
          ran_out = true;
          break;
        }
        std::string name = entry->d_name;
        if (unmarkable.count(name) != 0) continue;
        const std::string link = prefix + name;
        if (!isSymlink(*entry, link)) continue;
        char target[PATH_MAX];
        const ssize_t length = link.size() < kFsPathBufferSize
                                   ? ::readlink(link.c_str(), target, sizeof target)
                                   : -1;
        if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target) {
          unmarkable.insert(std::move(name));
          continue;
        }
        links.emplace_back(std::move(name), std::string(target, static_cast<std::size_t>(length)));
      }
    }

    for (auto& [name, path] : links) {
      if (!markProfiled(path)) unmarkable.insert(std::move(name));
    }
    if (ran_out || running_.load() == 0) break;
  }
}

bool ProfilerRun::markProfiled(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return false;  // gone: it keeps its tags
  char modified[kTimeTextSize];
  formatTagTime(st.st_mtime, modified, sizeof modified);
  kord_bulk_t* bulk = bulk_.get();
  if (!bulk || kord_bulk_setpath(bulk, path.c_str()) != 0) return false;
  (void)kord_bulk_deltag(bulk, kTagToProfile);
  (void)kord_bulk_deltag(bulk, kTagFileType);
  (void)kord_bulk_settag(bulk, kTagModified, modified);
  (void)kord_bulk_deltag(bulk, kTagBatchIndex);
  if (kord_bulk_commit(bulk) == 0) return true;
  lost(path.substr(0, path.rfind('/')));
  return false;
}

}  // namespace zibd
