// The bus control pipe: how the other threads hand the bus thread work, so
// that only the bus thread talks to the bus (besides value writes).
//
// Messages wait in a queue under mutex_; the pipe only wakes the bus thread's
// poll. A sender never blocks: its wake-up byte is written non-blocking, and
// a full pipe means a wake-up is pending already. So the scan queue may
// report with its own mutex held, and the bus thread may report to itself.
//
// The bus thread closes the pipe when it ends. Whatever is sent after that
// goes nowhere: the write end is only ever used and closed under mutex_, so a
// late sender never writes into a descriptor number reused meanwhile, and the
// read end is closed after the write end, so no write can raise SIGPIPE.
//
// Lock order (docs/code-map.md): mutex_ comes after the scan queue's mutex
// and is held around nothing but the queue and the non-blocking write.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "common/file_descriptor.h"
#include "common/mutex.h"
#include "common/status.h"
#include "scan/scan_reports.h"

namespace zibd {

enum class ControlMessageType {
  kStop,                // leave the loop at once
  kProfilingFinished,   // publish "Ready"
  kProfilingStarted,    // publish "Profiling"
  kPartitionScanned,    // path is the partition's mount path
};

struct ControlMessage {
  ControlMessageType type;
  std::string path;
};

class ControlPipe final : public ScanReports {
 public:
  ControlPipe() = default;
  ControlPipe(const ControlPipe&) = delete;
  ControlPipe& operator=(const ControlPipe&) = delete;

  // Makes the wake-up pipe, both ends non-blocking. Until it is made, as
  // after close(), messages go nowhere.
  Status open() EXCLUDES(mutex_);

  // Any thread; never blocks.
  void stop() EXCLUDES(mutex_);
  void reportProfiling(bool busy) override EXCLUDES(mutex_);
  void reportPartitionScanned(const std::string& mount_path) override EXCLUDES(mutex_);

  // Bus thread: the read end, for its wait.
  int readFd() const { return read_end_.get(); }
  // Bus thread: the next message, in the order they were sent, or nullopt
  // when none is waiting.
  std::optional<ControlMessage> read() EXCLUDES(mutex_);
  // Bus thread, when it ends: drops what waits and closes both ends; later
  // messages go nowhere.
  void close() EXCLUDES(mutex_);

 private:
  void send(ControlMessageType type, std::string path = {}) EXCLUDES(mutex_);

  Mutex mutex_;
  std::deque<ControlMessage> messages_ GUARDED_BY(mutex_);
  FileDescriptor write_end_ GUARDED_BY(mutex_);
  FileDescriptor read_end_;  // bus thread only (and open())
};

}  // namespace zibd
