// Time stamps as the tag database stores them.
#pragma once

#include <cstddef>
#include <ctime>

namespace zibd {

// Characters of a formatted time stamp ("YYYYmmddHHMMSS"), without the NUL.
inline constexpr std::size_t kFsTimeLength = 14;

// Writes seconds as local time in the form "%Y%m%d%H%M%S" into buf, whose last
// byte (buf[size - 1]) is always set to NUL. Returns the count strftime gave:
// kFsTimeLength, or 0 when buf is too small (size <= kFsTimeLength) or the
// time cannot be converted. Reentrant (localtime_r); the local time zone is
// the process's TZ.
std::size_t fsFormatTime(std::time_t seconds, char* buf, std::size_t size);

}  // namespace zibd
