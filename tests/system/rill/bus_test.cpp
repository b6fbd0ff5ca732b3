// The client library against a real rilld process, used the way the daemon
// uses it.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <thread>

#include "common/file_descriptor.h"
#include "platform/stage.h"
#include "tests/support/wait_for.h"
#include "tests/system/rill/bus_fixture.h"

namespace zibd::test {
namespace {

using RillSystemTest = BusTest;

std::set<std::string> pathsOf(const std::vector<Flat>& items) {
  std::set<std::string> paths;
  for (const Flat& f : items) paths.insert(f.path);
  return paths;
}

int countNull(rill_reply_t* reply, void* context) {
  if (!reply) ++*static_cast<int*>(context);
  return 0;
}

TEST_F(RillSystemTest, TheModelFileSeedsTheBus) {
  startBroker();
  rill_conn_t* conn = connect("reader");
  std::vector<Flat> items;
  ASSERT_EQ(read(conn, "ContentSharing.UPnPAV.IndexRules", &items), 0);
  EXPECT_EQ(items, (std::vector<Flat>{{"ContentSharing.UPnPAV.IndexRules.1", "Enable", "1", 0},
                                      {"ContentSharing.UPnPAV.IndexRules.1", "Status", "Up", 0}}));
}

TEST_F(RillSystemTest, ABadModelLineStopsTheBrokerWithItsNumber) {
  sandbox_.write("bad.model", "VFS.MetaDataService.ForceRescan=0\n# fine\n\nStorage.Disk.1\n");
  Result r = run({binary("rilld"), "--model", sandbox_ / "bad.model"}, env());
  EXPECT_NE(r.status, 0);
  EXPECT_NE(r.err.find("line 4"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(socket_)) << "nothing listens";
}

TEST_F(RillSystemTest, ClassReadsYieldInstancesNotObjectsBelowThem) {
  startBroker();
  rill_conn_t* conn = connect("reader");
  std::vector<Flat> disks, partitions, none, one_disk;
  ASSERT_EQ(read(conn, "Storage.Disk", &disks), 0);
  EXPECT_EQ(pathsOf(disks), (std::set<std::string>{"Storage.Disk.1", "Storage.Disk.2"}));
  EXPECT_EQ(disks.size(), 3u);

  ASSERT_EQ(read(conn, "Storage.*.Partition", &partitions), 0);
  EXPECT_EQ(pathsOf(partitions), (std::set<std::string>{"Storage.Disk.1.Partition.1", "Storage.Disk.2.Partition.1",
                                                        "Storage.Disk.2.Partition.2"}));
  ASSERT_EQ(read(conn, "Storage.Disk.2.Partition", &one_disk), 0);
  EXPECT_EQ(one_disk.size(), 4u);

  // No instances yet is normal; a missing instance is an error that the
  // reply callback hears about (it returns 17 then).
  EXPECT_EQ(read(conn, "Storage.Disk.3.Partition", &none), 0);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(read(conn, "Storage.Disk.9", &none), 17);
}

TEST_F(RillSystemTest, InstanceReadsAnswerThatInstanceOrAnError) {
  startBroker();
  rill_conn_t* conn = connect("reader");
  std::vector<Flat> items;
  int error = -1;
  ASSERT_EQ(cs_find_parameters_of_obj_instances(conn, "Storage.Disk.2.Partition.2", 0, 2,
                                                [](rill_reply_t* reply, void* context) {
                                                  auto* out = static_cast<std::vector<Flat>*>(context);
                                                  if (rill_reply_get_kind(reply) == RILL_REPLY_VALUES)
                                                    *out = flatten(rill_reply_get_items(reply));
                                                  return 0;
                                                },
                                                &items, &error),
            0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(items, (std::vector<Flat>{{"Storage.Disk.2.Partition.2", "Manageddisk", "0", 0},
                                      {"Storage.Disk.2.Partition.2", "MountPoint", "/var/uuidmount/c0de", 0}}));

  int nulls = 0;
  error = 0;
  EXPECT_EQ(cs_find_parameters_of_obj_instances(conn, "Storage.Disk.7", 0, 2, countNull, &nulls, &error), 0);
  EXPECT_NE(error, 0);
  EXPECT_EQ(nulls, 1);
}

TEST_F(RillSystemTest, WritesChangeTheBusAndEveryWriteIsInTheHistory) {
  startBroker();
  rill_conn_t* conn = connect("writer");
  ASSERT_EQ(set(conn, "VFS.MetaDataService", "ProfilingStatus", "Profiling"), 0);
  ASSERT_EQ(set(conn, "VFS.MetaDataService", "ProfilingStatus", "Profiling"), 0);
  ASSERT_EQ(set(conn, "VFS.MetaDataService", "MetaDataStorageStatus", "OK"), 0) << "a new parameter";
  EXPECT_EQ(ctl({"get", "VFS.MetaDataService"}).out,
            "VFS.MetaDataService.ForceRescan=0\nVFS.MetaDataService.MetaDataStorageStatus=OK\n"
            "VFS.MetaDataService.ProfilingStatus=Profiling\n");
  EXPECT_EQ(ctl({"history", "VFS.MetaDataService.ProfilingStatus"}).out, "Profiling\nProfiling\n");

  EXPECT_NE(set(conn, "Storage.Disk.9", "DoUnMount", "1"), 0);
  rill_ccmd_t cmd{};
  EXPECT_NE(rill_ccmd_add_setvalues_request(conn, &cmd, "Storage..Disk", "X",
                                            dynstr_fromstring(rill_dynstr_poolid(), "taken and freed"), 0),
            0);
  rill_ccmd_cleanup(&cmd);
}

TEST_F(RillSystemTest, AdditionsAndRemovalsReachOtherClients) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  read_back_on_add_ = true;
  auto ids = subscribe(watcher, {{"Storage.Disk", nullptr, RILL_SUBSCRIBE_OBJECTS},
                                 {"Storage.Disk.Partition", nullptr, RILL_SUBSCRIBE_OBJECTS}});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_NE(ids[0], ids[1]);

  ASSERT_EQ(ctl({"add", "Storage.Disk.3.Partition.1", "MountPoint=/var/uuidmount/new", "Status=1",
                 "Manageddisk=0"})
                .status,
            0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  EXPECT_EQ(events_[0].type, RILL_EVENT_OBJECT_ADDED);
  EXPECT_EQ(events_[0].subid, ids[0]);
  EXPECT_EQ(events_[0].items, (std::vector<Flat>{{"Storage.Disk.3", "-", "-", 0}}));
  EXPECT_EQ(events_[1].subid, ids[1]);
  EXPECT_EQ(events_[1].items, (std::vector<Flat>{{"Storage.Disk.3.Partition.1", "-", "-", 0}}));
  // Read back from the callbacks: the disk, which has no parameters of its
  // own, is answered as an instance; its partition with every parameter.
  ASSERT_EQ(seen_in_callback_.size(), 4u) << "every parameter is there when the addition is notified";
  EXPECT_EQ(seen_in_callback_[0].path, "Storage.Disk.3");

  // Removing the disk removes its partition too, innermost first.
  events_.clear();
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 2));
  EXPECT_EQ(events_[0].type, RILL_EVENT_OBJECT_REMOVED);
  EXPECT_EQ(events_[0].subid, ids[1]);
  EXPECT_EQ(events_[0].items[0].path, "Storage.Disk.3.Partition.1");
  EXPECT_EQ(events_[1].type, RILL_EVENT_OBJECT_REMOVED);
  EXPECT_EQ(events_[1].items[0].path, "Storage.Disk.3");
  EXPECT_EQ(ctl({"get", "Storage.Disk.3"}).status, 1);
}

TEST_F(RillSystemTest, EveryChangingWriteIsNotifiedTheWritersOwnIncluded) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"Storage.Disk.Partition", "Manageddisk", RILL_SUBSCRIBE_VALUE},
                                 {"ContentSharing.UPnPAV.IndexRules", nullptr, RILL_SUBSCRIBE_OBJECTS_AND_VALUES},
                                 {"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(ids.size(), 3u);

  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);
  ASSERT_EQ(set(watcher, "Storage.Disk.2.Partition.1", "Manageddisk", "1"), 0);  // no change: no notification
  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.MountPoint", "/elsewhere"}).status, 0);  // not subscribed
  ASSERT_EQ(ctl({"set", "ContentSharing.UPnPAV.IndexRules.1.Enable", "0"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 3));
  // Later notifications are on their way by now: none may be missing or extra.
  ASSERT_EQ(events_.size(), 3u);
  EXPECT_EQ(events_[0].type, RILL_EVENT_VALUE_CHANGED);
  EXPECT_EQ(events_[0].subid, ids[0]);
  EXPECT_EQ(events_[0].items, (std::vector<Flat>{{"Storage.Disk.2.Partition.1", "Manageddisk", "1", 0}}));
  EXPECT_EQ(events_[1].subid, ids[1]);
  EXPECT_EQ(events_[1].items, (std::vector<Flat>{{"ContentSharing.UPnPAV.IndexRules.1", "Enable", "0", 0}}));
  EXPECT_EQ(events_[2].subid, ids[2]);
  EXPECT_EQ(ctl({"history", "Storage.Disk.2.Partition.1.Manageddisk"}).out, "1\n1\n");
}

TEST_F(RillSystemTest, UnsubscribedEventsStop) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"Storage.Disk.Partition", "Manageddisk", RILL_SUBSCRIBE_VALUE},
                                 {"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});
  ASSERT_EQ(ids.size(), 2u);
  int result = -1;
  ASSERT_EQ(cs_unsubscribe_events(watcher, ids.data(), 1, &result), 0);
  EXPECT_EQ(result, 0);

  ASSERT_EQ(ctl({"set", "Storage.Disk.2.Partition.1.Manageddisk", "1"}).status, 0);
  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 1));
  ASSERT_EQ(events_.size(), 1u);
  EXPECT_EQ(events_[0].subid, ids[1]);

  // Gone already, and another client's identifiers are not ours to end.
  rill_conn_t* other = connect("other");
  EXPECT_EQ(cs_unsubscribe_events(watcher, ids.data(), 1, &result), 0);
  EXPECT_NE(result, 0);
  EXPECT_EQ(cs_unsubscribe_events(other, &ids[1], 1, &result), 0);
  EXPECT_NE(result, 0);
}

