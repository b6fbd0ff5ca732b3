// Client side of the host configuration bus, in C++: the C library (rill.h,
// cs.h, stage.h) and rillctl are built on it. Nothing here throws on bus
// failures; a lost connection shows as an empty result.
#pragma once

#include <stdint.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "host/rill/wire.h"

namespace zibd::rill {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

// How long a request waits for its reply (and to be sent) unless told
// otherwise: a broker that is stopped or stuck holds no caller for ever.
inline constexpr std::chrono::milliseconds kReplyTimeout{4000};
inline Deadline replyDeadline() { return std::chrono::steady_clock::now() + kReplyTimeout; }

// One connection to the broker. Requests carry increasing ids; a reply that
// does not answer the request being waited for (one whose wait was given up)
// is dropped. Used by one thread at a time.
//
// The broker answers every request once, in order. While a request whose
// wait was given up is still unanswered the channel is stalled: a new request
// is not sent but fails at once, so that a broker that stopped answering
// costs one time-out, not one per call, and gets no requests its client has
// already given up on. The stall ends when the late replies arrive.
class Channel {
 public:
  enum class Wait { kReply, kTimedOut, kLost };

  // Connects to the broker's socket; false with error() set.
  bool open(const std::string& socket_path);
  void close();
  bool connected() const { return fd_.valid() && !lost_; }
  int fd() const { return fd_.get(); }
  const std::string& error() const { return error_; }

  // Sends the request with a fresh id (stored in request.id) before
  // deadline; false when the connection is lost, when it cannot be sent in
  // time, or while the channel is stalled (unless even_if_stalled).
  bool send(Request& request, Deadline deadline, bool even_if_stalled = false);
  // Waits for the reply to request id until deadline (none: as long as the
  // connection lives). Waiting is a poll on the socket.
  Wait await(uint32_t id, Reply* reply, Deadline deadline);
  // send() and await() within one deadline (none: as long as the connection
  // lives); nullopt when there was no reply.
  std::optional<Reply> call(Request request, Deadline deadline = replyDeadline());
  // Takes the replies that have arrived without waiting; true while an
  // earlier request is still unanswered.
  bool stalled();

  // Reads what waits on the socket without blocking and returns the whole
  // notifications received so far; false in *alive when the connection is
  // gone (what arrived before is still returned).
  std::vector<Notification> takeNotifications(bool* alive);

  // Marks the connection lost, with why as error() unless one is set.
  void lose(const std::string& why);

 private:
  // Cuts the frames already received; false when the stream is corrupt.
  bool takeFrames(uint32_t wanted, Reply* reply, bool* found);
  // Reads once from the socket; false when the connection is gone.
  bool receive(int flags);
  // Writes all of frame before deadline; a frame cut short loses the
  // connection (the stream cannot be resumed).
  bool sendFrame(const std::string& frame, const Deadline& deadline);

  FileDescriptor fd_;
  FrameReader reader_;
  std::vector<Notification> notifications_;  // arrived while waiting for a reply
  uint32_t next_id_ = 1;
  uint32_t unanswered_ = 0;  // requests sent whose replies have not arrived
  bool lost_ = false;
  std::string error_;
};

// A named client: a request connection and, once attached, the connection
// that carries its notifications.
class Client {
 public:
  // Connects to socket_path (default: socketPath()) and introduces itself.
  bool connect(const std::string& name, const std::string& socket_path);
  bool connect(const std::string& name);
  // Opens the notification connection unless open; false on failure.
  bool attachNotify();
  void close();

  Channel& requests() { return requests_; }
  Channel& notifications() { return notifications_; }
  std::optional<Reply> call(Request request) { return requests_.call(std::move(request)); }
  const std::string& error() const { return requests_.error(); }

  // Takes the bus-wide write lock, waiting up to timeout_s seconds (not at all
  // when 0 or less, the answer then taking up to kReplyTimeout), then up to
  // kReplyTimeout for the withdrawal of the wait.
  // kOk, kLockBusy / kTimedOut, or nullopt when the connection is lost or
  // stalled.
  std::optional<Status> lock(int timeout_s);

 private:
  std::string socket_path_;
  Channel requests_;
  Channel notifications_;
  uint32_t id_ = 0;  // the broker's number for this client
  std::string token_;  // shown to attach the notification connection
};

}  // namespace zibd::rill
