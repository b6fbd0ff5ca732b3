// The client library against a broker running in this process: runs in
// every build, the big-endian cross build under qemu included, and lets the
// thread sanitizer see both sides.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>

#include <string>
#include <thread>
#include <vector>

#include "host/rill/broker.h"
#include "platform/cs.h"
#include "platform/rill.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace {

using zibd::test::waitFor;

constexpr const char* kModel =
    "Storage.Disk.1.CapacityInMBytes=953869\n"
    "Storage.Disk.1.Partition.1.Manageddisk=0\n"
    "Storage.Disk.2.CapacityInMBytes=61057\n"
    // A disk described only through its partition's lines.
    "Storage.Disk.3.Partition.1.Status=1\n";

struct Seen {
  std::vector<std::string> lines;  // "type subid path name value"
};

std::string text(dynstr_t* s) { return s ? dynstr_getstring(s) : "-"; }

int record(rill_notification_t* n, void* context) {
  auto* seen = static_cast<Seen*>(context);
  llist_t* items = rill_notification_get_items(n);
  for (int i = 0; i < llist_getlength(items); ++i) {
    rill_cmddata_t* item = rill_cmddata_getat(items, i);
    seen->lines.push_back(std::to_string(rill_notification_get_type(n)) + " " + text(rill_cmddata_path_get(item)) +
                          " " + text(rill_cmddata_name_get(item)) + " " + text(rill_cmddata_value_get(item)));
  }
  return 0;
}

int collectPaths(rill_reply_t* reply, void* context) {
  if (!reply) return 99;
  auto* paths = static_cast<std::vector<std::string>*>(context);
  llist_t* items = rill_reply_get_items(reply);
  for (int i = 0; i < llist_getlength(items); ++i)
    paths->push_back(dynstr_getstring(rill_cmddata_path_get(rill_cmddata_getat(items, i))));
  return 0;
}

bool readable(int fd) {
  pollfd pfd{fd, POLLIN, 0};
  return ::poll(&pfd, 1, 10000) > 0;
}

class RillInProcessBusTest : public zibd::test::SandboxTest {
 protected:
  void start(size_t max_output = 4 * 1024 * 1024) {
    zibd::rill::Model model;
    std::string error;
    ASSERT_TRUE(zibd::rill::loadModel(kModel, &model, &error)) << error;
    zibd::rill::BrokerOptions options;
    options.socket_path = sandbox_ / "bus.sock";
    options.max_output = max_output;
    broker_ = std::make_unique<zibd::rill::Broker>(std::move(model), options);
    ASSERT_EQ(broker_->listen(&error), 0) << error;
    thread_ = std::thread([this] { broker_->run(); });
    ::setenv("RILL_SOCKET", options.socket_path.c_str(), 1);
  }

  void TearDown() override {
    for (rill_conn_t* conn : conns_) {
      rill_ctx_reset(conn);
      rill_ctx_free(conn);
    }
    if (broker_) broker_->stop();
    if (thread_.joinable()) thread_.join();
  }

  rill_conn_t* connect(const char* name) {
    rill_conn_t* conn = rill_ctx_create_client_connection(name, 0);
    EXPECT_NE(conn, nullptr);
    if (conn) conns_.push_back(conn);
    return conn;
  }

  static int set(rill_conn_t* conn, const char* object, const char* param, const std::string& value) {
    rill_ccmd_t cmd{};
    int rc = rill_ccmd_add_setvalues_request(conn, &cmd, object, param,
                                             dynstr_fromstring(rill_dynstr_poolid(), value.c_str()), 0);
    if (rc == 0) rc = rill_invoke_ccmd(conn, &cmd, nullptr, nullptr);
    rill_ccmd_cleanup(&cmd);
    return rc;
  }

  static int readPaths(rill_conn_t* conn, const char* path, std::vector<std::string>* paths) {
    rill_ccmd_t cmd{};
    int rc = rill_ccmd_add_getvalues_request(conn, &cmd, path, 0, 2, 0, 2);
    if (rc == 0) rc = rill_invoke_ccmd(conn, &cmd, collectPaths, paths);
    rill_ccmd_cleanup(&cmd);
    return rc;
  }

  std::unique_ptr<zibd::rill::Broker> broker_;
  std::thread thread_;
  std::vector<rill_conn_t*> conns_;
};

