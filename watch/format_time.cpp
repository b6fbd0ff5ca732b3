#include "watch/format_time.h"

namespace zibd {

std::size_t fsFormatTime(std::time_t seconds, char* buf, std::size_t size) {
  if (!buf || size == 0) return 0;
  struct tm local;
  std::size_t count = 0;
  if (::localtime_r(&seconds, &local))
    count = std::strftime(buf, size, "%Y%m%d%H%M%S", &local);
  else
    buf[0] = '\0';
  buf[size - 1] = '\0';
  return count;
}

}  // namespace zibd
