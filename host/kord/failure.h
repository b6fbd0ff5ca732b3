// The one exception type inside the tag store. It never leaves the library:
// every entry point of platform/kord.h and kord_host.h catches it and turns it
// into a result code and the thread's last error.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "host/kord/kord_host.h"

namespace zibd::kord {

class Failure : public std::exception {
 public:
  Failure(Status status, std::string message) : status_(status), message_(std::move(message)) {}
  Status status() const noexcept { return status_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  Status status_;
  std::string message_;
};

[[noreturn]] inline void fail(Status status, std::string message) {
  throw Failure(status, std::move(message));
}

// Records the calling thread's last error (see lastError()).
void setLastError(Status status, std::string message) noexcept;

}  // namespace zibd::kord
