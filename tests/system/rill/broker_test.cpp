// The broker over its socket, with a real rilld: values, classes, events,
// locks, references and stages through the client library the daemon uses,
// and hostile clients that speak the wire protocol themselves.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "common/file_descriptor.h"
#include "host/rill/wire.h"
#include "platform/stage.h"
#include "tests/support/wait_for.h"
#include "tests/system/rill/bus_fixture.h"

namespace zibd::test {
namespace {

using rill::Op;
using rill::Reply;
using rill::Request;
using rill::Status;
using namespace std::chrono_literals;
using BrokerTest = BusTest;

Request request(Op op, std::string path = {}, int64_t number = 0) {
  Request r;
  r.op = op;
  r.path = std::move(path);
  r.number = number;
  return r;
}

// A connection that sends raw bytes or encoded requests and reads replies
// itself, never through the library.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  void send(const std::string& bytes) { ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  void queue(Request r) {
    r.id = ++last_id_;
    pending_ += rill::encode(r);
  }
  // Sends what is queued, reading replies meanwhile so that the broker never
  // cuts us off for not reading.
  bool flush() {
    for (size_t sent = 0; sent < pending_.size();) {
      pollfd pfd{fd_.get(), POLLIN | POLLOUT, 0};
      if (::poll(&pfd, 1, 10000) <= 0) return false;
      if (pfd.revents & POLLIN) {
        if (!receive()) return false;
      } else if (!(pfd.revents & POLLOUT)) {
        return false;
      } else if (ssize_t n = ::send(fd_.get(), pending_.data() + sent, pending_.size() - sent,
                                    MSG_NOSIGNAL | MSG_DONTWAIT);
                 n > 0) {
        sent += static_cast<size_t>(n);
      }
    }
    pending_.clear();
    return true;
  }
  // Waits for the reply to the last request; the replies before it stay in replies_.
  std::optional<Reply> awaitLast() {
    for (;;) {
      for (auto it = replies_.begin(); it != replies_.end(); ++it) {
        if (it->id != last_id_) continue;
        Reply r = *it;
        replies_.erase(it);
        return r;
      }
      pollfd pfd{fd_.get(), POLLIN, 0};
      if (::poll(&pfd, 1, 20000) <= 0 || !receive()) return std::nullopt;
    }
  }
  Reply call(Request r) {
    queue(std::move(r));
    EXPECT_TRUE(flush());
    return awaitLast().value_or(Reply{0, Status::kBadRequest, "connection lost", 0, {}});
  }
  // Sends count copies of r, then a stage read; returns how many of them
  // succeeded and failed.
  std::pair<size_t, size_t> flood(const Request& r, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      queue(r);
      if (i % 4096 == 4095) {
        EXPECT_TRUE(flush());
      }
    }
    queue(request(Op::kStageGet));
    EXPECT_TRUE(flush());
    EXPECT_TRUE(awaitLast().has_value());
    std::pair<size_t, size_t> counts{0, 0};
    for (const Reply& reply : replies_) ++(reply.status == Status::kOk ? counts.first : counts.second);
    replies_.clear();
    return counts;
  }
  bool hungUp(std::chrono::milliseconds timeout = 10s) {
    return waitFor([&] {
      pollfd pfd{fd_.get(), POLLIN, 0};
      return ::poll(&pfd, 1, 50) > 0 && !receive();
    }, timeout);
  }
  std::vector<Reply> replies_;

 private:
  bool receive() {
    char buffer[64 * 1024];
    ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && errno == EAGAIN) return true;
    if (n <= 0) return false;
    reader_.append(buffer, static_cast<size_t>(n));
    for (std::string payload; reader_.next(&payload) == rill::FrameReader::Result::kFrame;) {
      auto message = rill::decode(payload);
      if (message && std::holds_alternative<Reply>(*message)) replies_.push_back(std::get<Reply>(*message));
    }
    return true;
  }
  FileDescriptor fd_;
  std::string pending_;
  uint32_t last_id_ = 0;
  rill::FrameReader reader_;
};

