#include "host/rill/client.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include "common/deadline.h"
#include "host/rill/socket.h"

namespace zibd::rill {

namespace {

constexpr size_t kReadChunk = 64 * 1024;
// Reads of the notification socket per takeNotifications() call.
constexpr size_t kDrainReads = 16;

int pollTimeout(const Deadline& deadline) { return deadline ? zibd::pollTimeoutUntil(*deadline) : -1; }

}  // namespace

bool Channel::open(const std::string& socket_path) {
  close();
  // Non-blocking: a broker whose listen queue is full refuses at once
  // instead of holding the caller.
  fd_ = connectTo(socket_path, &error_, true);
  return fd_.valid();
}

void Channel::close() {
  fd_.reset();
  reader_ = FrameReader();
  notifications_.clear();
  unanswered_ = 0;
  lost_ = false;
}

void Channel::lose(const std::string& why) {
  if (!lost_) error_ = why;
  lost_ = true;
}

bool Channel::send(Request& request, Deadline deadline, bool even_if_stalled) {
  if (!connected()) {
    if (error_.empty()) error_ = "not connected to the bus";
    return false;
  }
  if (!even_if_stalled && stalled()) {
    error_ = "the bus has not answered an earlier request";
    return false;
  }
  request.id = next_id_++;
  if (next_id_ == 0) next_id_ = 1;
  std::string frame = encode(request);
  if (frame.size() > kFrameHeader + kMaxFrame) {
    error_ = "request too large";
    return false;
  }
  if (!sendFrame(frame, deadline)) return false;
  ++unanswered_;
  return true;
}

bool Channel::sendFrame(const std::string& frame, const Deadline& deadline) {
  size_t sent = 0;
  while (sent < frame.size()) {
    const ssize_t n = ::send(fd_.get(), frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      sent += static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd pfd{fd_.get(), POLLOUT, 0};
      const int timeout = pollTimeout(deadline);
      const int ready = timeout == 0 ? 0 : ::poll(&pfd, 1, timeout);
      if (ready > 0 || (ready < 0 && errno == EINTR)) continue;
      if (ready == 0 && sent == 0) {
        error_ = "the bus takes no more requests";
        return false;
      }
      lose(ready == 0 ? "the bus stopped reading a request" : std::string("bus connection: ") + ::strerror(errno));
      return false;
    }
    lose("connection to the bus lost");
    return false;
  }
  return true;
}

bool Channel::stalled() {
  Reply unused;
  bool found = false;
  while (unanswered_ > 0 && connected()) {
    pollfd pfd{fd_.get(), POLLIN, 0};
    const int ready = ::poll(&pfd, 1, 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || !receive(MSG_DONTWAIT) || !takeFrames(0, &unused, &found)) break;
  }
  return unanswered_ > 0;
}

bool Channel::receive(int flags) {
  char buffer[kReadChunk];
  for (;;) {
    ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, flags);
    if (n > 0) {
      reader_.append(buffer, static_cast<size_t>(n));
      return true;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    lose(n == 0 ? "connection to the bus lost" : std::string("bus connection: ") + ::strerror(errno));
    return false;
  }
}

bool Channel::takeFrames(uint32_t wanted, Reply* reply, bool* found) {
  std::string payload;
  *found = false;
  for (;;) {
    auto result = reader_.next(&payload);
    if (result == FrameReader::Result::kNeedMore) return true;
    auto message = result == FrameReader::Result::kFrame ? decode(payload) : std::nullopt;
    if (!message) {
      lose("garbled message from the bus");
      return false;
    }
    if (auto* notification = std::get_if<Notification>(&*message)) {
      notifications_.push_back(std::move(*notification));
      continue;
    }
    auto* r = std::get_if<Reply>(&*message);
    if (r && unanswered_ > 0) --unanswered_;
    if (r && r->id == wanted && wanted != 0) {
      *reply = std::move(*r);
      *found = true;
      return true;
    }
    // Anything else answers a request whose wait was given up: dropped.
  }
}

Channel::Wait Channel::await(uint32_t id, Reply* reply, Deadline deadline) {
  for (;;) {
    if (!connected()) return Wait::kLost;
    bool found = false;
    if (!takeFrames(id, reply, &found)) return Wait::kLost;
    if (found) return Wait::kReply;
    pollfd pfd{fd_.get(), POLLIN, 0};
    int ready = ::poll(&pfd, 1, pollTimeout(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      lose(std::string("bus connection: ") + ::strerror(errno));
      return Wait::kLost;
    }
    if (ready == 0) {
      if (pollTimeout(deadline) == 0) return Wait::kTimedOut;
      continue;
    }
    if (!receive(MSG_DONTWAIT)) return Wait::kLost;
  }
}

std::optional<Reply> Channel::call(Request request, Deadline deadline) {
  Reply reply;
  if (!send(request, deadline)) return std::nullopt;
  switch (await(request.id, &reply, deadline)) {
    case Wait::kReply:
      return reply;
    case Wait::kTimedOut:
      error_ = "no answer from the bus";
      return std::nullopt;
    case Wait::kLost:
      break;
  }
  return std::nullopt;
}

std::vector<Notification> Channel::takeNotifications(bool* alive) {
  Reply unused;
  bool found = false;
  *alive = connected();
  // Reads while data waits, up to a budget: a flood is handled over several
  // calls instead of holding the caller here.
  for (size_t reads = 0; *alive && reads < kDrainReads; ++reads) {
    pollfd pfd{fd_.get(), POLLIN, 0};
    int ready = ::poll(&pfd, 1, 0);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    *alive = receive(MSG_DONTWAIT) && takeFrames(0, &unused, &found);
  }
  return std::exchange(notifications_, {});
}

bool Client::connect(const std::string& name) { return connect(name, socketPath()); }

bool Client::connect(const std::string& name, const std::string& socket_path) {
  close();
  socket_path_ = socket_path;
  if (!requests_.open(socket_path)) return false;
  Request hello;
  hello.op = Op::kHello;
  hello.path = name;
  auto reply = requests_.call(hello);
  if (!reply || reply->status != Status::kOk) {
    // The broker says why it refused (too many clients) before it hangs up.
    std::string why = reply ? "bus refused the connection: " + reply->text : requests_.error();
    requests_.close();
    requests_.lose(why);
    return false;
  }
  id_ = static_cast<uint32_t>(reply->number);
  token_ = reply->items.empty() ? std::string() : reply->items.front().value.value_or("");
  return true;
}

bool Client::attachNotify() {
  if (notifications_.connected()) return true;
  if (!requests_.connected() || !notifications_.open(socket_path_)) return false;
  Request attach;
  attach.op = Op::kAttachNotify;
  attach.number = id_;
  attach.value = token_;
  auto reply = notifications_.call(attach);
  if (!reply || reply->status != Status::kOk) {
    notifications_.close();
    return false;
  }
  return true;
}

void Client::close() {
  notifications_.close();
  requests_.close();
  id_ = 0;
  token_.clear();
}

std::optional<Status> Client::lock(int timeout_s) {
  Request request;
  request.op = Op::kLock;
  request.number = timeout_s > 0 ? 1 : 0;
  // Without a time-out the broker answers at once, busy or granted.
  const Deadline deadline =
      timeout_s > 0 ? std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s) : replyDeadline();
  if (!requests_.send(request, replyDeadline())) return std::nullopt;
  Reply reply;
  switch (requests_.await(request.id, &reply, deadline)) {
    case Channel::Wait::kReply:
      return reply.status;
    case Channel::Wait::kLost:
      return std::nullopt;
    case Channel::Wait::kTimedOut:
      break;
  }
  // Withdraw the wait; the broker also gives the lock back if its grant
  // crossed this cancel, so once it has read the cancel we surely do not hold
  // it. Sent although the wait is still unanswered; a broker that answers
  // neither in time gets both answers dropped when they come.
  Request cancel;
  cancel.op = Op::kLockCancel;
  if (!requests_.send(cancel, replyDeadline(), true)) return std::nullopt;
  if (requests_.await(cancel.id, &reply, replyDeadline()) == Channel::Wait::kLost) return std::nullopt;
  return Status::kTimedOut;
}

}  // namespace zibd::rill
