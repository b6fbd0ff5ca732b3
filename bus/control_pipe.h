// The bus control pipe: how the other threads hand the bus thread work, so
// that only the bus thread talks to the bus (besides value writes).
//
// Every message is one 8-byte write (two 32-bit words in host order: type and
// argument), which a pipe delivers whole. A scanned partition's mount path
// travels as a number that names the path in a table here, since a pointer
// does not fit a 32-bit word on every host.
//
// The bus thread closes the pipe when it ends. Whatever is sent after that
// goes nowhere: the write end is only ever used and closed under mutex_, so a
// late sender never writes into a descriptor number reused meanwhile, and the
// read end is closed after the write end, so no write can raise SIGPIPE.
//
// Lock order (docs/code-map.md): mutex_ comes after the scan queue's mutex
// and before paths_mutex_; the bus thread never takes mutex_ while it waits
// for anything but a sender's write to finish.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "common/file_descriptor.h"
#include "common/mutex.h"
#include "scan/scan_reports.h"

namespace zibd {

enum ControlMessageType : uint32_t {
  kControlStop = 0,               // leave the loop at once
  kControlProfilingFinished = 1,  // publish "Ready"
  kControlProfilingStarted = 2,   // publish "Profiling"
  kControlPartitionScanned = 3,   // argument names a mount path
};

struct ControlMessage {
  uint32_t type = 0;
  uint32_t argument = 0;
  std::optional<std::string> path;  // of a kControlPartitionScanned message
};

class ControlPipe final : public ScanReports {
 public:
  ControlPipe() = default;
  ControlPipe(const ControlPipe&) = delete;
  ControlPipe& operator=(const ControlPipe&) = delete;

  // Creates the pipe, its read end non-blocking. 0, or the failed call's
  // result (reported with perror for the fcntl calls).
  int open() EXCLUDES(mutex_);

  // The stop message (shutdown). Result of the write; -1 once closed.
  int stop() EXCLUDES(mutex_);
  int reportProfiling(int busy) override EXCLUDES(mutex_);
  int reportPartitionScanned(const std::string& mount_path) override EXCLUDES(mutex_, paths_mutex_);

  // Bus thread: the read end, for its wait.
  int readFd() const { return read_end_.get(); }
  // Bus thread: the next whole message, or nullopt when none is waiting (a
  // read that does not return 8 bytes).
  std::optional<ControlMessage> read() EXCLUDES(paths_mutex_);
  // Bus thread, when it ends: closes both ends; later sends go nowhere.
  void close() EXCLUDES(mutex_, paths_mutex_);

 private:
  int send(uint32_t type, uint32_t argument) EXCLUDES(mutex_);
  bool tryCloseWriteEnd() EXCLUDES(mutex_);

  Mutex mutex_ ACQUIRED_BEFORE(paths_mutex_);
  FileDescriptor write_end_ GUARDED_BY(mutex_);
  FileDescriptor read_end_;  // bus thread only (and open())
  Mutex paths_mutex_;
  std::map<uint32_t, std::string> paths_ GUARDED_BY(paths_mutex_);
  uint32_t next_path_ GUARDED_BY(paths_mutex_) = 1;
};

}  // namespace zibd
