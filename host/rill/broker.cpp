#include "host/rill/broker.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "host/rill/socket.h"
#include "host/rill/wire.h"

namespace zibd::rill {

namespace {

// Bytes read from one client per loop turn, so that a fast sender cannot
// starve the others.
constexpr size_t kReadBudget = 256 * 1024;
constexpr size_t kReadChunk = 64 * 1024;
constexpr int kListenBacklog = 128;
// Sent output is dropped from the front of a buffer once it is this large.
constexpr size_t kCompactAfter = 64 * 1024;
// Descriptors the broker keeps for itself (standard streams, the stop pipe,
// the listener, the spare) and some slack, below its descriptor limit: the
// client cap is lowered so that clients never take these.
constexpr size_t kReservedDescriptors = 16;
// How long the listener is left alone when a connection cannot be accepted
// for a reason that another try would only repeat.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

struct Conn {
  enum class Role { kNew, kRequest, kNotify };

  uint32_t id = 0;
  FileDescriptor fd;
  FrameReader in;
  std::string out;  // encoded frames not yet sent; out_sent bytes of it are gone
  size_t out_sent = 0;
  Role role = Role::kNew;
  uint32_t owner = 0;   // kNotify: the client whose notifications this carries
  uint32_t notify = 0;  // kRequest: its notification connection, 0 for none
  std::string name;     // what the client called itself
  std::string token;    // kRequest: proves ownership when attaching a notification connection
  // This client's share of the broker's state, bounded by BrokerOptions.
  size_t subscriptions = 0;
  size_t stage_waits = 0;
  size_t lock_waits = 0;
  bool dead = false;    // cut off or gone; closed at the end of the loop turn
};

struct Subscription {
  uint32_t owner = 0;
  Path pattern;
  std::optional<std::string> param;  // value changes of this parameter only
  uint32_t mask = 0;
};

struct Waiter {
  uint32_t conn = 0;
  uint32_t request = 0;
  int64_t stage = 0;  // stage waits only
};

std::string statusText(Status status, const std::string& what) {
  switch (status) {
    case Status::kNoSuchObject:
      return "no such object: " + what;
    case Status::kMalformed:
      return "malformed path: " + what;
    case Status::kExists:
      return "object exists: " + what;
    default:
      return what;
  }
}

Reply failure(const Request& request, Status status, const std::string& what) {
  Reply reply;
  reply.id = request.id;
  reply.status = status;
  reply.text = statusText(status, what);
  return reply;
}

Reply success(const Request& request, int64_t number = 0) {
  Reply reply;
  reply.id = request.id;
  reply.number = number;
  return reply;
}

Item valueItem(const Path& object, const std::string& name, const std::string& value) {
  return Item{format(object), name, value, 0};
}

// 128 random bits as hex: what a client shows to attach its notification
// connection. Empty when the kernel gives no random bytes.
std::string newToken() {
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof bytes) {
    ssize_t n = ::getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return {};
    got += static_cast<size_t>(n);
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bytes) {
    token.push_back(kHex[b >> 4]);
    token.push_back(kHex[b & 15]);
  }
  return token;
}

// Compares without stopping at the first difference, so that timing tells
// nothing about how much of a guess was right.
bool sameToken(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

}  // namespace

struct Broker::State {
  Model model;
  BrokerOptions options;
  FileDescriptor listener;
  bool bound = false;  // the socket file is ours to remove
  // Held open so that, out of descriptors, one can be freed to accept a
  // connection and close it at once: otherwise the listener stays readable
  // and the loop would spin.
  FileDescriptor spare;
  size_t max_clients = 0;  // options.max_clients, lowered to fit the descriptor limit
  std::optional<std::chrono::steady_clock::time_point> accept_paused_until;

  std::map<uint32_t, std::unique_ptr<Conn>> conns;
  uint32_t next_conn = 1;

  int64_t stage = 0;
  std::multimap<int64_t, Waiter> stage_waiters;  // by the stage waited for

  std::optional<uint32_t> lock_holder;
  std::deque<Waiter> lock_waiters;

  std::map<uint32_t, Subscription> subscriptions;
  uint32_t next_subscription = 1;

  // Values clients wrote, per object and parameter; dropped with the object.
  struct History {
    std::deque<std::string> values;
    size_t bytes = 0;  // of the values
  };
  std::map<Path, std::map<std::string, History>> history;

