#include "bus/control_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace zibd {

int ControlPipe::open() {
  Pipe pipe;
  if (const int result = pipe.open(); result != 0) return result;
  const int flags = ::fcntl(pipe.read_end.get(), F_GETFL);
  if (flags < 0) {
    std::perror("fcntl");
    return -1;
  }
  if (const int result = ::fcntl(pipe.read_end.get(), F_SETFL, flags | O_NONBLOCK); result != 0) {
    std::perror("fcntl2");
    return result;
  }
  read_end_ = std::move(pipe.read_end);
  MutexLock hold(mutex_);
  write_end_ = std::move(pipe.write_end);
  return 0;
}

int ControlPipe::send(uint32_t type, uint32_t argument) {
  unsigned char message[8];
  std::memcpy(message, &type, 4);
  std::memcpy(message + 4, &argument, 4);
  MutexLock hold(mutex_);
  if (!write_end_) return -1;
  ssize_t written;
  do {
    written = ::write(write_end_.get(), message, sizeof message);
  } while (written < 0 && errno == EINTR);
  return static_cast<int>(written);
}

int ControlPipe::stop() { return send(kControlStop, 0); }

int ControlPipe::reportProfiling(int busy) {
  return send(busy != 0 ? kControlProfilingStarted : kControlProfilingFinished, 0);
}

int ControlPipe::reportPartitionScanned(const std::string& mount_path) {
  uint32_t id;
  try {
    MutexLock hold(paths_mutex_);
    id = next_path_++;
    if (id == 0) id = next_path_++;
    paths_[id] = mount_path;
  } catch (const std::bad_alloc&) {
    return -1;
  }
  const int result = send(kControlPartitionScanned, id);
  if (result != 8) {
    MutexLock hold(paths_mutex_);
    paths_.erase(id);
  }
  return result;
}

std::optional<ControlMessage> ControlPipe::read() {
  if (!read_end_) return std::nullopt;
  unsigned char buffer[8];
  ssize_t got;
  do {
    got = ::read(read_end_.get(), buffer, sizeof buffer);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof buffer)) return std::nullopt;
  ControlMessage message;
  std::memcpy(&message.type, buffer, 4);
  std::memcpy(&message.argument, buffer + 4, 4);
  if (message.type == kControlPartitionScanned) {
    MutexLock hold(paths_mutex_);
    if (auto it = paths_.find(message.argument); it != paths_.end()) {
      message.path = std::move(it->second);
      paths_.erase(it);
    }
  }
  return message;
}

bool ControlPipe::tryCloseWriteEnd() {
  if (!mutex_.try_lock()) return false;
  write_end_.reset();
  mutex_.unlock();
  return true;
}

void ControlPipe::close() {
  // A sender blocked on a full pipe holds mutex_ until its write is done:
  // keep emptying the pipe until it has finished.
  for (;;) {
    while (read()) {
    }
    if (tryCloseWriteEnd()) break;
    ::poll(nullptr, 0, 1);
  }
  while (read()) {
  }
  read_end_.reset();
  MutexLock hold(paths_mutex_);
  paths_.clear();
}

}  // namespace zibd
