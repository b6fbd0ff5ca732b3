#include "bus/bus_thread.h"

#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "common/deadline.h"
#include "common/start_thread.h"
#include "platform/cs.h"
#include "platform/kord.h"
#include "platform/stage.h"
#include "storage/bus_retry.h"

namespace zibd {
namespace {

constexpr char kClientName[] = "zib_client";

struct Subscription {
  const char* path;
  const char* parameter;
  unsigned mask;
};

// Milliseconds until the deadline, rounded up so that the wait never ends
// before it; 0 when it has passed.
int millisecondsUntil(const timeval& deadline) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  long long left_us = (static_cast<long long>(deadline.tv_sec) - now.tv_sec) * 1000000LL +
                      (static_cast<long long>(deadline.tv_usec) - now.tv_usec);
  if (left_us <= 0) return 0;
  const long long ms = (left_us + 999) / 1000;
  return ms > 1000000000LL ? 1000000000 : static_cast<int>(ms);
}

bool hasPassed(const timeval& deadline) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return deadline.tv_sec < now.tv_sec || (deadline.tv_sec == now.tv_sec && deadline.tv_usec <= now.tv_usec);
}

}  // namespace

BusThread::BusThread(StorageModel& storage, RuleRegistry& rules, ScanRequests& scans, ControlPipe& pipe,
                     const FileDescriptor& sync_write, const std::atomic<int>& running, BusTiming timing)
    : storage_(storage),
      rules_(rules),
      scans_(scans),
      pipe_(pipe),
      sync_write_(sync_write),
      running_(running),
      timing_(timing),
      profiling_(storage),
      handler_(storage, rules, scans, profiling_, ids_) {}

BusThread::~BusThread() {
  join();
  // A thread driven by step() alone may still hold its connection.
  if (conn_) releaseConnection();
}

Status BusThread::start() {
  if (Status opened = pipe_.open(); !opened.ok()) return opened;
  if (cs_rill_init(15, 5, 4, 5, 500, 3072, 400, 500, 100, 500, 6) != 0) return Status::error(EIO, "cs_rill_init");
  return startThread(thread_, [this] { run(); }, "bus");
}

void BusThread::join() {
  if (thread_.joinable()) thread_.join();
}

void BusThread::run() noexcept {
  while (state_ != State::kDone) {
    try {
      while (step()) {
      }
    } catch (...) {
      abandonStep();
    }
  }
}

// A step that threw carries on as a lost connection would (docs/code-map.md):
// the connection is given up and made again after the pause. Before the
// first connection the start-up wait is made again.
void BusThread::abandonStep() noexcept {
  try {
    if (conn_) return endConnection();
    if (state_ == State::kStarting) return;
    if (pause(timing_.retry_pause)) state_ = State::kConnecting;
    else leave();
  } catch (...) {
    // Failing again while giving the bus up: the thread ends as on a stop.
    leave();
  }
}

bool BusThread::step() {
  switch (state_) {
    case State::kStarting:
      (void)wait_until_stage(timing_.stage);
      if (pause(timing_.first_pause)) {
        state_ = State::kConnecting;
      } else {
        leave();
      }
      break;
    case State::kConnecting:
      connect();
      break;
    case State::kLooping:
      loopOnce();
      break;
    case State::kDone:
      break;
  }
  return state_ != State::kDone;
}

// Waits length, or less when the daemon stops meanwhile (shutdown sends the
// stop message, which ends the wait). Other messages are taken on the way.
bool BusThread::pause(std::chrono::milliseconds length) {
  const MonotonicClock::time_point end = MonotonicClock::now() + length;
  while (running_.load()) {
    const int left = pollTimeoutUntil(end);
    if (left == 0) return true;
    pollfd control{pipe_.readFd(), POLLIN, 0};
    const int ready = ::poll(&control, 1, left);
    if (ready > 0) {
      bool stop = false;
      takeMessages(&stop);
      // Without a connection there is nothing to publish: a status waits
      // for the next change.
      if (stop) return false;
    }
  }
  return false;
}

