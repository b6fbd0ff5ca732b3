// Makes system calls fail in unit tests, the way they fail on a gateway.
//
// Test executables are linked with `-Wl,--wrap=CALL` for each call below (see
// tests/CMakeLists.txt), so every call of it from the daemon's libraries goes
// through __wrap_CALL here, which fails it when a fault is armed and calls the
// real function otherwise. The shipped daemon is linked without any of this.
//
// To make another call fail: add it to Call, to kWrappedCalls in
// tests/CMakeLists.txt and a __wrap_ function in fault_injection.cpp.
#pragma once

namespace zibd::test {

enum class Call { kFork, kPipe2, kInotifyInit1, kInotifyAddWatch, kCount };

// From now on, after `skip` more calls of `call` succeed, the next `times`
// calls fail with errno `error` (times < 0: every call). Thread-safe.
void failCalls(Call call, int error, int times = 1, int skip = 0);

// How many times `call` has been made (failed or not) since the last reset.
int callCount(Call call);

// Disarms every fault and zeroes the counts.
void resetFaults();

// Arms a fault for one scope.
class ScopedFault {
 public:
  ScopedFault(Call call, int error, int times = 1, int skip = 0) { failCalls(call, error, times, skip); }
  ~ScopedFault() { resetFaults(); }
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
};

}  // namespace zibd::test