  State(Model m, BrokerOptions o) : model(std::move(m)), options(std::move(o)), stage(options.stage) {}

  Conn* conn(uint32_t id) {
    auto it = conns.find(id);
    return it == conns.end() || it->second->dead ? nullptr : it->second.get();
  }

  // --- output -------------------------------------------------------------

  void flush(Conn& c) {
    while (!c.dead && c.out_sent < c.out.size()) {
      ssize_t n = ::send(c.fd.get(), c.out.data() + c.out_sent, c.out.size() - c.out_sent,
                         MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        c.out_sent += static_cast<size_t>(n);
        if (c.out_sent > kCompactAfter && c.out_sent > c.out.size() / 2) {
          c.out.erase(0, c.out_sent);  // keep a slow reader's buffer bounded
          c.out_sent = 0;
        }
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return;
      } else {
        cutOff(c);
      }
    }
    c.out.clear();
    c.out_sent = 0;
  }

  void queue(Conn& c, const std::string& frame) {
    if (c.dead) return;
    if (c.out.size() - c.out_sent + frame.size() > options.max_output) {
      cutOff(c);
      return;
    }
    c.out += frame;
    flush(c);
  }

  void reply(Conn& c, Reply r) {
    std::string frame = encode(r);
    if (frame.size() > kFrameHeader + kMaxFrame) {
      Reply too_large;
      too_large.id = r.id;
      too_large.status = Status::kTooLarge;
      too_large.text = "answer too large";
      frame = encode(too_large);
    }
    queue(c, frame);
  }

  // A client that misbehaves or cannot keep up loses its connections; the
  // rest of its state goes when they are closed at the end of the turn.
  void cutOff(Conn& c) {
    c.dead = true;
    if (c.role == Conn::Role::kNotify) {
      if (Conn* owner = conn(c.owner)) owner->dead = true;
    }
  }

  // --- notifications ------------------------------------------------------

  void notify(uint32_t event, uint32_t mask_bit, const Path& object,
              const std::optional<std::string>& param, const Item& item) {
    for (const auto& [id, sub] : subscriptions) {
      if (!(sub.mask & mask_bit) || !matches(sub.pattern, object)) continue;
      if (param && sub.param && *sub.param != *param) continue;
      Conn* owner = conn(sub.owner);
      Conn* channel = owner ? conn(owner->notify) : nullptr;
      if (channel) queue(*channel, encode(Notification{event, id, {item}}));
    }
  }

  void notifyAdded(const Path& object) {
    notify(kEventAdded, kMaskAdded, object, std::nullopt, Item{format(object), {}, {}, 0});
  }
  void notifyRemoved(const Path& object) {
    notify(kEventRemoved, kMaskRemoved, object, std::nullopt, Item{format(object), {}, {}, 0});
  }
  void notifyValue(const Path& object, const std::string& param, const std::string& value) {
    notify(kEventValue, kMaskValue, object, param, valueItem(object, param, value));
  }

  // Keeps the newest values within both caps (the newest one always).
  void recordHistory(const Path& object, const std::string& param, const std::string& value) {
    History& h = history[object][param];
    h.values.push_back(value);
    h.bytes += value.size();
    while (h.values.size() > 1 &&
           (h.values.size() > options.max_history || h.bytes > options.max_history_bytes)) {
      h.bytes -= h.values.front().size();
      h.values.pop_front();
    }
  }

  // --- write lock and stage -----------------------------------------------

  void grantLock() {
    while (!lock_holder && !lock_waiters.empty()) {
      Waiter next = lock_waiters.front();
      lock_waiters.pop_front();
      if (Conn* c = conn(next.conn)) {
        --c->lock_waits;
        lock_holder = next.conn;
        Reply granted;
        granted.id = next.request;
        reply(*c, granted);
      }
    }
  }

  void releaseLock(uint32_t conn_id) {
    if (lock_holder != conn_id) return;
    lock_holder.reset();
    grantLock();
  }

  void wakeStageWaiters() {
    while (!stage_waiters.empty() && stage_waiters.begin()->first <= stage) {
      const Waiter w = stage_waiters.begin()->second;
      stage_waiters.erase(stage_waiters.begin());
      if (Conn* c = conn(w.conn)) {
        --c->stage_waits;
        Reply r;
        r.id = w.request;
        r.number = stage;
        reply(*c, r);
      }
    }
  }

