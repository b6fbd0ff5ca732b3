// How the daemon's own functions tell that something failed: a Status
// (success, or the errno of what failed and what it was) or a Result<T> (a
// value, or the Status of why there is none). Both are [[nodiscard]]: a
// caller that means to pass a failure over says so with (void).
//
// Not failures, and so not reported this way: a query that finds nothing
// (an empty std::optional), a predicate (bool), and a stop on request, which
// a Status carries as stopped() so that a walk can end early without calling
// it an error. Callbacks of the platform libraries return the integers those
// libraries define.
#pragma once

#include <cassert>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

namespace zibd {

class [[nodiscard]] Status {
 public:
  // Success.
  Status() = default;

  // What failed, with the errno that tells why (non-zero). what names the
  // operation and its object: "inotify_add_watch /var/uuidmount/ab12".
  static Status error(int code, std::string what) {
    assert(code != 0);
    return Status(code, std::move(what));
  }
  // The same with the errno of the call that has just failed.
  static Status lastError(std::string what) { return error(errno != 0 ? errno : EIO, std::move(what)); }
  // Ended early because a caller or a flag asked for it.
  static Status stopped() { return Status(kStoppedCode, "stopped"); }

  bool ok() const { return code_ == 0; }
  bool isStopped() const { return code_ == kStoppedCode; }
  // The errno; 0 for success.
  int code() const { return code_; }
  const std::string& what() const { return what_; }
  // Why, in the words of strerror ("No space left on device"); "ok".
  std::string reason() const {
    if (ok()) return "ok";
    const char* why = ::strerrordesc_np(code_);
    return why ? why : "error " + std::to_string(code_);
  }
  // "what: reason", or "ok".
  std::string message() const { return ok() ? "ok" : what_ + ": " + reason(); }

 private:
  // A stop is no errno any call of the daemon's returns.
  static constexpr int kStoppedCode = ECANCELED;

  Status(int code, std::string what) : code_(code), what_(std::move(what)) {}

  int code_ = 0;
  std::string what_;
};

// A value, or the failure that left none. Made from a failed Status only.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: converts like the value
  Result(Status failure) : status_(std::move(failure)) { assert(!status_.ok()); }  // NOLINT

  bool ok() const { return value_.has_value(); }
  const Status& status() const { return status_; }
  T& value() & { return *value_; }
  const T& value() const& { return *value_; }
  T&& value() && { return std::move(*value_); }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }

 private:
  std::optional<T> value_;
  Status status_;
};

}  // namespace zibd
