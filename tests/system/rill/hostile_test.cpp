// A hostile local client against a real rilld: it speaks the wire protocol
// directly and does what no library would, and the broker must go on serving
// everybody else.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "common/file_descriptor.h"
#include "host/rill/wire.h"
#include "tests/support/wait_for.h"
#include "tests/system/rill/bus_fixture.h"

namespace zibd::test {
namespace {

using rill::Op;
using rill::Reply;
using rill::Request;
using rill::Status;
using namespace std::chrono_literals;

// One raw connection that sends encoded requests and reads replies itself.
class Hostile {
 public:
  explicit Hostile(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    connected_ = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }
  bool connected() const { return connected_; }

  // Queues a request (sent by flush()).
  void queue(Request r) {
    r.id = ++last_id_;
    pending_ += rill::encode(r);
  }
  // Sends what is queued, reading replies meanwhile so that the broker never
  // has to cut us off for not reading.
  bool flush() {
    size_t sent = 0;
    while (sent < pending_.size()) {
      pollfd pfd{fd_.get(), POLLIN | POLLOUT, 0};
      if (::poll(&pfd, 1, 10000) <= 0) return false;
      if (pfd.revents & POLLIN) {
        if (!receive()) return false;
      } else if (pfd.revents & POLLOUT) {
        ssize_t n = ::send(fd_.get(), pending_.data() + sent, pending_.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno != EAGAIN) return false;
        if (n > 0) sent += static_cast<size_t>(n);
      } else {
        return false;
      }
    }
    pending_.clear();
    return true;
  }
  Reply call(Request r) {
    queue(std::move(r));
    EXPECT_TRUE(flush());
    const uint32_t id = last_id_;
    return awaitReply(id).value_or(Reply{0, Status::kBadRequest, "connection lost", 0, {}});
  }
  // Reads until the reply to request id arrives; the replies before it are in replies().
  std::optional<Reply> awaitReply(uint32_t id) {
    for (;;) {
      for (auto it = replies_.begin(); it != replies_.end(); ++it) {
        if (it->id == id) {
          Reply r = *it;
          replies_.erase(it);
          return r;
        }
      }
      pollfd pfd{fd_.get(), POLLIN, 0};
      if (::poll(&pfd, 1, 20000) <= 0 || !receive()) return std::nullopt;
    }
  }
  uint32_t lastId() const { return last_id_; }
  std::vector<Reply>& replies() { return replies_; }

  // Whether the broker hung up on us (reads and keeps anything else).
  bool hungUp(std::chrono::milliseconds timeout = 10s) {
    return waitFor([&] {
      pollfd pfd{fd_.get(), POLLIN, 0};
      return ::poll(&pfd, 1, 50) > 0 && !receive();
    }, timeout);
  }

 private:
  bool receive() {
    char buffer[64 * 1024];
    ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) return false;
    reader_.append(buffer, static_cast<size_t>(n));
    std::string payload;
    while (reader_.next(&payload) == rill::FrameReader::Result::kFrame) {
      auto message = rill::decode(payload);
      if (message && std::holds_alternative<Reply>(*message)) replies_.push_back(std::get<Reply>(*message));
    }
    return true;
  }

  FileDescriptor fd_;
  bool connected_ = false;
  std::string pending_;
  uint32_t last_id_ = 0;
  rill::FrameReader reader_;
  std::vector<Reply> replies_;
};

Request request(Op op, std::string path = {}, int64_t number = 0) {
  Request r;
  r.op = op;
  r.path = std::move(path);
  r.number = number;
  return r;
}

// A process's user plus system CPU time, in clock ticks.
long cpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string field;
  long utime = 0, stime = 0;
  for (int i = 3; fields >> field; ++i) {  // field 3 is the state
    if (i == 14) utime = std::stol(field);
    if (i == 15) {
      stime = std::stol(field);
      break;
    }
  }
  return utime + stime;
}

// A process's resident memory in KiB.
long residentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

class HostileClientTest : public BusTest {
 protected:
  // For the tests that measure the broker's memory: under AddressSanitizer
  // freed memory is held in quarantine (hundreds of MiB) rather than reused,
  // which would hide what the broker itself keeps. No effect on other builds.
  void measureMemory() {
    const char* options = ::getenv("ASAN_OPTIONS");
    broker_env_.set["ASAN_OPTIONS"] =
        std::string(options ? options : "") + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
  }
};