  // --- requests -----------------------------------------------------------

  void handle(Conn& c, Request& r) {
    if (c.role == Conn::Role::kNotify) {
      cutOff(c);  // a notification connection has nothing more to say
      return;
    }
    if (r.op == Op::kAttachNotify) {
      attachNotify(c, r);
      return;
    }
    c.role = Conn::Role::kRequest;
    switch (r.op) {
      case Op::kHello: {
        c.name = r.path;
        if (c.token.empty()) c.token = newToken();
        if (c.token.empty()) return reply(c, failure(r, Status::kBadRequest, "no random bytes for a token"));
        Reply hello = success(r, c.id);
        hello.items.push_back(Item{{}, {}, c.token, 0});
        return reply(c, std::move(hello));
      }
      case Op::kGetValues:
        return reply(c, getValues(r));
      case Op::kSetValue:
        return reply(c, setValue(r));
      case Op::kSubscribe:
        return reply(c, subscribe(c, r));
      case Op::kUnsubscribe:
        return reply(c, unsubscribe(c, r));
      case Op::kLock:
        return lock(c, r);
      case Op::kLockCancel:
        return lockCancel(c, r);
      case Op::kUnlock:
        if (lock_holder != c.id) return reply(c, failure(r, Status::kLockNotHeld, "write lock not held"));
        releaseLock(c.id);
        return reply(c, success(r));
      case Op::kRefcount:
        return reply(c, refcount(r));
      case Op::kStageGet:
        return reply(c, success(r, stage));
      case Op::kStageSet:
        stage = r.number;
        reply(c, success(r, stage));
        return wakeStageWaiters();
      case Op::kStageWait:
        if (stage >= r.number) return reply(c, success(r, stage));
        if (c.stage_waits >= options.max_stage_waits)
          return reply(c, failure(r, Status::kBadRequest, "too many stage waits"));
        ++c.stage_waits;
        stage_waiters.emplace(r.number, Waiter{c.id, r.id, r.number});
        return;
      case Op::kGetSubtree:
        return reply(c, getSubtree(r));
      case Op::kAddObject:
        return reply(c, addObject(r));
      case Op::kDelObject:
        return reply(c, delObject(r));
      case Op::kHistory:
        return reply(c, historyOf(r));
      case Op::kAttachNotify:
        break;
    }
  }

  // Only the client itself can attach its notification connection: it proves
  // that with the token its hello was answered with. Client numbers are
  // small and guessable; the token is not. A wrong guess ends the connection.
  void attachNotify(Conn& c, const Request& r) {
    Conn* owner = r.number > 0 && r.number <= UINT32_MAX ? conn(static_cast<uint32_t>(r.number))
                                                          : nullptr;
    if (c.role != Conn::Role::kNew || !owner || owner == &c ||
        owner->role == Conn::Role::kNotify || owner->token.empty() || !r.value ||
        !sameToken(*r.value, owner->token)) {
      reply(c, failure(r, Status::kBadRequest, "no such client"));
      return cutOff(c);
    }
    if (Conn* old = conn(owner->notify)) old->dead = true;  // the newest attachment wins
    owner->role = Conn::Role::kRequest;
    owner->notify = c.id;
    c.role = Conn::Role::kNotify;
    c.owner = owner->id;
    reply(c, success(r));
  }

  Reply getValues(const Request& r) {
    auto pattern = parsePattern(r.path);
    if (!pattern) return failure(r, Status::kMalformed, r.path);
    auto found = model.match(*pattern);
    if (found.empty() && ((r.number & kMustExist) || namesOneInstance(*pattern)))
      return failure(r, Status::kNoSuchObject, r.path);
    Reply reply = success(r);
    for (const auto& [path, object] : found) {
      // An instance without parameters of its own (a disk known only through
      // its partitions) is answered too, with one item that names it.
      if (object->params.empty()) reply.items.push_back(valueItem(*path, "", ""));
      for (const auto& [name, value] : object->params) reply.items.push_back(valueItem(*path, name, value));
    }
    return reply;
  }

