// Result codes of the filesystem-watching functions. Callers outside the
// subsystem test only for zero; inside it the codes tell what went wrong.
#pragma once

namespace zibd {

inline constexpr int kFsOk = 0;
// Stopped on request (a callback or an abort flag asked for it).
inline constexpr int kFsStopped = 1;
// A system call failed.
inline constexpr int kFsErrSystem = -1;
// Invalid argument, not found, or already present.
inline constexpr int kFsErrInvalid = -8;
// A path that cannot be read or is too long.
inline constexpr int kFsErrPath = -9;
// A destination buffer is too small.
inline constexpr int kFsErrTooSmall = -11;
// Out of memory.
inline constexpr int kFsErrNoMemory = -13;

}  // namespace zibd