// User plus system CPU time in clock ticks: fields 14 and 15 of /proc/PID/stat.
long cpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string value;
  for (int i = 3; i < 14; ++i) fields >> value;
  long utime = 0, stime = 0;
  fields >> utime >> stime;
  return utime + stime;
}
// Resident memory in KiB.
long residentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  return -1;
}

std::set<std::string> pathsOf(const std::vector<Flat>& items) {
  std::set<std::string> paths;
  for (const Flat& f : items) paths.insert(f.path);
  return paths;
}

int findInstance(rill_conn_t* conn, const char* path, std::vector<Flat>* items, int* nulls) {
  int error = -1;
  cs_find_parameters_of_obj_instances(
      conn, path, 0, 2,
      [](rill_reply_t* reply, void* context) {
        for (const Flat& f : flatten(reply ? rill_reply_get_items(reply) : nullptr))
          static_cast<std::vector<Flat>*>(context)->push_back(f);
        return 0;
      },
      items, &error);
  if (error != 0) ++*nulls;
  return error;
}

// Under AddressSanitizer freed memory sits in quarantine instead of being
// reused, which would hide what the broker itself keeps.
class MeasuredBrokerTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    const char* options = ::getenv("ASAN_OPTIONS");
    broker_env_.set["ASAN_OPTIONS"] =
        std::string(options ? options : "") + ":quarantine_size_mb=0:thread_local_quarantine_size_kb=0";
  }
};

TEST_F(BrokerTest, ABadModelLineStopsTheBrokerWithItsNumber) {
  sandbox_.write("bad.model", "VFS.MetaDataService.ForceRescan=0\n# fine\n\nStorage.Disk.1\n");
  Result r = run({binary("rilld"), "--model", sandbox_ / "bad.model"}, env());
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("line 4"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(socket_)) << "nothing listens";
}

TEST_F(BrokerTest, ClassReadsYieldInstancesAndInstanceReadsThatInstanceOrAnError) {
  startBroker();
  rill_conn_t* conn = connect("reader");
  struct Case {
    const char* path;
    int rc;
    std::set<std::string> paths;
    size_t items;
  };
  for (const Case& c : std::vector<Case>{
           {"ContentSharing.UPnPAV.IndexRules", 0, {"ContentSharing.UPnPAV.IndexRules.1"}, 2},
           {"Storage.Disk", 0, {"Storage.Disk.1", "Storage.Disk.2"}, 3},
           {"Storage.*.Partition", 0,
            {"Storage.Disk.1.Partition.1", "Storage.Disk.2.Partition.1", "Storage.Disk.2.Partition.2"}, 6},
           {"Storage.Disk.3.Partition", 0, {}, 0},  // no instances yet is normal
           {"Storage.Disk.9", 17, {}, 0},           // a missing instance is not
       }) {
    SCOPED_TRACE(c.path);
    std::vector<Flat> items;
    EXPECT_EQ(read(conn, c.path, &items), c.rc);
    EXPECT_EQ(pathsOf(items), c.paths);
    EXPECT_EQ(items.size(), c.items);
  }
  std::vector<Flat> items;
  int nulls = 0;
  EXPECT_EQ(findInstance(conn, "Storage.Disk", &items, &nulls), 0);  // a class: every instance
  EXPECT_EQ(pathsOf(items), (std::set<std::string>{"Storage.Disk.1", "Storage.Disk.2"}));
  items.clear();
  EXPECT_EQ(findInstance(conn, "Storage.Disk.2.Partition.2", &items, &nulls), 0);
  EXPECT_EQ(items, (std::vector<Flat>{{"Storage.Disk.2.Partition.2", "Manageddisk", "0", 0},
                                      {"Storage.Disk.2.Partition.2", "MountPoint", "/var/uuidmount/c0de", 0}}));
  EXPECT_NE(findInstance(conn, "Storage.Disk.7", &items, &nulls), 0);
  EXPECT_EQ(nulls, 1);
}

