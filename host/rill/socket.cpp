#include "host/rill/socket.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace zibd::rill {

std::string socketPath() {
  const char* env = ::getenv("RILL_SOCKET");
  return env && *env ? env : kDefaultSocketPath;
}

FileDescriptor connectTo(const std::string& path, std::string* error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    if (error) *error = "cannot connect to " + path + ": socket path too long";
    return FileDescriptor();
  }
  ::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd ||
      ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (error) *error = "cannot connect to " + path + ": " + ::strerror(errno);
    return FileDescriptor();
  }
  return fd;
}

bool sendAll(int fd, const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace zibd::rill