TEST_F(RillSystemTest, TheWriteLockIsHeldByOneClientAtATime) {
  startBroker();
  rill_conn_t* a = connect("a");
  rill_conn_t* b = connect("b");
  ASSERT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
  EXPECT_NE(rill_invoke_get_client_writelock(b, 1, -1), 0) << "held by a";

  // Freed: the waiting client gets it.
  std::atomic<int> b_result{-100};
  std::thread b_waits([&] { b_result = rill_invoke_get_client_writelock(b, 25, -1); });
  EXPECT_EQ(ctl({"stage"}).status, 0);  // meanwhile b is (almost surely) queued
  EXPECT_EQ(rill_invoke_free_client_writelock(a), 0);
  b_waits.join();
  EXPECT_EQ(b_result, 0);

  // The holder goes away without freeing it: the waiting client gets it.
  std::atomic<int> a_result{-100};
  std::thread a_waits([&] { a_result = rill_invoke_get_client_writelock(a, 25, -1); });
  EXPECT_EQ(ctl({"stage"}).status, 0);
  disconnect(b);
  a_waits.join();
  EXPECT_EQ(a_result, 0);

  // Taken by a client that then disconnects without waiting for it: free
  // again once the broker sees the connection close.
  ASSERT_EQ(rill_invoke_free_client_writelock(a), 0);
  rill_conn_t* c = connect("c");
  ASSERT_EQ(rill_invoke_get_client_writelock(c, 0, -1), 0);
  disconnect(c);
  EXPECT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
}