TEST_F(BrokerTest, AdditionsAndRemovalsReachSubscribersComplete) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  read_back_on_add_ = true;
  auto ids = subscribe(watcher, {{"Storage.Disk", nullptr, RILL_SUBSCRIBE_OBJECTS},
                                 {"Storage.Disk.Partition", nullptr, RILL_SUBSCRIBE_OBJECTS}});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_NE(ids[0], ids[1]);
  ASSERT_EQ(ctl({"add", "Storage.Disk.3.Partition.1", "MountPoint=/m", "Status=1", "Manageddisk=0"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  EXPECT_EQ(events_[0].type, RILL_EVENT_OBJECT_ADDED);
  EXPECT_EQ(events_[0].subid, ids[0]);
  EXPECT_EQ(events_[0].items, (std::vector<Flat>{{"Storage.Disk.3", "-", "-", 0}}));
  EXPECT_EQ(events_[1].subid, ids[1]);
  EXPECT_EQ(events_[1].items, (std::vector<Flat>{{"Storage.Disk.3.Partition.1", "-", "-", 0}}));
  // Read from the callbacks: the disk as an instance, its partition with every parameter.
  ASSERT_EQ(seen_in_callback_.size(), 4u);
  EXPECT_EQ(seen_in_callback_[0].path, "Storage.Disk.3");

  events_.clear();  // the disk goes with its partition, innermost first
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  EXPECT_EQ(events_[0].type, RILL_EVENT_OBJECT_REMOVED);
  EXPECT_EQ(events_[0].subid, ids[1]);
  EXPECT_EQ(events_[0].items[0].path, "Storage.Disk.3.Partition.1");
  EXPECT_EQ(events_[1].type, RILL_EVENT_OBJECT_REMOVED);
  EXPECT_EQ(events_[1].items[0].path, "Storage.Disk.3");
}

TEST_F(BrokerTest, EveryChangingWriteIsNotifiedUntilUnsubscribed) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"Storage.Disk.Partition", "Manageddisk", RILL_SUBSCRIBE_VALUE},
                                 {"ContentSharing.UPnPAV.IndexRules", nullptr, RILL_SUBSCRIBE_OBJECTS_AND_VALUES},
                                 {"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(ids.size(), 3u);
  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);  // the writer's own too
  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);  // no change
  ASSERT_NE(set(watcher, "Storage.Disk.9", "Manageddisk", "1"), 0);               // no object
  rill_ccmd_t cmd{};  // a malformed path is refused before it is sent; the value is freed all the same
  EXPECT_NE(rill_ccmd_add_setvalues_request(watcher, &cmd, "Storage..Disk", "X",
                                            dynstr_fromstring(rill_dynstr_poolid(), "freed"), 0), 0);
  rill_ccmd_cleanup(&cmd);
  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.MountPoint", "/elsewhere"}).status, 0);  // not subscribed
  ASSERT_EQ(ctl({"set", "ContentSharing.UPnPAV.IndexRules.1.Enable", "0"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 3));
  ASSERT_EQ(events_.size(), 3u) << "none missing, none extra";
  EXPECT_EQ(events_[0].type, RILL_EVENT_VALUE_CHANGED);
  EXPECT_EQ(events_[0].subid, ids[0]);
  EXPECT_EQ(events_[0].items, (std::vector<Flat>{{"Storage.Disk.2.Partition.1", "Manageddisk", "1", 0}}));
  EXPECT_EQ(events_[1].subid, ids[1]);
  EXPECT_EQ(events_[1].items, (std::vector<Flat>{{"ContentSharing.UPnPAV.IndexRules.1", "Enable", "0", 0}}));
  EXPECT_EQ(events_[2].subid, ids[2]);

  int result = -1;
  ASSERT_EQ(cs_unsubscribe_events(watcher, ids.data(), 1, &result), 0);
  EXPECT_EQ(result, 0);
  events_.clear();
  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.Manageddisk", "0"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "0"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 1));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].subid, ids[2]);
  // Gone already, and another client's identifiers are not ours to end.
  EXPECT_EQ(cs_unsubscribe_events(watcher, ids.data(), 1, &result), 0);
  EXPECT_NE(result, 0);
  EXPECT_EQ(cs_unsubscribe_events(connect("other"), &ids[2], 1, &result), 0);
  EXPECT_NE(result, 0);
}