  Reply getSubtree(const Request& r) {
    auto pattern = parsePattern(r.path);
    if (!pattern) return failure(r, Status::kMalformed, r.path);
    Reply reply = success(r);
    for (const auto& [path, object] : model.matchAtOrBelow(*pattern))
      for (const auto& [name, value] : object->params) reply.items.push_back(valueItem(*path, name, value));
    // The last name may also be a parameter of the objects before it.
    const Segment& last = pattern->back();
    if (pattern->size() >= 2 && !last.wildcard && !last.instance) {
      Path objects(pattern->begin(), pattern->end() - 1);
      for (const auto& [path, object] : model.match(objects)) {
        auto param = object->params.find(last.name);
        if (param != object->params.end()) reply.items.push_back(valueItem(*path, param->first, param->second));
      }
    }
    return reply;
  }

  Reply setValue(const Request& r) {
    auto object = parseObjectPath(r.path);
    if (!object || !r.name || !isName(*r.name)) return failure(r, Status::kMalformed, r.path);
    if (!r.value) return failure(r, Status::kBadRequest, "no value");
    auto result = model.set(*object, *r.name, *r.value);
    if (result == Model::SetResult::kNoObject) return failure(r, Status::kNoSuchObject, r.path);
    recordHistory(*object, *r.name, *r.value);
    if (result == Model::SetResult::kChanged) notifyValue(*object, *r.name, *r.value);
    return success(r);
  }

  Reply addObject(const Request& r) {
    auto object = parseObjectPath(r.path);
    if (!object) return failure(r, Status::kMalformed, r.path);
    for (const auto& param : r.params)
      if (!isName(param.first)) return failure(r, Status::kMalformed, r.path + "." + param.first);
    auto created = model.add(*object, r.params);
    if (created.empty()) return failure(r, Status::kExists, r.path);
    for (const auto& [name, value] : r.params) recordHistory(*object, name, value);
    for (const Path& path : created) notifyAdded(path);
    return success(r);
  }

  Reply delObject(const Request& r) {
    auto object = parseObjectPath(r.path);
    if (!object) return failure(r, Status::kMalformed, r.path);
    auto removed = model.remove(*object);
    if (removed.empty()) return failure(r, Status::kNoSuchObject, r.path);
    for (const Path& path : removed) {
      history.erase(path);
      notifyRemoved(path);
    }
    return success(r);
  }

  Reply historyOf(const Request& r) {
    auto object = parseObjectPath(r.path);
    if (!object || !r.name || !isName(*r.name)) return failure(r, Status::kMalformed, r.path);
    if (!model.find(*object)) return failure(r, Status::kNoSuchObject, r.path);
    Reply reply = success(r);
    auto object_history = history.find(*object);
    if (object_history == history.end()) return reply;
    auto it = object_history->second.find(*r.name);
    if (it == object_history->second.end()) return reply;
    for (const std::string& value : it->second.values) reply.items.push_back(Item{{}, {}, value, 0});
    return reply;
  }

  Reply subscribe(Conn& c, const Request& r) {
    auto pattern = parsePattern(r.path);
    if (!pattern || (r.name && !isName(*r.name))) return failure(r, Status::kMalformed, r.path);
    const auto mask = static_cast<uint32_t>(r.number);
    if (r.number < 0 || r.number > UINT32_MAX || !(mask & (kMaskAdded | kMaskRemoved | kMaskValue)))
      return failure(r, Status::kBadRequest, "bad event mask");
    if (c.subscriptions >= options.max_subscriptions)
      return failure(r, Status::kBadRequest, "too many subscriptions");
    // Identifiers wrap after 2^32; one still in use is skipped.
    while (next_subscription == 0 || subscriptions.count(next_subscription)) ++next_subscription;
    ++c.subscriptions;
    const uint32_t id = next_subscription++;
    subscriptions[id] = Subscription{c.id, std::move(*pattern), r.name, mask};
    return success(r, id);
  }

  Reply unsubscribe(Conn& c, const Request& r) {
    auto it = r.number > 0 && r.number <= UINT32_MAX ? subscriptions.find(static_cast<uint32_t>(r.number))
                                                     : subscriptions.end();
    if (it == subscriptions.end() || it->second.owner != c.id)
      return failure(r, Status::kNoSuchSubscription, "no such subscription");
    subscriptions.erase(it);
    --c.subscriptions;
    return success(r);
  }