TEST_F(RillSystemTest, DiskReferencesAreCounted) {
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

TEST_F(RillSystemTest, WaitUntilStageReturnsOnceTheStageIsReached) {
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

  // A broker that dies ends the wait with an error.
  std::thread orphan([&] { result = wait_until_stage(1000); });
  broker_->signal(SIGKILL);
  orphan.join();
  EXPECT_NE(result, 0);
}

TEST_F(RillSystemTest, ANewBrokerIsAtStage100) {
  startBroker();
  EXPECT_EQ(ctl({"stage"}).out, "100\n");
  EXPECT_EQ(wait_until_stage(71), 0);
}

// A raw connection to the broker for sending what no library would.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  void send(const std::string& bytes) { ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  // Whether the broker hung up on us (reads and drops anything else).
  bool hungUp() {
    return waitFor([&] {
      char buffer[256];
      pollfd pfd{fd_.get(), POLLIN, 0};
      return ::poll(&pfd, 1, 50) > 0 && ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT) == 0;
    });
  }

 private:
  FileDescriptor fd_;
};

TEST_F(RillSystemTest, HostileClientsHurtOnlyThemselves) {
  startBroker();
  rill_conn_t* watcher = connect("watcher");
  auto ids = subscribe(watcher, {{"VFS.MetaDataService", "ForceRescan", RILL_SUBSCRIBE_VALUE}});

  RawClient garbage(socket_);
  garbage.send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(garbage.hungUp());
  RawClient huge(socket_);
  huge.send(std::string("\xff\xff\xff\xff", 4) + "tail");
  EXPECT_TRUE(huge.hungUp());
  RawClient undecodable(socket_);
  undecodable.send(std::string("\0\0\0\x05\x01\x63zzz", 9));  // a whole frame of an unknown request
  EXPECT_TRUE(undecodable.hungUp());
  {
    RawClient half(socket_);
    half.send(std::string("\0\0\x01\0\x01\x03", 6));  // 256 bytes announced, 2 sent, then gone
  }
  std::vector<std::unique_ptr<RawClient>> idle;  // connected, silent
  for (int i = 0; i < 20; ++i) idle.push_back(std::make_unique<RawClient>(socket_));

  ASSERT_EQ(ctl({"set", "VFS.MetaDataService.ForceRescan", "1"}).status, 0);
  ASSERT_TRUE(awaitEvents(watcher, 1));
  EXPECT_EQ(events_[0].subid, ids[0]);
  std::vector<Flat> disks;
  EXPECT_EQ(read(watcher, "Storage.Disk", &disks), 0);
  EXPECT_EQ(disks.size(), 3u);
  EXPECT_TRUE(broker_->running());
}

TEST_F(RillSystemTest, TheLibraryFailsCleanlyWhenTheBrokerDies) {
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

}  // namespace
}  // namespace zibd::test
