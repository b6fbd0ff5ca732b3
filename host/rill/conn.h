// The client connection record behind rill_conn_t (platform/rill.h).
#pragma once

#include <optional>

#include "common/mutex.h"
#include "host/rill/client.h"
#include "platform/rill.h"

// A connection may be shared by threads: requests are serialised on
// request_mutex, notification dispatch on notify_mutex. Neither is held while
// a callback runs.
struct rill_conn {
  // Guards client's request connection and its use; attaching the
  // notification connection takes both. (The client's two halves are guarded
  // by different mutexes, which the annotations cannot say of one member.)
  zibd::Mutex request_mutex ACQUIRED_BEFORE(notify_mutex);
  zibd::rill::Client client;

  zibd::Mutex notify_mutex;  // guards client's notification connection and the two below
  rill_notify_fn notify_fn GUARDED_BY(notify_mutex) = nullptr;
  void* notify_context GUARDED_BY(notify_mutex) = nullptr;
};

namespace zibd::rill {

// Result of a library call whose connection to the bus failed.
inline constexpr int kLost = -1;
// Result of a library call with bad arguments.
inline constexpr int kInvalid = -2;

// Sends one request on the connection's request channel and waits for its
// reply; nullopt when the connection to the bus failed. Takes request_mutex.
inline std::optional<Reply> call(rill_conn_t* conn, Request request) {
  zibd::MutexLock lock(conn->request_mutex);
  return conn->client.call(std::move(request));
}

}  // namespace zibd::rill
