// Unix stream socket helpers shared by the broker and its clients.
#pragma once

#include <string>

#include "common/file_descriptor.h"

namespace zibd::rill {

// Where the broker listens: $RILL_SOCKET, else kDefaultSocketPath.
inline constexpr const char* kDefaultSocketPath = "/run/rill.sock";
std::string socketPath();

// A blocking, close-on-exec connection to the socket at path; an invalid
// descriptor with *error set ("cannot connect to PATH: reason") on failure.
FileDescriptor connectTo(const std::string& path, std::string* error);

// Sends all of data, retrying after EINTR and partial writes, without raising
// SIGPIPE. False when the peer is gone or the send failed.
bool sendAll(int fd, const std::string& data);

}  // namespace zibd::rill
