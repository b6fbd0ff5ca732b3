// The one retry rule for calls to the bus: disk and partition reads, index-rule
// reads, the object reads and subscriptions of a new connection, and disk
// references are each tried at most kBusAttempts times.
#pragma once

#include <chrono>
#include <thread>

namespace zibd {

inline constexpr int kBusAttempts = 3;

// Calls attempt() until it returns 0, at most kBusAttempts times, sleeping
// pause after each failed try (the last one included). Returns the last
// result.
template <typename Attempt>
int retryBusCall(Attempt&& attempt, std::chrono::milliseconds pause = {}) {
  int result = -1;
  for (int tried = 0; tried < kBusAttempts; ++tried) {
    result = attempt();
    if (result == 0) break;
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
  return result;
}

}  // namespace zibd
