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

FileDescriptor connectTo(const std::string& path, std::string* error, bool nonblocking) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    if (error) *error = "cannot connect to " + path + ": socket path too long";
    return FileDescriptor();
  }
  ::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0));
  if (!fd ||
      ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (error) *error = "cannot connect to " + path + ": " + ::strerror(errno);
    return FileDescriptor();
  }
  return fd;
}

}  // namespace zibd::rill