TEST_F(BrokerTest, TheWriteLockIsHeldByOneClientAtATime) {
  startBroker();
  rill_conn_t* a = connect("a");
  rill_conn_t* b = connect("b");
  ASSERT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
  EXPECT_NE(rill_invoke_get_client_writelock(b, 1, -1), 0) << "held by a";
  EXPECT_NE(rill_invoke_free_client_writelock(b), 0) << "a timed-out wait holds nothing";

  std::atomic<int> result{-100};  // freed: the waiting client gets it
  std::thread b_waits([&] { result = rill_invoke_get_client_writelock(b, 25, -1); });
  EXPECT_EQ(ctl({"stage"}).status, 0);  // meanwhile b is (almost surely) queued
  EXPECT_EQ(rill_invoke_free_client_writelock(a), 0);
  b_waits.join();
  EXPECT_EQ(result, 0);

  result = -100;  // the holder goes away: the waiting client gets it
  std::thread a_waits([&] { result = rill_invoke_get_client_writelock(a, 25, -1); });
  EXPECT_EQ(ctl({"stage"}).status, 0);
  disconnect(b);
  a_waits.join();
  EXPECT_EQ(result, 0);

  ASSERT_EQ(rill_invoke_free_client_writelock(a), 0);
  rill_conn_t* c = connect("c");  // taken, then the connection closes
  ASSERT_EQ(rill_invoke_get_client_writelock(c, 0, -1), 0);
  disconnect(c);
  EXPECT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
}

TEST_F(BrokerTest, DiskReferencesAreCounted) {
  startBroker();
  rill_conn_t* conn = connect("counter");
  EXPECT_EQ(cs_incrementDiskRefcount(conn, "Storage.Disk.1"), 0);
  EXPECT_EQ(cs_incrementDiskRefcount(conn, "Storage.Disk.1"), 0);
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.1"}).out, "2\n");
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.2"}).out, "0\n");
  EXPECT_EQ(cs_decrementDiskRefcount(conn, "Storage.Disk.1"), 0);
  EXPECT_EQ(cs_decrementDiskRefcount(conn, "Storage.Disk.1"), 0);
  EXPECT_NE(cs_decrementDiskRefcount(conn, "Storage.Disk.1"), 0) << "none left to drop";
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.1"}).out, "0\n");
  EXPECT_NE(cs_incrementDiskRefcount(conn, "Storage.Disk.9"), 0);
}

TEST_F(BrokerTest, WaitUntilStageReturnsOnceTheStageIsReachedOrTheBrokerDies) {
  startBroker(kGatewayModel, {"--stage", "10"});
  EXPECT_EQ(wait_until_stage(5), 0);
  EXPECT_EQ(wait_until_stage(10), 0);
  std::atomic<int> result{-100};
  std::thread waiter([&] { result = wait_until_stage(71); });
  EXPECT_EQ(ctl({"stage", "70"}).status, 0);
  EXPECT_EQ(ctl({"stage"}).out, "70\n");  // a round trip after the change: a wrong answer would be out
  EXPECT_EQ(result, -100) << "answered below the stage";
  EXPECT_EQ(ctl({"stage", "71"}).status, 0);
  waiter.join();
  EXPECT_EQ(result, 0);

  result = -100;
  std::thread orphan([&] { result = wait_until_stage(72); });
  EXPECT_EQ(ctl({"stage"}).out, "71\n");
  EXPECT_EQ(result, -100) << "answered below the stage";
  broker_->signal(SIGKILL);  // a broker that dies ends the wait
  orphan.join();
  EXPECT_NE(result, 0);
}

