// A real rilld through the daemon's client library, raw hostile clients and rillctl.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <set>
#include <thread>

#include "common/file_descriptor.h"
#include "host/rill/wire.h"
#include "platform/cs.h"
#include "platform/rill.h"
#include "platform/stage.h"
#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"
#include "tests/support/wait_for.h"

namespace zibd::test {
namespace {

constexpr const char* kGatewayModel =
    "# two disks\nVFS.MetaDataService.ForceRescan=0\nVFS.MetaDataService.ProfilingStatus=Ready\n"
    "Storage.Disk.1.CapacityInMBytes=953869\nStorage.Disk.1.DoUnMount=0\nStorage.Disk.2.CapacityInMBytes=61057\n"
    "Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/4f2a\nStorage.Disk.1.Partition.1.Manageddisk=1\n\n"
    "Storage.Disk.2.Partition.1.MountPoint=/var/uuidmount/77e0\nStorage.Disk.2.Partition.1.Manageddisk=0\n"
    "Storage.Disk.2.Partition.2.MountPoint=/var/uuidmount/c0de\nStorage.Disk.2.Partition.2.Manageddisk=0\n"
    "ContentSharing.UPnPAV.IndexRules.1.Status=Up\nContentSharing.UPnPAV.IndexRules.1.Enable=1\n";

// One item of a reply or notification; a missing field shows as "-".
struct Flat { std::string path, name, value; int error = 0; bool operator==(const Flat&) const = default; };
std::ostream& operator<<(std::ostream& o, const Flat& f) {
  return o << "{" << f.path << " " << f.name << " " << f.value << " " << f.error << "}";
}
std::string text(dynstr_t* s) { return s ? dynstr_getstring(s) : "-"; }
std::vector<Flat> flatten(llist_t* items) {
  std::vector<Flat> flat;
  for (int i = 0; i < llist_getlength(items); ++i) {
    rill_cmddata_t* item = rill_cmddata_getat(items, i);
    flat.push_back(Flat{text(rill_cmddata_path_get(item)), text(rill_cmddata_name_get(item)),
                        text(rill_cmddata_value_get(item)), rill_cmddata_error_get(item)});
  }
  return flat;
}
int collect(rill_reply_t* reply, void* context) {
  if (!reply) return 17;  // the bus said no
  for (const Flat& f : flatten(rill_reply_get_items(reply))) static_cast<std::vector<Flat>*>(context)->push_back(f);
  return 0;
}
std::set<std::string> pathsOf(const std::vector<Flat>& items) {
  std::set<std::string> paths;
  for (const Flat& f : items) paths.insert(f.path);
  return paths;
}
int findInstance(rill_conn_t* conn, const char* path, std::vector<Flat>* items) {
  int error = -1;
  cs_find_parameters_of_obj_instances(conn, path, 0, 2, collect, items, &error);
  return error;
}

// A connection that sends raw bytes, never through the library.
class RawClient {
 public:
  explicit RawClient(const std::string& path, const std::string& bytes = "")
      : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    connected_ = ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    send(bytes);
  }
  void send(const std::string& bytes) { ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  bool hungUp() {
    return waitFor([&] {
      char buffer[4096];
      pollfd pfd{fd_.get(), POLLIN, 0};
      return ::poll(&pfd, 1, 50) > 0 && ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT) <= 0;
    });
  }
  FileDescriptor fd_;
  bool connected_ = false;
};

struct Event { int type; uint32_t subid; std::vector<Flat> items; bool operator==(const Event&) const = default; };
std::ostream& operator<<(std::ostream& o, const Event& e) {
  return o << e.type << " #" << e.subid << " " << testing::PrintToString(e.items);
}

class BrokerTest : public SandboxTest {
 protected:
  void SetUp() override { ::setenv("RILL_SOCKET", socket_.c_str(), 1); }  // for the library in this process
  void TearDown() override { while (!conns_.empty()) disconnect(conns_.back()); }
  Env env() const { return Env{{{"RILL_SOCKET", socket_}}}; }
  void startBroker(std::vector<std::string> argv = {}) {
    sandbox_.write("gateway.model", kGatewayModel);
    argv.insert(argv.begin(), {binary("rilld"), "--model", sandbox_ / "gateway.model"});
    broker_ = std::make_unique<Process>(argv, env());
    ASSERT_TRUE(waitFor([&] { return RawClient(socket_).connected_ || !broker_->running(); }));
    ASSERT_TRUE(broker_->running()) << broker_->err();
  }
  Result ctl(std::vector<std::string> args) { args.insert(args.begin(), binary("rillctl")); return run(args, env()); }
  rill_conn_t* connect(const char* name) {  // closed at the end of the test
    rill_conn_t* conn = rill_ctx_create_client_connection(name, 0);
    EXPECT_NE(conn, nullptr) << name;
    return conn ? conns_.emplace_back(conn) : nullptr;
  }
  void disconnect(rill_conn_t* conn) {
    std::erase(conns_, conn);
    rill_invoke_unregister(conn);
    rill_ctx_reset(conn);
    rill_ctx_free(conn);
  }
  // The library calls the daemon makes. read() returns 17 when the bus said no.
  static int read(rill_conn_t* conn, const char* path, std::vector<Flat>* items) {
    rill_ccmd_t cmd{};
    int rc = rill_ccmd_add_getvalues_request(conn, &cmd, path, 0, 2, 0, 2);
    if (rc == 0) rc = rill_invoke_ccmd(conn, &cmd, collect, items);
    rill_ccmd_cleanup(&cmd);
    return rc;
  }
  static int set(rill_conn_t* conn, const char* object, const char* param, const std::string& value) {
    rill_ccmd_t cmd{};
    int rc = rill_invoke_get_client_writelock(conn, 25, -1);
    if (rc != 0) return rc;
    rc = rill_ccmd_add_setvalues_request(conn, &cmd, object, param,
                                         dynstr_fromstring(rill_dynstr_poolid(), value.c_str()), 0);
    if (rc == 0) rc = rill_invoke_ccmd(conn, &cmd, nullptr, nullptr);
    rill_invoke_free_client_writelock(conn);
    rill_ccmd_cleanup(&cmd);
    return rc;
  }
  // Subscribes (path, parameter or NULL, mask) triples into events_; returns the ids.
  std::vector<uint32_t> subscribe(rill_conn_t* conn,
                                  const std::vector<std::tuple<const char*, const char*, unsigned>>& requests) {
    contexts_.push_back(std::make_shared<std::pair<BrokerTest*, rill_conn_t*>>(this, conn));
    rill_ccmd_t cmd{};
    for (const auto& [path, param, mask] : requests)
      EXPECT_EQ(rill_ccmd_add_subscribe_request(conn, &cmd, path, param, 0, mask), 0) << path;
    std::vector<uint32_t> ids;
    EXPECT_EQ(rill_invoke_ccmd_subscribe(conn, &cmd, 0, record, contexts_.back().get()), 0);
    for (const Flat& answer : flatten(rill_ccmd_get_answers(&cmd))) {
      EXPECT_EQ(answer.error, 0) << answer;
      ids.push_back(static_cast<uint32_t>(std::stoul(answer.value)));
    }
    rill_ccmd_cleanup(&cmd);
    return ids;
  }
  // The callback reads each added object back from inside it, as the daemon does.
  static int record(rill_notification_t* n, void* context) {
    auto [test, conn] = *static_cast<std::pair<BrokerTest*, rill_conn_t*>*>(context);
    Event event{rill_notification_get_type(n), rill_notification_get_subid(n), flatten(rill_notification_get_items(n))};
    for (size_t i = 0; event.type == RILL_EVENT_OBJECT_ADDED && i < event.items.size(); ++i)
      EXPECT_EQ(findInstance(conn, event.items[i].path.c_str(), &test->read_back_), 0) << event.items[i].path;
    test->events_.push_back(std::move(event));
    return 0;
  }
  // Dispatches conn's notifications until events_ holds at least count.
  bool awaitEvents(rill_conn_t* conn, size_t count) {
    const int fd = rill_getnotifylistensocket(conn);
    return waitFor([&] {
      pollfd pfd{fd, POLLIN, 0};
      if (::poll(&pfd, 1, 100) > 0 && rill_msg_parse(fd, conn) != 0) return true;  // lost: stop waiting
      return events_.size() >= count;
    }) && events_.size() >= count;
  }