// Drains the control pipe. Returns whether a status is pending and which
// (through the pending flag in profiling terms: 1 busy, 0 ready).
bool BusThread::takeMessages(bool* stop) {
  int pending = -1;
  while (auto message = pipe_.read()) {
    switch (message->type) {
      case ControlMessageType::kStop:
        *stop = true;
        return false;
      case ControlMessageType::kProfilingFinished:
        pending = 0;
        break;
      case ControlMessageType::kProfilingStarted:
        pending = 1;
        break;
      case ControlMessageType::kPartitionScanned:
        storage_.markScanned(message->path);
        break;
    }
  }
  if (pending >= 0 && storage_.connection()) profiling_.set(pending);
  return pending >= 0;
}

Status BusThread::readAll(const char* path, rill_reply_fn collector, std::vector<std::string>* paths) {
  const int result = retryBusCall([&] {
    paths->clear();
    rill_ccmd_t command{};
    int answer = rill_ccmd_add_getvalues_request(conn_, &command, path, 0, 2, 0, 2);
    if (answer == 0) answer = rill_invoke_ccmd(conn_, &command, collector, paths);
    rill_ccmd_cleanup(&command);
    return answer;
  });
  if (result == 0) return Status();
  paths->clear();
  return Status::error(EIO, std::string("read ") + path + ": bus result " + std::to_string(result));
}

