// Unix stream socket helpers shared by the broker and its clients.
#pragma once

#include <string>

#include "common/file_descriptor.h"

namespace zibd::rill {

// Where the broker listens: $RILL_SOCKET, else kDefaultSocketPath.
inline constexpr const char* kDefaultSocketPath = "/run/rill.sock";
std::string socketPath();

// A close-on-exec connection to the socket at path, blocking unless asked
// (a non-blocking connect fails at once when the listen queue is full); an
// invalid descriptor with *error set ("cannot connect to PATH: reason") on
// failure.
FileDescriptor connectTo(const std::string& path, std::string* error, bool nonblocking = false);

}  // namespace zibd::rill
