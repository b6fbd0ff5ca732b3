// Deadlines on the monotonic clock, and how long a poll() may wait for one.
// std::chrono::steady_clock reads CLOCK_MONOTONIC through clock_gettime,
// which the system tests' faster clock (libfaketime) speeds as well.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace zibd {

using MonotonicClock = std::chrono::steady_clock;

// The milliseconds left until deadline, rounded up, as poll's timeout: 0 once
// it has passed, at most INT_MAX.
inline int pollTimeoutUntil(MonotonicClock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - MonotonicClock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace zibd
