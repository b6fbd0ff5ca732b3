// The host configuration bus broker: one thread, one poll loop over a Unix
// stream socket and its clients.
//
// Each client connection has its own bounded input and output buffers and
// non-blocking I/O, so a client that dies, sends garbage or stops reading can
// only hurt itself: a frame that does not decode, or output that outgrows
// BrokerOptions::max_output (a client not reading its notifications), cuts
// that client off. A client owns its subscriptions, its write lock and any
// waits; all end with its connection. A second connection attached to a
// client (kAttachNotify) carries that client's notifications.
#pragma once

#include <memory>
#include <string>

#include "common/file_descriptor.h"
#include "host/rill/model.h"

namespace zibd::rill {

struct BrokerOptions {
  std::string socket_path;
  int64_t stage = 100;                     // start-up stage of a new broker
  size_t max_output = 4 * 1024 * 1024;     // per-client output buffer limit
  size_t max_clients = 1024;               // connections beyond are closed at once; lowered
                                           // to fit the descriptor limit (RLIMIT_NOFILE)
  size_t max_history = 10000;              // values kept per parameter, oldest dropped...
  size_t max_history_bytes = 512 * 1024;   // ...and at most this many bytes of them, so
                                           // that a history always fits in one answer
  // Each client's share; requests beyond are refused. Freed when it leaves.
  size_t max_subscriptions = 1024;         // subscriptions per client
  size_t max_stage_waits = 64;             // unanswered stage waits per connection
  size_t max_lock_waits = 4;               // queued write-lock waits per connection
};

class Broker {
 public:
  Broker(Model model, BrokerOptions options);
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // Binds and listens. A stale socket file is replaced; a live broker on the
  // path is not. 0, or -1 with *error set.
  int listen(std::string* error);
  // Serves clients until stop(); returns 0, or -1 if polling failed. Removes
  // the socket file on return.
  int run();
  // Makes run() return. Callable from any thread and from a signal handler.
  void stop() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
  Pipe stop_pipe_;
};

}  // namespace zibd::rill
