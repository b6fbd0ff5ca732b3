// The bus thread: the daemon's one link to the configuration bus. It waits for
// the gateway's start-up stage, connects as "zib_client", reads the disks,
// partitions and index rules, subscribes to their changes and then waits on
// the control pipe and the notification socket. It owns the settle deadline
// that, once disks and partitions stop changing, chooses the metadata storage
// and queues the partitions' scans.
//
// A connection that cannot be made or set up, or that is lost, is not the
// end: the thread gives every disk back, forgets the metadata storage chosen
// on it and connects again after a pause, for as long as the daemon runs;
// the new connection reads disks, partitions and rules afresh and the settle
// deadline chooses the storage again. Only the stop (stop message or daemon
// stopping, also during a pause) ends the thread: it writes "0" into the sync
// pipe and closes the control pipe.
//
// Each pass of step() does one piece of that: the start-up wait, one
// connection attempt, or one wait of the loop with its work.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bus/control_pipe.h"
#include "bus/notification_handler.h"
#include "bus/profiling_status.h"
#include "common/file_descriptor.h"
#include "storage/rule_registry.h"
#include "storage/scan_requests.h"
#include "storage/storage_model.h"

namespace zibd {

struct BusTiming {
  int stage = 71;                                // start-up stage to wait for
  std::chrono::milliseconds first_pause{60000};  // after the stage, before connecting
  std::chrono::milliseconds retry_pause{5000};   // between connection attempts
};

class BusThread {
 public:
  enum class State { kStarting, kConnecting, kLooping, kDone };

  // sync_write: the sync pipe's write end, which gets "0" when the thread ends.
  BusThread(StorageModel& storage, RuleRegistry& rules, ScanRequests& scans, ControlPipe& pipe,
            const FileDescriptor& sync_write, const std::atomic<int>& running, BusTiming timing = {});
  ~BusThread();
  BusThread(const BusThread&) = delete;
  BusThread& operator=(const BusThread&) = delete;

  // The bus client's start: creates the control pipe, tunes the bus library
  // and starts the thread.
  Status start();
  void join();

  // One pass; false once the thread has ended.
  bool step();
  // The thread body: step() until the thread has ended. A step that throws
  // is handled as a lost connection.
  void run() noexcept;

  State state() const { return state_; }
  int attempts() const { return attempts_; }
  const SubscriptionTable& subscriptions() const { return ids_; }
  ProfilingStatus& profiling() { return profiling_; }

 private:
  bool pause(std::chrono::milliseconds length);
  bool takeMessages(bool* stop);
  void connect();
  Status readAll(const char* path, rill_reply_fn collector, std::vector<std::string>* paths);
  Status subscribe();
  void loopOnce();
  void expire();
  void releaseConnection();
  void endConnection(bool stop = false);
  void leave();
  void abandonStep() noexcept;

  StorageModel& storage_;
  RuleRegistry& rules_;
  ScanRequests& scans_;
  ControlPipe& pipe_;
  const FileDescriptor& sync_write_;
  const std::atomic<int>& running_;
  const BusTiming timing_;
  ProfilingStatus profiling_;
  SubscriptionTable ids_{};
  NotificationHandler handler_;

  State state_ = State::kStarting;
  int attempts_ = 0;         // connection attempts so far
  bool subscribed_ = false;  // the subscriptions of this connection succeeded
  rill_conn_t* conn_ = nullptr;
  int socket_ = -1;
  std::thread thread_;
};

}  // namespace zibd