Status BusThread::subscribe() {
  static constexpr Subscription kSubscriptions[kSubscriptionCount] = {
      {"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE},
      {"Storage.Disk", nullptr, RILL_SUBSCRIBE_OBJECTS},
      {"Storage.Disk", "DoUnMount", RILL_SUBSCRIBE_VALUE},
      {"Storage.Disk.Partition", nullptr, RILL_SUBSCRIBE_OBJECTS},
      {"Storage.Disk.Partition", "Manageddisk", RILL_SUBSCRIBE_VALUE},
      {"ContentSharing.UPnPAV.IndexRules", nullptr, RILL_SUBSCRIBE_OBJECTS_AND_VALUES},
  };
  rill_ccmd_t command{};
  bool ok = true;
  for (const Subscription& s : kSubscriptions)
    if (rill_ccmd_add_subscribe_request(conn_, &command, s.path, s.parameter, 0, s.mask) != 0) {
      ok = false;
      break;
    }
  if (ok)
    ok = retryBusCall([&] {
           return rill_invoke_ccmd_subscribe(conn_, &command, 0, &NotificationHandler::callback, &handler_);
         }) == 0;
  if (ok) {
    const llist_t* answers = rill_ccmd_get_answers(&command);
    for (int i = 0; i < llist_getlength(answers) && ok; ++i) {
      const rill_cmddata_t* item = rill_cmddata_getat(answers, i);
      if (!item || rill_cmddata_error_get(item) != 0) {
        ok = false;
        break;
      }
      const char* path = dynstr_getstring(rill_cmddata_path_get(item));
      const bool named = dynstr_getstring(rill_cmddata_name_get(item)) != nullptr;
      unsigned long id = 0;
      if (!path || dynstr_getulong(rill_cmddata_value_get(item), &id) != 0) continue;
      const std::string p = path;
      if (p == "VFS.MetaDataService") ids_[kSlotForceRescan] = static_cast<uint32_t>(id);
      else if (p == "Storage.Disk") ids_[named ? kSlotUnmount : kSlotDisks] = static_cast<uint32_t>(id);
      else if (p == "Storage.Disk.Partition") ids_[named ? kSlotManaged : kSlotPartitions] = static_cast<uint32_t>(id);
      else if (p == "ContentSharing.UPnPAV.IndexRules") ids_[kSlotIndexRules] = static_cast<uint32_t>(id);
    }
  }
  rill_ccmd_cleanup(&command);
  if (!ok) return Status::error(EIO, "subscribe");
  return Status();
}

void BusThread::connect() {
  ++attempts_;
  conn_ = rill_ctx_create_client_connection(kClientName, 0);
  if (!conn_) {
    if (!pause(timing_.retry_pause)) leave();
    return;
  }
  storage_.setConnection(conn_);
  subscribed_ = false;
  std::vector<std::string> paths;
  if (readAll("Storage.Disk", stObjectPathCollector, &paths).ok())
    for (const std::string& path : paths) storage_.addDisk(path);
  if (!readAll("Storage.*.Partition", stObjectPathCollector, &paths).ok()) return endConnection();
  for (const std::string& path : paths) storage_.addPartition(path);
  if (!readAll("ContentSharing.UPnPAV.IndexRules", stRuleCollector, &paths).ok()) return endConnection();
  // A rule that cannot be read is left out, as one removed would be.
  for (const std::string& path : paths) (void)rules_.readRule(conn_, path);
  if (!subscribe().ok()) return endConnection();
  subscribed_ = true;
  socket_ = rill_getnotifylistensocket(conn_);
  if (socket_ == -1) return endConnection();
  state_ = State::kLooping;
}

void BusThread::loopOnce() {
  if (!running_.load()) return endConnection(true);
  const std::optional<timeval>& deadline = storage_.deadline();
  const int timeout = deadline ? millisecondsUntil(*deadline) : -1;
  pollfd fds[2] = {{pipe_.readFd(), POLLIN, 0}, {socket_, POLLIN, 0}};
  if (::poll(fds, 2, timeout) < 0) return;
  if (fds[0].revents) {
    bool stop = false;
    takeMessages(&stop);
    if (stop) return endConnection(true);
  }
  if (fds[1].revents) {
    // The bus is gone (or the socket broke): a lost connection.
    if (rill_msg_parse(socket_, conn_) != 0) return endConnection();
  }
  if (!running_.load()) return;
  if (storage_.deadline() && hasPassed(*storage_.deadline())) expire();
}

void BusThread::expire() {
  const bool was_ready = storage_.storageReady();
  storage_.disarmDeadline();
  if (storage_.storageStatus() == kNoSuitableDisk) {
    // The tag store could not be told where its database is: nothing was
    // chosen, and the choice is made again a settle later.
    if (!storage_.chooseMetadataStorage().ok()) storage_.armDeadline();
  }
  std::vector<std::string> removed = storage_.takeRemovedPartitions();
  if (storage_.storageReady()) {
    if (was_ready) {
      for (const std::string& path : removed)
        if (!storage_.hasPartitionAt(path)) (void)kord_delete(path.c_str());
    }
    if (!storage_.initialScanDone()) scans_.enqueue(storage_.config().root, kScanStorageRoot);
    storage_.queueUnscannedPartitions(scans_);
  }
}

void BusThread::releaseConnection() {
  if (subscribed_) {
    int result = 0;
    (void)cs_unsubscribe_events(conn_, ids_.data(), kSubscriptionCount, &result);
    storage_.releaseAllDisks();
    subscribed_ = false;
  }
  rill_invoke_unregister(conn_);
  rill_ctx_reset(conn_);
  rill_ctx_free(conn_);
  conn_ = nullptr;
  socket_ = -1;
  storage_.setConnection(nullptr);
}

void BusThread::endConnection(bool stop) {
  releaseConnection();
  if (stop) return leave();
  // The disks are given back; the choice made on them goes too, so that the
  // next connection chooses again (and publishes it) and scans everything,
  // catching up with what changed unwatched meanwhile.
  storage_.setStorageStatus(kNoSuitableDisk);
  profiling_.forget();
  if (!pause(timing_.retry_pause)) return leave();
  state_ = State::kConnecting;
}

void BusThread::leave() {
  const char zero = '0';
  ssize_t written;
  do {
    written = ::write(sync_write_.get(), &zero, 1);
  } while (written < 0 && errno == EINTR);
  pipe_.close();
  state_ = State::kDone;
}

}  // namespace zibd