  void lock(Conn& c, const Request& r) {
    if (!lock_holder) lock_holder = c.id;
    if (lock_holder == c.id) return reply(c, success(r));
    if (r.number == 0) return reply(c, failure(r, Status::kLockBusy, "write lock held by another client"));
    if (c.lock_waits >= options.max_lock_waits)
      return reply(c, failure(r, Status::kBadRequest, "too many write lock waits"));
    ++c.lock_waits;
    lock_waiters.push_back(Waiter{c.id, r.id, 0});
  }

  // The client gave up waiting. Its wait may already have been granted (the
  // grant crossed the cancel on the wire): then the lock is given back.
  void lockCancel(Conn& c, const Request& r) {
    for (auto it = lock_waiters.begin(); it != lock_waiters.end();) {
      if (it->conn != c.id) {
        ++it;
        continue;
      }
      Reply timed_out;
      timed_out.id = it->request;
      timed_out.status = Status::kTimedOut;
      timed_out.text = "timed out waiting for the write lock";
      reply(c, timed_out);
      it = lock_waiters.erase(it);
      --c.lock_waits;
    }
    releaseLock(c.id);
    reply(c, success(r));
  }

  Reply refcount(const Request& r) {
    auto object = parseObjectPath(r.path);
    if (!object) return failure(r, Status::kMalformed, r.path);
    Model::Object* target = model.find(*object);
    if (!target) return failure(r, Status::kNoSuchObject, r.path);
    if (r.number < -1 || r.number > 1) return failure(r, Status::kBadRequest, "bad reference change");
    if (target->refcount + r.number < 0)
      return failure(r, Status::kRefcountUnderflow, "no reference held on " + r.path);
    target->refcount += r.number;
    return success(r, target->refcount);
  }

  // --- connections --------------------------------------------------------

  // Connections beyond the cap, and those that come while the broker is out
  // of descriptors, are closed at once: the client sees the bus hang up
  // rather than wait in the listen queue.
  void acceptAll() {
    for (;;) {
      FileDescriptor fd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!fd) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return;
        if ((errno == EMFILE || errno == ENFILE) && spare) {
          spare.reset();
          const bool dropped = FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).valid();
          spare = openSpare();  // the accepted connection is closed by now
          if (dropped && spare) continue;
        }
        // Nothing to do about it now (no memory, no spare): leave the
        // listener alone for a moment instead of polling it in a loop.
        accept_paused_until = std::chrono::steady_clock::now() + kAcceptPause;
        return;
      }
      if (conns.size() >= max_clients) {
        refuse(fd.get());
        continue;
      }
      auto c = std::make_unique<Conn>();
      c->id = next_conn++;
      if (next_conn == 0) next_conn = 1;  // 0 means "none"
      c->fd = std::move(fd);
      conns[c->id] = std::move(c);
    }
  }

  static FileDescriptor openSpare() { return FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

  // Tells a connection over the cap why it is closed: the answer to the
  // first request a library client sends (its hello), if the socket takes it.
  static void refuse(int fd) {
    Reply no;
    no.id = 1;
    no.status = Status::kBadRequest;
    no.text = "too many clients";
    const std::string frame = encode(no);
    if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
      // Closed anyway.
    }
  }

  void readFrom(Conn& c) {
    char buffer[kReadChunk];
    for (size_t total = 0; !c.dead && total < kReadBudget;) {
      ssize_t n = ::recv(c.fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (n <= 0) {
        c.dead = true;
        return;
      }
      total += static_cast<size_t>(n);
      c.in.append(buffer, static_cast<size_t>(n));
      processFrames(c);
    }
  }

  void processFrames(Conn& c) {
    std::string payload;
    while (!c.dead) {
      switch (c.in.next(&payload)) {
        case FrameReader::Result::kNeedMore:
          return;
        case FrameReader::Result::kBad:
          return cutOff(c);
        case FrameReader::Result::kFrame:
          break;
      }
      auto message = decode(payload);
      auto* request = message ? std::get_if<Request>(&*message) : nullptr;
      if (!request) return cutOff(c);
      handle(c, *request);
    }
  }

  // Closes dead connections and drops what their clients held. Closing a
  // client's request connection also closes its notification connection,
  // and handing the write lock on may cut off yet another client, so this
  // runs until no dead connection is left.
  void reap() {
    for (;;) {
      auto it = std::find_if(conns.begin(), conns.end(), [](const auto& entry) { return entry.second->dead; });
      if (it == conns.end()) return;
      Conn& c = *it->second;
      if (c.role == Conn::Role::kNotify) {
        if (Conn* owner = conn(c.owner); owner && owner->notify == c.id) owner->notify = 0;
      } else {
        if (Conn* channel = conn(c.notify)) channel->dead = true;
        dropClient(c);
      }
      conns.erase(it);
    }
  }

  void dropClient(const Conn& c) {
    std::erase_if(subscriptions, [&](const auto& entry) { return entry.second.owner == c.id; });
    std::erase_if(stage_waiters, [&](const auto& entry) { return entry.second.conn == c.id; });
    std::erase_if(lock_waiters, [&](const Waiter& w) { return w.conn == c.id; });
    releaseLock(c.id);
  }
};