TEST_F(HostileClientTest, NoClientCanTakeOverAnotherClientsNotifications) {
  startBroker();
  rill_conn_t* victim = connect("victim");
  auto ids = subscribe(victim, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(ids.size(), 1u);
  ASSERT_EQ(rill_invoke_get_client_writelock(victim, 0, -1), 0);

  // Client numbers are small and count up: try every one below our own,
  // and on a connection that got attached, send a request.
  Hostile attacker(socket_);
  Reply hello = attacker.call(request(Op::kHello, "attacker"));
  ASSERT_EQ(hello.status, Status::kOk);
  int attached = 0;
  for (int64_t number = 1; number < hello.number; ++number) {
    Hostile thief(socket_);
    Request attach = request(Op::kAttachNotify, {}, number);
    attach.value = "0123456789abcdef0123456789abcdef";  // a guessed token
    if (thief.call(attach).status != Status::kOk) continue;
    ++attached;
    thief.call(request(Op::kStageGet));
  }
  EXPECT_EQ(attached, 0);

  // The victim still holds the lock and still hears its notifications.
  rill_conn_t* other = connect("other");
  EXPECT_NE(rill_invoke_get_client_writelock(other, 0, -1), 0) << "the victim's write lock is gone";
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(victim, 1));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].subid, ids[0]);
  std::vector<Flat> items;
  EXPECT_EQ(read(victim, "VFS.MetaDataService", &items), 0);
}

TEST_F(HostileClientTest, OutOfDescriptorsTheBrokerStaysIdleAndServesItsClients) {
  startBroker(kGatewayModel, {}, 64);
  rill_conn_t* resident = connect("resident");
  auto ids = subscribe(resident, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(ids.size(), 1u);

  // Far more connections than the broker has descriptors for.
  std::vector<std::unique_ptr<Hostile>> flood;
  for (int i = 0; i < 150; ++i) flood.push_back(std::make_unique<Hostile>(socket_));
  std::this_thread::sleep_for(300ms);
  const long before = cpuTicks(broker_->pid());
  std::this_thread::sleep_for(1s);
  EXPECT_LE(cpuTicks(broker_->pid()) - before, 10) << "the broker turns while nothing happens";

  // The excess is dropped, not left hanging; a newcomer is refused at once.
  int dropped = 0;
  for (auto& h : flood) dropped += h->hungUp(20ms) ? 1 : 0;
  EXPECT_GE(dropped, 150 - 64);
  Result refused = ctl({"get", "VFS.MetaDataService"});
  EXPECT_EQ(refused.status, 2) << refused.err;

  // The clients it has are served.
  std::vector<Flat> items;
  EXPECT_EQ(read(resident, "Storage.Disk", &items), 0);
  EXPECT_EQ(items.size(), 3u);
  ASSERT_EQ(set(resident, "VFS.MetaDataService", "ForceRescan", "1"), 0);
  ASSERT_TRUE(awaitEvents(resident, 1));

  // Once the flood has gone, newcomers get in again.
  flood.clear();
  EXPECT_TRUE(waitFor([&] { return ctl({"get", "VFS.MetaDataService.ForceRescan"}).status == 0; }));
  EXPECT_TRUE(broker_->running());
}

// Sends count copies of r on h (in batches, reading replies meanwhile) and
// then a stage read; returns how many replies before that read were
// successes and failures.
std::pair<size_t, size_t> flood(Hostile& h, const Request& r, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    h.queue(r);
    if (i % 4096 == 4095) {
      EXPECT_TRUE(h.flush());
    }
  }
  h.queue(request(Op::kStageGet));
  EXPECT_TRUE(h.flush());
  EXPECT_TRUE(h.awaitReply(h.lastId()).has_value());
  std::pair<size_t, size_t> counts{0, 0};
  for (const Reply& reply : h.replies()) ++(reply.status == Status::kOk ? counts.first : counts.second);
  h.replies().clear();
  return counts;
}