  std::string socket_ = sandbox_ / "rill.sock";
  std::unique_ptr<Process> broker_;
  std::vector<rill_conn_t*> conns_;
  std::vector<Event> events_;
  std::vector<Flat> read_back_;
  std::vector<std::shared_ptr<std::pair<BrokerTest*, rill_conn_t*>>> contexts_;
};

TEST_F(BrokerTest, ClassReadsYieldInstancesAndInstanceReadsThatInstanceOrAnError) {
  startBroker();
  rill_conn_t* conn = connect("reader");
  for (const auto& [path, rc, paths, size] : std::vector<std::tuple<const char*, int, std::set<std::string>, size_t>>{
           {"ContentSharing.UPnPAV.IndexRules", 0, {"ContentSharing.UPnPAV.IndexRules.1"}, 2},
           {"Storage.Disk", 0, {"Storage.Disk.1", "Storage.Disk.2"}, 3},
           {"Storage.*.Partition", 0,
            {"Storage.Disk.1.Partition.1", "Storage.Disk.2.Partition.1", "Storage.Disk.2.Partition.2"}, 6},
           {"Storage.Disk.3.Partition", 0, {}, 0},  // no instances yet is normal
           {"Storage.Disk.9", 17, {}, 0},           // a missing instance is not
       }) {
    std::vector<Flat> items;
    EXPECT_EQ(read(conn, path, &items), rc) << path;
    EXPECT_EQ(pathsOf(items), paths) << path;
    EXPECT_EQ(items.size(), size) << path;
  }
  std::vector<Flat> items;
  EXPECT_EQ(findInstance(conn, "Storage.Disk", &items), 0);  // a class: every instance
  EXPECT_EQ(pathsOf(items), (std::set<std::string>{"Storage.Disk.1", "Storage.Disk.2"}));
  EXPECT_NE(findInstance(conn, "Storage.Disk.7", &items), 0);
}

TEST_F(BrokerTest, SubscribersSeeAdditionsRemovalsAndChangingWritesUntilUnsubscribed) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"Storage.Disk", nullptr, RILL_SUBSCRIBE_OBJECTS},
                                 {"Storage.Disk.Partition", nullptr, RILL_SUBSCRIBE_OBJECTS}});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_NE(ids[0], ids[1]);
  ASSERT_EQ(ctl({"add", "Storage.Disk.3.Partition.1", "MountPoint=/m", "Status=1", "Manageddisk=0"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  const Flat disk{"Storage.Disk.3", "-", "-", 0}, partition{"Storage.Disk.3.Partition.1", "-", "-", 0};
  EXPECT_EQ(events_, (std::vector<Event>{{RILL_EVENT_OBJECT_ADDED, ids[0], {disk}},
                                         {RILL_EVENT_OBJECT_ADDED, ids[1], {partition}}}));
  ASSERT_EQ(read_back_.size(), 4u);  // the disk as an instance, its partition with every parameter
  EXPECT_EQ(read_back_[0].path, "Storage.Disk.3");
  events_.clear();  // the disk goes with its partition, innermost first
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  EXPECT_EQ(events_, (std::vector<Event>{{RILL_EVENT_OBJECT_REMOVED, ids[1], {partition}},
                                         {RILL_EVENT_OBJECT_REMOVED, ids[0], {disk}}}));
  events_.clear();  // the object subscriptions stay; no object comes or goes from here on
  ids = subscribe(watcher, {{"Storage.Disk.Partition", "Manageddisk", RILL_SUBSCRIBE_VALUE},
                            {"ContentSharing.UPnPAV.IndexRules", nullptr, RILL_SUBSCRIBE_OBJECTS_AND_VALUES},
                            {"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);  // the writer's own too
  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);  // no change
  ASSERT_NE(set(watcher, "Storage.Disk.9", "Manageddisk", "1"), 0);               // no object
  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.MountPoint", "/elsewhere"}).status, 0);  // not subscribed
  ASSERT_EQ(ctl({"set", "ContentSharing.UPnPAV.IndexRules.1.Enable", "0"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 3));
  EXPECT_EQ(events_, (std::vector<Event>{  // none missing, none extra
                         {RILL_EVENT_VALUE_CHANGED, ids[0], {{"Storage.Disk.2.Partition.1", "Manageddisk", "1", 0}}},
                         {RILL_EVENT_VALUE_CHANGED, ids[1], {{"ContentSharing.UPnPAV.IndexRules.1", "Enable", "0", 0}}},
                         {RILL_EVENT_VALUE_CHANGED, ids[2], {{"VFS.MetaDataService", "ForceRescan", "1", 0}}}}));
  int result = -1;
  ASSERT_EQ(cs_unsubscribe_events(watcher, ids.data(), 1, &result), 0);
  EXPECT_EQ(result, 0);
  events_.clear();
  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.Manageddisk", "0"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "0"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 1));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].subid, ids[2]);
  EXPECT_EQ(cs_unsubscribe_events(connect("other"), &ids[2], 1, &result), 0);
  EXPECT_NE(result, 0) << "another client's subscription is not ours to end";
}

TEST_F(BrokerTest, TheWriteLockIsHeldByOneClientAtATimeAndDiskReferencesAreCounted) {
  startBroker();
  rill_conn_t* a = connect("a");
  rill_conn_t* b = connect("b");
  ASSERT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
  EXPECT_NE(rill_invoke_get_client_writelock(b, 1, -1), 0) << "held by a";
  EXPECT_NE(rill_invoke_free_client_writelock(b), 0) << "a timed-out wait holds nothing";
  std::atomic<int> result{-100};  // the holder goes away: the waiting client gets it
  std::thread b_waits([&] { result = rill_invoke_get_client_writelock(b, 25, -1); });
  EXPECT_EQ(ctl({"stage"}).status, 0);  // meanwhile b is (almost surely) queued
  disconnect(a);
  b_waits.join();
  EXPECT_EQ(result, 0);
  a = connect("counter");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(cs_incrementDiskRefcount(a, "Storage.Disk.1"), 0);
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.1"}).out, "2\n");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(cs_decrementDiskRefcount(a, "Storage.Disk.1"), 0);
  EXPECT_NE(cs_decrementDiskRefcount(a, "Storage.Disk.1"), 0) << "none left to drop";
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.1"}).out, "0\n");
  EXPECT_NE(cs_incrementDiskRefcount(a, "Storage.Disk.9"), 0);
  // A stopped broker: the wait and its cancel give up, then calls fail unsent until the late answers come.
  ::kill(broker_->pid(), SIGSTOP);
  EXPECT_NE(rill_invoke_get_client_writelock(a, 1, -1), 0);
  EXPECT_NE(cs_incrementDiskRefcount(a, "Storage.Disk.1"), 0);
  ::kill(broker_->pid(), SIGCONT);
  EXPECT_TRUE(waitFor([&] { return cs_incrementDiskRefcount(a, "Storage.Disk.1") == 0; }));
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.1"}).out, "1\n");
}

TEST_F(BrokerTest, StageWaitsAndTheLibraryEndWhenTheBrokerDies) {
  startBroker({"--stage", "10"});
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
  rill_conn_t* conn = connect("survivor");
  EXPECT_EQ(ctl({"stage"}).out, "71\n");
  broker_->signal(SIGKILL);  // a broker that dies ends the wait, and the library fails cleanly
  orphan.join();
  EXPECT_NE(result, 0);
  std::vector<Flat> items;
  EXPECT_NE(read(conn, "Storage.Disk", &items), 0);
  EXPECT_NE(set(conn, "VFS.MetaDataService", "ForceRescan", "1"), 0);
  EXPECT_EQ(rill_ctx_create_client_connection("late", 0), nullptr);
}

TEST_F(BrokerTest, GarbageTruncatedAndVanishingClientsHurtOnlyThemselves) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  for (const std::string& bytes : {std::string("GET / HTTP/1.0\r\n\r\n"),
                                   std::string("\xff\xff\xff\xff", 4) + "tail",  // oversized length
                                   std::string("\0\0\0\0", 4),                   // empty frame
                                   std::string("\0\0\0\x05\x01\x63zzz", 9)}) {   // an unknown request
    EXPECT_TRUE(RawClient(socket_, bytes).hungUp()) << testing::PrintToString(bytes);
  }
  {
    RawClient half(socket_, std::string("\0\0\x01\0\x01\x03", 6));  // 256 bytes announced, 2 sent; both gone
    RawClient waiter(socket_, rill::encode(rill::Request{rill::Op::kStageWait, 1, "", "", "", 1000, {}}));
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

// rillctl as a user sees it: 0 done, 1 nothing matches or timed out, 2 an error
// told on stderr. Run in order: each case sees what the ones before changed.
TEST_F(BrokerTest, RillctlCommandsPrintTheirOutcomeAndExitWithItsStatus) {
  sandbox_.write("bad.model", "VFS.MetaDataService.ForceRescan=0\n# fine\n\nStorage.Disk.1\n");
  Result bad = run({binary("rilld"), "--model", sandbox_ / "bad.model"}, env());
  EXPECT_NE(bad.status, 0);
  EXPECT_NE(bad.err.find("line 4"), std::string::npos) << bad.err;
  Result nobody = ctl({"get", "Storage"});  // nothing listens
  EXPECT_EQ(nobody.status, 2);
  EXPECT_NE(nobody.err.find("cannot connect"), std::string::npos) << nobody.err;
  startBroker();
  Process waiter({binary("rillctl"), "wait", "Storage.Disk.3.Status", "1", "20"}, env());
  for (const auto& [args, status, out] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
           {{"get", "Storage.Disk.2.Partition.1"}, 0,
            "Storage.Disk.2.Partition.1.Manageddisk=0\nStorage.Disk.2.Partition.1.MountPoint=/var/uuidmount/77e0\n"},
           {{"get", "Storage.*.Partition.Manageddisk"}, 0, "Storage.Disk.1.Partition.1.Manageddisk=1\n"
            "Storage.Disk.2.Partition.1.Manageddisk=0\nStorage.Disk.2.Partition.2.Manageddisk=0\n"},
           {{"add", "Storage.Disk.3", "CapacityInMBytes=100", "Label=a=b"}, 0, ""},
           {{"set", "Storage.Disk.3.CapacityInMBytes", "200"}, 0, ""},
           {{"set", "Storage.Disk.3.CapacityInMBytes", "200"}, 0, ""},  // unchanged, yet a write
           {{"set", "Storage.Disk.3.Status", "1"}, 0, ""},              // a new parameter
           {{"history", "Storage.Disk.3.CapacityInMBytes"}, 0, "100\n200\n200\n"},
           {{"history", "Storage.Disk.1.CapacityInMBytes"}, 0, ""},  // seeding is not a write
           {{"get", "Storage.Disk.3"}, 0,
            "Storage.Disk.3.CapacityInMBytes=200\nStorage.Disk.3.Label=a=b\nStorage.Disk.3.Status=1\n"},
           {{"del", "Storage.Disk.3"}, 0, ""},
           {{"get", "Storage.Disk.3"}, 1, ""},
           {{"history", "Storage.Disk.3.CapacityInMBytes"}, 2, ""},  // deleted: like a missing object
           {{"stage"}, 0, "100\n"}, {{"stage", "42"}, 0, ""}, {{"stage"}, 0, "42\n"},
           {{"wait", "VFS.MetaDataService.ProfilingStatus", "Ready", "5"}, 0, ""},
           {{"get", "Storage..Disk"}, 2, ""}, {{"add", "Storage.Disk.1"}, 2, ""}, {{"frobnicate"}, 2, ""},
           {{"add", "Storage.Disk.4", "NoEquals"}, 2, ""}, {{"set", "Storage.Disk.9.DoUnMount", "1"}, 2, ""},
           {{"set", "Storage.Disk.1", "1"}, 2, ""}, {{"del", "Storage.Disk.9"}, 2, ""}, {{"stage", "high"}, 2, ""},
           {{"refcount", "Storage.Disk.9"}, 2, ""}, {{"get", "Storage.Disk.5"}, 1, ""},
       }) {
    SCOPED_TRACE(testing::PrintToString(args));
    Result r = ctl(args);
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(r.out, out);
    EXPECT_EQ(r.err.empty(), status != 2) << r.err;
  }
  Result timed_out = ctl({"wait", "VFS.MetaDataService.ProfilingStatus", "Profiling", "0.2"});
  EXPECT_EQ(timed_out.status, 1);
  EXPECT_NE(timed_out.err, "");
  EXPECT_EQ(exitCode(waiter.wait().value()), 0) << waiter.err();  // its value came and went with Storage.Disk.3
}

}  // namespace
}  // namespace zibd::test