TEST_F(BrokerTest, TheLibraryFailsCleanlyWhenTheBrokerDies) {
  startBroker();
  rill_conn_t* conn = connect("survivor");
  subscribe(conn, {{"Storage.Disk", nullptr, RILL_SUBSCRIBE_OBJECTS}});
  const int fd = rill_getnotifylistensocket(conn);
  ASSERT_GE(fd, 0);
  broker_->signal(SIGKILL);
  ASSERT_TRUE(broker_->wait().has_value());
  std::vector<Flat> items;
  EXPECT_NE(read(conn, "Storage.Disk", &items), 0);
  EXPECT_NE(set(conn, "VFS.MetaDataService", "ForceRescan", "1"), 0);
  pollfd pfd{fd, POLLIN, 0};
  ASSERT_EQ(::poll(&pfd, 1, 10000), 1) << "a lost connection wakes select()";
  EXPECT_NE(rill_msg_parse(fd, conn), 0);
  EXPECT_EQ(rill_ctx_create_client_connection("late", 0), nullptr);
  EXPECT_NE(wait_until_stage(1), 0);
}

TEST_F(BrokerTest, OneConnectionServesSeveralThreads) {
  startBroker();
  rill_conn_t* shared = connect("shared");
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        std::vector<Flat> items;
        int nulls = 0;
        if (read(shared, "Storage.*.Partition", &items) != 0 || items.size() != 6) ++failures[t];
        if (findInstance(shared, "Storage.Disk.2", &items, &nulls) != 0) ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST_F(BrokerTest, GarbageTruncatedAndVanishingClientsHurtOnlyThemselves) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  for (const std::string& bytes : {std::string("GET / HTTP/1.0\r\n\r\n"),
                                   std::string("\xff\xff\xff\xff", 4) + "tail",  // oversized length
                                   std::string("\0\0\0\0", 4),                   // empty frame
                                   std::string("\0\0\0\x05\x01\x63zzz", 9)}) {   // an unknown request
    RawClient client(socket_);
    client.send(bytes);
    EXPECT_TRUE(client.hungUp()) << testing::PrintToString(bytes);
  }
  {
    RawClient half(socket_);
    half.send(std::string("\0\0\x01\0\x01\x03", 6));  // 256 bytes announced, 2 sent, then gone
    RawClient waiter(socket_);
    waiter.queue(request(Op::kStageWait, {}, 1000));  // gone in the middle of a request
    waiter.flush();
  }
  std::vector<std::unique_ptr<RawClient>> idle;  // connected, silent
  for (int i = 0; i < 20; ++i) idle.push_back(std::make_unique<RawClient>(socket_));

  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 1));
  EXPECT_EQ(events_[0].subid, ids[0]);
  std::vector<Flat> disks;
  EXPECT_EQ(read(watcher, "Storage.Disk", &disks), 0);
  EXPECT_EQ(disks.size(), 3u);
}

TEST_F(BrokerTest, ASubscriberThatStopsReadingIsCutOffAlone) {
  startBroker();
  rill_conn_t* stuck = connect("stuck");
  rill_conn_t* writer = connect("writer");
  subscribe(stuck, {{"Storage.Disk", nullptr, RILL_SUBSCRIBE_VALUE}});  // never dispatched
  const std::string big(256 * 1024, 'x');
  std::vector<Flat> items;
  bool cut = false;
  for (int i = 0; i < 200 && !cut; ++i) {
    ASSERT_EQ(set(writer, "Storage.Disk.2", "Big", big + std::to_string(i)), 0) << "the writer is not disturbed";
    cut = read(stuck, "Storage.Disk", &items) != 0;
  }
  EXPECT_TRUE(cut);
  items.clear();
  EXPECT_EQ(read(writer, "Storage.Disk", &items), 0);
  EXPECT_EQ(items.size(), 4u);
}

