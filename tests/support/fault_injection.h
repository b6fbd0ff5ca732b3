// Makes system calls and the bus read (rill_invoke_ccmd, -1) fail in unit tests. Test executables link with
// `-Wl,--wrap=CALL` for each Call (kWrappedCalls in tests/CMakeLists.txt), so
// the daemon's calls go through __wrap_CALL, which fails them when armed.
#pragma once

namespace zibd::test {

enum class Call { kFork, kPipe2, kInotifyInit1, kInotifyAddWatch, kKordBulkCommit, kKordViewCreate, kBusRead, kCount };

// After `skip` more calls of `call` succeed, the next `times` fail with errno
// `error` (times < 0: every call). Thread-safe.
void failCalls(Call call, int error, int times = 1, int skip = 0);
// Calls made, failed or not, since resetFaults().
int callCount(Call call);
void resetFaults();

// Armed for one scope.
class ScopedFault {
 public:
  ScopedFault(Call call, int error, int times = 1, int skip = 0) { failCalls(call, error, times, skip); }
  ~ScopedFault() { resetFaults(); }
  ScopedFault(const ScopedFault&) = delete;
  ScopedFault& operator=(const ScopedFault&) = delete;
};

}  // namespace zibd::test
