#include "scan/scanner_thread.h"

#include <fcntl.h>

#include <optional>

#include "common/file_descriptor.h"

namespace zibd {

ScannerThread::ScannerThread(ScanQueue& queue, ScannerState& state, FileTypeMap& types,
                             IndexRules& rules, StorageQueries& storage, ScanReports& reports,
                             const std::atomic<int>& running, std::string update_signal)
    : queue_(queue),
      state_(state),
      rules_(rules),
      storage_(storage),
      reports_(reports),
      running_(running),
      update_signal_(std::move(update_signal)),
      tagger_(types, rules, bulk_, state.abortFlag()),
      profiler_(state, types, tagger_, storage, bulk_, running) {}

ScannerThread::~ScannerThread() { join(); }

bool ScannerThread::open() {
  bulk_.reset(kord_bulk_init());
  return bulk_ != nullptr;
}

void ScannerThread::step() {
  // Asked before the take, for a release that came while a request ran, and
  // after it, for one that woke the take.
  releaseTagStoreIfAsked();
  std::optional<ScanRequest> request = queue_.take();
  releaseTagStoreIfAsked();
  if (request && !bulk_ && !open()) request.reset();  // no tag store now: the request is dropped
  if (request) {
    // Rule directories may be symbolic links that changed since the last
    // request.
    rules_.stResolveRulePaths();
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
        (void)reports_.reportPartitionScanned(request->path);
        break;
      case kScanStorageRoot:
        cleanup(request->path);
        break;
      default:
        break;  // consumed, nothing to do
    }
  }
  state_.reset();
}

void ScannerThread::releaseTagStoreIfAsked() {
  if (state_.takeTagStoreRelease()) bulk_.reset();
}

void ScannerThread::cleanup(const std::string& path) {
  state_.setCleanupPath(path);
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
    usable = bulk_ || open();
  } catch (...) {
  }
  while (usable && running_.load() != 0) {
    try {
      step();
    } catch (...) {
      // Out of memory in the middle of a request: it is dropped (a later scan
      // of the same tree does its work) and the scanner goes on.
      state_.reset();
    }
  }
  bulk_.reset();
  state_.reset();
  state_.scannerEnded();
}

void ScannerThread::start() {
  thread_ = std::thread([this] { run(); });
}

void ScannerThread::join() {
  if (thread_.joinable()) thread_.join();
}

}  // namespace zibd