TEST_F(BrokerTest, NoClientCanTakeOverAnotherClientsNotificationsOrLock) {
  startBroker();
  rill_conn_t* victim = connect("victim");
  auto ids = subscribe(victim, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(rill_invoke_get_client_writelock(victim, 0, -1), 0);
  // Client numbers are small and count up: try every one below our own.
  RawClient attacker(socket_);
  Reply hello = attacker.call(request(Op::kHello, "attacker"));
  ASSERT_EQ(hello.status, Status::kOk);
  int attached = 0;
  for (int64_t number = 1; number < hello.number; ++number) {
    RawClient thief(socket_);
    Request attach = request(Op::kAttachNotify, {}, number);
    attach.value = "0123456789abcdef0123456789abcdef";  // a guessed token
    if (thief.call(attach).status != Status::kOk) continue;
    ++attached;
    thief.call(request(Op::kStageGet));
  }
  EXPECT_EQ(attached, 0);
  EXPECT_NE(rill_invoke_get_client_writelock(connect("other"), 0, -1), 0) << "the victim's lock is gone";
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(victim, 1));
  EXPECT_EQ(events_[0].subid, ids[0]);
}

TEST_F(BrokerTest, OutOfDescriptorsTheBrokerStaysIdleAndServesItsClients) {
  startBroker(kGatewayModel, {}, 64);
  rill_conn_t* resident = connect("resident");
  subscribe(resident, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  std::vector<std::unique_ptr<RawClient>> flood;
  for (int i = 0; i < 150; ++i) flood.push_back(std::make_unique<RawClient>(socket_));
  // The excess is dropped, not left hanging. Meanwhile (over a second: the
  // clients kept wait 20 ms each) the broker is idle; one that spins on the
  // full listening socket would use all of it.
  const long before = cpuTicks(broker_->pid());
  int dropped = 0;
  for (auto& client : flood) dropped += client->hungUp(20ms) ? 1 : 0;
  EXPECT_GE(dropped, 150 - 64);
  EXPECT_LE(cpuTicks(broker_->pid()) - before, 10);
  EXPECT_EQ(ctl({"get", "VFS.MetaDataService"}).status, 2) << "a newcomer is refused at once";
  std::vector<Flat> items;
  EXPECT_EQ(read(resident, "Storage.Disk", &items), 0);
  ASSERT_EQ(set(resident, "VFS.MetaDataService", "ForceRescan", "1"), 0);
  ASSERT_TRUE(awaitEvents(resident, 1));
  flood.clear();  // newcomers get in again
  EXPECT_TRUE(waitFor([&] { return ctl({"get", "VFS.MetaDataService.ForceRescan"}).status == 0; }));
}

TEST_F(MeasuredBrokerTest, OneClientsShareIsBoundedAndFreedWhenItLeaves) {
  startBroker();
  const long baseline = residentKiB(broker_->pid());
  rill_conn_t* holder = connect("holder");
  ASSERT_EQ(rill_invoke_get_client_writelock(holder, 0, -1), 0);
  auto hoarder = std::make_unique<RawClient>(socket_);
  ASSERT_EQ(hoarder->call(request(Op::kHello, "hoarder")).status, Status::kOk);
  const Request sub = request(Op::kSubscribe, "Storage.Disk.Partition", rill::kMaskValue);
  struct Case {
    Request r;
    size_t count;
    bool some_succeed;
  };
  size_t subscribed = 0;
  for (const Case& c : {Case{sub, 300000, true}, Case{request(Op::kStageWait, {}, 1000000), 300000, false},
                        Case{request(Op::kLock, {}, 1), 2000, false}}) {
    SCOPED_TRACE(static_cast<int>(c.r.op));
    auto [ok, refused] = hoarder->flood(c.r, c.count);
    EXPECT_EQ(ok > 0, c.some_succeed);  // waits are not answered while they wait
    EXPECT_GT(refused, 0u);
    EXPECT_LT(refused, c.count);
    if (c.r.op == Op::kSubscribe) subscribed = ok;
  }
  EXPECT_LT(residentKiB(broker_->pid()) - baseline, 32 * 1024) << "KiB kept for one client";
  ASSERT_EQ(ctl({"set", "Storage.Disk.1.Partition.1.Manageddisk", "0"}).status, 0);

  hoarder.reset();  // gone: its share is free again, and its lock waits no longer count
  RawClient successor(socket_);
  ASSERT_EQ(successor.call(request(Op::kHello, "successor")).status, Status::kOk);
  EXPECT_EQ(successor.flood(sub, subscribed + 10), std::make_pair(subscribed, size_t{10}));
  ASSERT_EQ(rill_invoke_free_client_writelock(holder), 0);
  EXPECT_EQ(rill_invoke_get_client_writelock(connect("next"), 5, -1), 0) << "granted to a waiter that left";
}

TEST_F(MeasuredBrokerTest, HistoryIsCappedByBytesAndGoesWithItsObject) {
  startBroker();
  rill_conn_t* writer = connect("writer");
  ASSERT_EQ(ctl({"add", "Storage.Disk.3", "Label=first"}).status, 0);
  const size_t kValue = 200 * 1024;
  for (char c = 'a'; c < 'k'; ++c) ASSERT_EQ(set(writer, "Storage.Disk.3", "Label", std::string(kValue, c)), 0);
  Result r = ctl({"history", "Storage.Disk.3.Label"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_LE(r.out.size(), 1024u * 1024u);
  EXPECT_GE(r.out.size(), 2 * (kValue + 1)) << "the newest values are kept";
  EXPECT_EQ(r.out.substr(r.out.size() - kValue - 1), std::string(kValue, 'j') + "\n");

  // Deleted: like an object that never existed, also once it is back.
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  Result deleted = ctl({"history", "Storage.Disk.3.Label"}), never = ctl({"history", "Storage.Disk.4.Label"});
  EXPECT_EQ(deleted.status, 2);
  EXPECT_EQ(deleted.out, "");
  EXPECT_EQ(deleted.err.substr(0, deleted.err.find("Storage")), never.err.substr(0, never.err.find("Storage")));
  ASSERT_EQ(ctl({"add", "Storage.Disk.3", "Label=second"}).status, 0);
  EXPECT_EQ(ctl({"history", "Storage.Disk.3.Label"}).out, "second\n");

  const long baseline = residentKiB(broker_->pid());  // add and delete cycles leave nothing behind
  RawClient cycler(socket_);
  ASSERT_EQ(cycler.call(request(Op::kHello, "cycler")).status, Status::kOk);
  for (int i = 1; i <= 20000; ++i) {
    Request add = request(Op::kAddObject, "Cycle." + std::to_string(i));
    add.params = {{"A", std::string(100, 'x')}, {"B", "y"}};
    cycler.queue(add);
    cycler.queue(request(Op::kDelObject, "Cycle." + std::to_string(i)));
    if (i % 1000 == 0) {
      ASSERT_TRUE(cycler.flush());
      cycler.replies_.clear();
    }
  }
  ASSERT_EQ(cycler.call(request(Op::kStageGet)).status, Status::kOk);
  EXPECT_LT(residentKiB(broker_->pid()) - baseline, 4 * 1024) << "KiB kept by 20000 deleted objects";
  EXPECT_EQ(ctl({"history", "Cycle.7.A"}).status, 2);
}

}  // namespace
}  // namespace zibd::test
