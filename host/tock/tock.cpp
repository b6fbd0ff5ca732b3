// Host event producer: every event is one line appended to an event log, the
// file named by TOCK_EVENTS (default "/run/tock.events"):
//
//   NAME<TAB>CODE<TAB>RELATIVE-PATH<LF>
//
// Each line goes out in a single write() on a descriptor opened with O_APPEND,
// so producers in several threads or processes never interleave within a line.
// A backslash, tab or newline inside the name or the path is written as "\\",
// "\t" or "\n", which keeps one event per line.
#include "platform/tock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <new>
#include <string>

#include "common/file_descriptor.h"

struct tock {
  std::string name;
  zibd::FileDescriptor log;
};

namespace {

constexpr const char* kDefaultEventLog = "/run/tock.events";

const char* eventLogPath() {
  const char* path = ::getenv("TOCK_EVENTS");
  return path && *path ? path : kDefaultEventLog;
}

void appendEscaped(std::string& line, const char* text) {
  for (const char* p = text; *p; ++p) {
    switch (*p) {
      case '\\': line += "\\\\"; break;
      case '\t': line += "\\t"; break;
      case '\n': line += "\\n"; break;
      default: line += *p;
    }
  }
}

}  // namespace

extern "C" tock_t* tock_init(const char* name, const char* /*root*/, int /*flags*/,
                             int /*queue_size*/, int /*reserved*/) {
  if (!name) return nullptr;
  try {
    zibd::FileDescriptor log(::open(eventLogPath(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!log) return nullptr;
    return new tock{name, std::move(log)};
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

extern "C" int tock_event(tock_t* producer, const char* relative_path, int code) {
  if (!producer || !relative_path) return -1;
  try {
    std::string line;
    appendEscaped(line, producer->name.c_str());
    line += '\t';
    line += std::to_string(code);
    line += '\t';
    appendEscaped(line, relative_path);
    line += '\n';
    ssize_t written;
    do {
      written = ::write(producer->log.get(), line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return written == static_cast<ssize_t>(line.size()) ? 0 : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

extern "C" void tock_fini(tock_t* producer) { delete producer; }