TEST_F(RillInProcessBusTest, ReadWriteAndNotificationRoundTrip) {
  start();
  rill_conn_t* watcher = connect("watcher");
  rill_conn_t* writer = connect("writer");
  ASSERT_TRUE(watcher && writer);

  std::vector<std::string> paths;
  ASSERT_EQ(readPaths(watcher, "Storage.Disk", &paths), 0);
  EXPECT_EQ(paths, (std::vector<std::string>{"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.3"}));
  // The daemon's class read answers every instance as well.
  paths.clear();
  int error = -1;
  ASSERT_EQ(cs_find_parameters_of_obj_instances(watcher, "Storage.Disk", 0, 2, collectPaths, &paths, &error), 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(paths, (std::vector<std::string>{"Storage.Disk.1", "Storage.Disk.2", "Storage.Disk.3"}));

  Seen seen;
  rill_ccmd_t cmd{};
  ASSERT_EQ(rill_ccmd_add_subscribe_request(watcher, &cmd, "Storage.Disk.Partition", "Manageddisk", 0,
                                            RILL_SUBSCRIBE_VALUE),
            0);
  ASSERT_EQ(rill_invoke_ccmd_subscribe(watcher, &cmd, 0, record, &seen), 0);
  llist_t* answers = rill_ccmd_get_answers(&cmd);
  ASSERT_EQ(llist_getlength(answers), 1);
  EXPECT_EQ(rill_cmddata_error_get(rill_cmddata_getat(answers, 0)), 0);
  rill_ccmd_cleanup(&cmd);

  ASSERT_EQ(set(writer, "Storage.Disk.1.Partition.1", "Manageddisk", "1"), 0);
  const int fd = rill_getnotifylistensocket(watcher);
  ASSERT_TRUE(waitFor([&] { return readable(fd) && rill_msg_parse(fd, watcher) == 0 && !seen.lines.empty(); }));
  EXPECT_EQ(seen.lines, (std::vector<std::string>{"3 Storage.Disk.1.Partition.1 Manageddisk 1"}));
}

TEST_F(RillInProcessBusTest, ASubscriberThatStopsReadingIsCutOffAlone) {
  start(64 * 1024);
  rill_conn_t* stuck = connect("stuck");
  rill_conn_t* writer = connect("writer");
  ASSERT_TRUE(stuck && writer);
  rill_ccmd_t cmd{};
  ASSERT_EQ(rill_ccmd_add_subscribe_request(stuck, &cmd, "Storage.Disk", nullptr, 0, RILL_SUBSCRIBE_VALUE), 0);
  Seen never_read;
  ASSERT_EQ(rill_invoke_ccmd_subscribe(stuck, &cmd, 0, record, &never_read), 0);
  rill_ccmd_cleanup(&cmd);

  // Changing values the stuck client never reads fills its socket, then its
  // buffer at the broker, then it is cut off.
  const std::string big(8 * 1024, 'x');
  std::vector<std::string> paths;
  bool cut = false;
  for (int i = 0; i < 1000 && !cut; ++i) {
    ASSERT_EQ(set(writer, "Storage.Disk.2", "Big", big + std::to_string(i)), 0) << "the writer is not disturbed";
    cut = readPaths(stuck, "Storage.Disk", &paths) != 0;
  }
  EXPECT_TRUE(cut);
  paths.clear();
  EXPECT_EQ(readPaths(writer, "Storage.Disk", &paths), 0);
  EXPECT_EQ(paths.size(), 4u) << "disk 1 with one parameter, disk 2 with two, disk 3 named once";
}

TEST_F(RillInProcessBusTest, AWriteLockWaitThatTimesOutLeavesNothingHeld) {
  start();
  rill_conn_t* a = connect("a");
  rill_conn_t* b = connect("b");
  ASSERT_TRUE(a && b);
  ASSERT_EQ(rill_invoke_get_client_writelock(a, 25, -1), 0);
  EXPECT_NE(rill_invoke_get_client_writelock(b, 1, -1), 0);
  EXPECT_NE(rill_invoke_free_client_writelock(b), 0) << "b never got it";
  ASSERT_EQ(rill_invoke_free_client_writelock(a), 0);
  EXPECT_EQ(rill_invoke_get_client_writelock(b, 0, -1), 0);
  EXPECT_NE(rill_invoke_get_client_writelock(a, 0, -1), 0);
  EXPECT_EQ(rill_invoke_free_client_writelock(b), 0);
}

TEST_F(RillInProcessBusTest, OneConnectionServesSeveralThreads) {
  start();
  rill_conn_t* shared = connect("shared");
  ASSERT_TRUE(shared);
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        std::vector<std::string> paths;
        int error = -1;
        if (readPaths(shared, "Storage.*.Partition", &paths) != 0 || paths.size() != 2) ++failures[t];
        if (cs_find_parameters_of_obj_instances(shared, "Storage.Disk.2", 0, 2, collectPaths, &paths, &error) != 0 ||
            error != 0)
          ++failures[t];
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
