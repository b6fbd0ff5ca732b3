#include "scan/scanner_thread.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "common/file_descriptor.h"
#include "common/start_thread.h"
#include "common/walk.h"

namespace zibd {

ScannerThread::ScannerThread(ScanQueue& queue, ScannerState& state, FileTypeMap& types,
                             IndexRules& rules, StorageQueries& storage, ScanReports& reports,
                             const std::atomic<int>& running, std::string update_signal,
                             std::chrono::milliseconds profiler_limit,
                             std::chrono::milliseconds rescan_delay)
    : queue_(queue),
      state_(state),
      rules_(rules),
      storage_(storage),
      reports_(reports),
      running_(running),
      update_signal_(std::move(update_signal)),
      rescan_delay_(rescan_delay),
      tagger_(types, rules, bulk_, state.abortFlag()),
      profiler_(state, types, tagger_, storage, bulk_, queue, running, profiler_limit) {}

ScannerThread::~ScannerThread() { join(); }

Status ScannerThread::open() {
  bulk_.reset(kord_bulk_init());
  if (!bulk_) return Status::error(EIO, "kord_bulk_init");
  return Status();
}

void ScannerThread::step() {
  // Asked before the take, for a release that came while a request ran, and
  // after it, for one that woke the take.
  releaseTagStoreIfAsked();
  std::optional<ScanRequest> request = owed_.empty() ? queue_.take() : takeOrOwed();
  releaseTagStoreIfAsked();
  if (request && !bulk_ && !open().ok()) request.reset();  // no tag store now: the request is dropped
  if (request) {
    // Rule directories may be symbolic links that changed since the last
    // request.
    rules_.resolveRulePaths();
    switch (request->kind) {
      case kScanChangedDirectory:
        profiler_.run(request->path, false);
        break;
      case kScanNewTree:
        profiler_.run(request->path, true);
        break;
      case kScanRuleDirectory:
      case kScanForcedRescan:
        profiler_.run(request->path, true);
        // A stopped scan leaves its partition to be scanned again: the
        // metadata disk it was for may be gone, and a new one chosen.
        if (!state_.aborted()) reports_.reportPartitionScanned(request->path);
        break;
      case kScanStorageRoot:
        cleanup(request->path);
        break;
      default:
        break;  // consumed, nothing to do
    }
  }
  state_.reset();
  // Idle first: the storage model is asked, whose lock a stop may hold.
  if (request) settleOwed(*request);
}

std::optional<ScanRequest> ScannerThread::takeOrOwed() {
  MonotonicClock::time_point due = owed_.begin()->second;
  for (const auto& [path, when] : owed_) due = std::min(due, when);
  // Until a request waits, a stop comes (its wake ends the poll) or the due
  // time; an enqueue after the size was read ends the poll at once.
  while (MonotonicClock::now() < due && queue_.size() == 0 && running_.load() != 0 && !state_.aborted()) {
    struct pollfd wakeup = {queue_.wakeupFd(), POLLIN, 0};
    (void)::poll(&wakeup, 1, pollTimeoutUntil(due));
    queue_.drainWakeups();
  }
  const MonotonicClock::time_point now = MonotonicClock::now();
  for (auto it = owed_.begin(); it != owed_.end();) {
    if (it->second > now) {
      ++it;
      continue;
    }
    queue_.enqueue(it->first, kScanRuleDirectory);
    it = owed_.erase(it);
  }
  return queue_.take(false);
}

void ScannerThread::settleOwed(const ScanRequest& request) {
  for (auto it = owed_.begin(); it != owed_.end();) {
    const bool concerned = fsPathIsUnder(it->first.c_str(), request.path.c_str()) ||
                           fsPathIsUnder(request.path.c_str(), it->first.c_str());
    if (!concerned) {
      ++it;
      continue;
    }
    // A scan of the whole partition was that scan already.
    const bool was_it = request.path == it->first && (request.kind == kScanRuleDirectory ||
                                                      request.kind == kScanForcedRescan);
    if (!was_it) queue_.enqueue(it->first, kScanRuleDirectory);
    it = owed_.erase(it);
  }
  // A scan that fails again waits as long again: nothing retries faster.
  const MonotonicClock::time_point due = MonotonicClock::now() + rescan_delay_;
  for (const std::string& path : profiler_.takeUnstored()) {
    if (std::optional<std::string> partition = partitionOf(path)) owed_.try_emplace(*partition, due);
  }
}

std::optional<std::string> ScannerThread::partitionOf(const std::string& path) const {
  // The shortest leading part of the path that is on a partition is its
  // mount path.
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    std::string prefix = path.substr(0, end);
    if (storage_.pathIsOnPartition(prefix)) return prefix;
    if (end == std::string::npos) return std::nullopt;
  }
}

std::set<std::string> ScannerThread::owedScans() const {
  std::set<std::string> paths;
  for (const auto& entry : owed_) paths.insert(entry.first);
  return paths;
}

void ScannerThread::releaseTagStoreIfAsked() {
  if (state_.takeTagStoreRelease()) bulk_.reset();
}

void ScannerThread::cleanup(const std::string& path) {
  if (!state_.setCleanupPath(path)) return;
  int result;
  {
    Tagger::CleanupScope scope(tagger_);
    result = kord_cleanup_attached(path.c_str(), state_.cleanupStopFlag(), &Tagger::cleanupCheck);
  }
  if (result == 0) storage_.markInitialScanDone();
  // Opening the file is the signal; a missing file is no error.
  FileDescriptor signal(::open(update_signal_.c_str(), O_RDONLY | O_CLOEXEC));
}

void ScannerThread::run() noexcept {
  state_.reset();
  bool usable = false;
  try {
    usable = bulk_ || open().ok();
  } catch (...) {
  }
  while (usable && running_.load() != 0) {
    try {
      step();
    } catch (...) {
      // The request is dropped (a later scan of the same tree does its work)
      // and the scanner carries on (docs/code-map.md).
      state_.reset();
    }
  }
  bulk_.reset();
  state_.reset();
  state_.scannerEnded();
}

Status ScannerThread::start() {
  return startThread(thread_, [this] { run(); }, "scanner");
}

void ScannerThread::join() {
  if (thread_.joinable()) thread_.join();
}

}  // namespace zibd
