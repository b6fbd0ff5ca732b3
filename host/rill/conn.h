// The client connection record behind rill_conn_t (platform/rill.h).
#pragma once

#include <mutex>
#include <optional>

#include "host/rill/client.h"
#include "platform/rill.h"

// A connection may be shared by threads: requests are serialised on
// request_mutex, notification dispatch on notify_mutex. Lock order:
// request_mutex before notify_mutex. Neither is held while a callback runs.
struct rill_conn {
  std::mutex request_mutex;  // guards client's request connection and its use
  zibd::rill::Client client;

  std::mutex notify_mutex;  // guards client's notification connection and the two below
  rill_notify_fn notify_fn = nullptr;
  void* notify_context = nullptr;
};

namespace zibd::rill {

// Result of a library call whose connection to the bus failed.
inline constexpr int kLost = -1;
// Result of a library call with bad arguments.
inline constexpr int kInvalid = -2;

// Sends one request on the connection's request channel and waits for its
// reply; nullopt when the connection to the bus failed. Takes request_mutex.
inline std::optional<Reply> call(rill_conn_t* conn, Request request) {
  std::lock_guard lock(conn->request_mutex);
  return conn->client.call(std::move(request));
}

}  // namespace zibd::rill