TEST_F(HostileClientTest, OneClientsShareOfTheBrokerIsBoundedAndFreedWhenItLeaves) {
  measureMemory();
  startBroker();
  const long baseline = residentKiB(broker_->pid());
  rill_conn_t* holder = connect("holder");
  ASSERT_EQ(rill_invoke_get_client_writelock(holder, 0, -1), 0);

  auto hostile = std::make_unique<Hostile>(socket_);
  ASSERT_EQ(hostile->call(request(Op::kHello, "hoarder")).status, Status::kOk);
  Request sub = request(Op::kSubscribe, "Storage.Disk.Partition", rill::kMaskValue);
  auto [subscribed, refused] = flood(*hostile, sub, 300000);
  EXPECT_GT(subscribed, 0u);
  EXPECT_LT(subscribed, 300000u);
  EXPECT_EQ(subscribed + refused, 300000u);

  // Waits that nobody answers: the refused ones are answered at once.
  auto [stage_answered, stage_refused] = flood(*hostile, request(Op::kStageWait, {}, 1000000), 300000);
  EXPECT_EQ(stage_answered, 0u);
  EXPECT_GT(stage_refused, 0u);
  EXPECT_LT(stage_refused, 300000u);
  auto [locked, lock_refused] = flood(*hostile, request(Op::kLock, {}, 1), 2000);
  EXPECT_EQ(locked, 0u);
  EXPECT_GT(lock_refused, 0u);
  EXPECT_LT(lock_refused, 2000u);
  EXPECT_LT(residentKiB(broker_->pid()) - baseline, 32 * 1024) << "KiB kept for one client";

  // A write still reaches everyone quickly enough to be a normal write.
  ASSERT_EQ(ctl({"set", "Storage.Disk.1.Partition.1.Manageddisk", "0"}).status, 0);

  // Gone: its share is free again, and its lock waits no longer count.
  hostile.reset();
  Hostile successor(socket_);
  ASSERT_EQ(successor.call(request(Op::kHello, "successor")).status, Status::kOk);
  EXPECT_EQ(flood(successor, sub, subscribed + 10), std::make_pair(subscribed, size_t{10}));
  ASSERT_EQ(rill_invoke_free_client_writelock(holder), 0);
  rill_conn_t* next = connect("next");
  EXPECT_EQ(rill_invoke_get_client_writelock(next, 5, -1), 0) << "granted to a waiter that left";
}

TEST_F(HostileClientTest, HistoryIsCappedByBytesAndGoesWithItsObject) {
  measureMemory();
  startBroker();
  rill_conn_t* writer = connect("writer");
  ASSERT_EQ(ctl({"add", "Storage.Disk.3", "Label=first"}).status, 0);
  const size_t kValue = 200 * 1024;
  for (char c = 'a'; c < 'k'; ++c) ASSERT_EQ(set(writer, "Storage.Disk.3", "Label", std::string(kValue, c)), 0);
  Result r = ctl({"history", "Storage.Disk.3.Label"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LE(r.out.size(), 1024u * 1024u);
  EXPECT_GE(r.out.size(), 2 * (kValue + 1)) << "the newest values are kept";
  std::string newest(kValue, 'j');
  newest.push_back('\n');
  EXPECT_EQ(r.out.substr(r.out.size() - kValue - 1), newest);

  // Deleted: like an object that never existed, also once it is back.
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  r = ctl({"history", "Storage.Disk.3.Label"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  Result never = ctl({"history", "Storage.Disk.4.Label"});
  EXPECT_EQ(never.status, 2);
  EXPECT_EQ(r.err.substr(0, r.err.find("Storage")), never.err.substr(0, never.err.find("Storage")));
  ASSERT_EQ(ctl({"add", "Storage.Disk.3", "Label=second"}).status, 0);
  EXPECT_EQ(ctl({"history", "Storage.Disk.3.Label"}).out, "second\n");

  // Add and delete cycles leave nothing behind.
  const long baseline = residentKiB(broker_->pid());
  Hostile cycler(socket_);
  ASSERT_EQ(cycler.call(request(Op::kHello, "cycler")).status, Status::kOk);
  for (int i = 0; i < 20000; ++i) {
    Request add = request(Op::kAddObject, "Cycle." + std::to_string(i + 1));
    add.params = {{"A", std::string(100, 'x')}, {"B", "y"}};
    cycler.queue(add);
    cycler.queue(request(Op::kDelObject, "Cycle." + std::to_string(i + 1)));
    if (i % 1000 == 999) {
      ASSERT_TRUE(cycler.flush());
      cycler.replies().clear();
    }
  }
  ASSERT_EQ(cycler.call(request(Op::kStageGet)).status, Status::kOk);
  EXPECT_LT(residentKiB(broker_->pid()) - baseline, 4 * 1024) << "KiB kept by 20000 deleted objects";
  EXPECT_EQ(ctl({"history", "Cycle.7.A"}).status, 2);
}

}  // namespace
}  // namespace zibd::test