Broker::Broker(Model model, BrokerOptions options)
    : state_(std::make_unique<State>(std::move(model), std::move(options))) {
  (void)stop_pipe_.open(O_NONBLOCK);
}

Broker::~Broker() {
  if (state_->bound) ::unlink(state_->options.socket_path.c_str());
}

int Broker::listen(std::string* error) {
  const std::string& path = state_->options.socket_path;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    *error = "bad socket path: " + path;
    return -1;
  }
  if (!stop_pipe_.read_end) {
    *error = std::string("cannot create a pipe: ") + ::strerror(errno);
    return -1;
  }
  ::memcpy(address.sun_path, path.c_str(), path.size() + 1);

  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      *error = path + " exists and is not a socket";
      return -1;
    }
    if (connectTo(path, nullptr)) {
      *error = "a broker already listens on " + path;
      return -1;
    }
    ::unlink(path.c_str());  // left behind by a broker that died
  }
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    *error = "cannot bind " + path + ": " + ::strerror(errno);
    return -1;
  }
  state_->bound = true;
  if (::listen(fd.get(), kListenBacklog) != 0) {
    *error = "cannot listen on " + path + ": " + ::strerror(errno);
    return -1;
  }
  state_->listener = std::move(fd);
  state_->spare = State::openSpare();
  state_->max_clients = state_->options.max_clients;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    const size_t usable = limit.rlim_cur > kReservedDescriptors ? limit.rlim_cur - kReservedDescriptors : 1;
    state_->max_clients = std::min(state_->max_clients, usable);
  }
  return 0;
}

int Broker::run() {
  State& s = *state_;
  std::vector<pollfd> fds;
  std::vector<uint32_t> ids;  // conn id per entry of fds after the first two
  for (;;) {
    int timeout = -1;
    if (s.accept_paused_until) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*s.accept_paused_until -
                                                                      std::chrono::steady_clock::now());
      if (left.count() > 0) {
        timeout = static_cast<int>(left.count());
      } else {
        s.accept_paused_until.reset();
      }
    }
    const short listen_events = s.accept_paused_until ? 0 : POLLIN;
    fds.assign({pollfd{stop_pipe_.read_end.get(), POLLIN, 0}, pollfd{s.listener.get(), listen_events, 0}});
    ids.clear();
    for (const auto& [id, c] : s.conns) {
      const short events = static_cast<short>(POLLIN | (c->out.empty() ? 0 : POLLOUT));
      fds.push_back(pollfd{c->fd.get(), events, 0});
      ids.push_back(id);
    }
    if (::poll(fds.data(), fds.size(), timeout) < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (fds[0].revents) break;
    if (fds[1].revents & POLLIN) s.acceptAll();
    for (size_t i = 0; i < ids.size(); ++i) {
      const short revents = fds[i + 2].revents;
      Conn* c = s.conn(ids[i]);
      if (!c || !revents) continue;
      if (revents & POLLOUT) s.flush(*c);
      if (revents & (POLLIN | POLLHUP | POLLERR)) s.readFrom(*c);
    }
    s.reap();
  }
  s.conns.clear();
  if (s.bound) ::unlink(s.options.socket_path.c_str());
  s.bound = false;
  return 0;
}

void Broker::stop() noexcept {
  const char byte = 0;
  if (::write(stop_pipe_.write_end.get(), &byte, 1) < 0) {
    // Already stopping: the pipe is full of earlier requests.
  }
}

}  // namespace zibd::rill
