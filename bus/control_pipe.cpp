#include "bus/control_pipe.h"

#include <utility>

namespace zibd {

Status ControlPipe::open() {
  Pipe pipe;
  if (Status made = pipe.open(O_NONBLOCK); !made.ok()) return made;
  read_end_ = std::move(pipe.read_end);
  MutexLock hold(mutex_);
  write_end_ = std::move(pipe.write_end);
  return Status();
}

void ControlPipe::send(ControlMessageType type, std::string path) {
  MutexLock hold(mutex_);
  if (!write_end_) return;
  messages_.push_back({type, std::move(path)});
  sendWakeup(write_end_);
}

void ControlPipe::stop() { send(ControlMessageType::kStop); }

void ControlPipe::reportProfiling(bool busy) {
  send(busy ? ControlMessageType::kProfilingStarted : ControlMessageType::kProfilingFinished);
}

void ControlPipe::reportPartitionScanned(const std::string& mount_path) {
  send(ControlMessageType::kPartitionScanned, mount_path);
}

std::optional<ControlMessage> ControlPipe::read() {
  // The wake-ups go first: a message sent after this drain writes one more,
  // so the bus thread's next poll does not sleep past it.
  drainWakeups(read_end_);
  MutexLock hold(mutex_);
  if (messages_.empty()) return std::nullopt;
  std::optional<ControlMessage> message(std::move(messages_.front()));
  messages_.pop_front();
  return message;
}

void ControlPipe::close() {
  {
    MutexLock hold(mutex_);
    write_end_.reset();
    messages_.clear();
  }
  read_end_.reset();
}

}  // namespace zibd
