// Polls a condition instead of sleeping a fixed time.
#pragma once

#include <chrono>
#include <thread>

namespace zibd::test {

// Returns true as soon as pred() holds, false when timeout passed first.
template <typename Pred>
bool waitFor(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(10),
             std::chrono::milliseconds step = std::chrono::milliseconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (pred()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(step);
  }
}

}  // namespace zibd::test
