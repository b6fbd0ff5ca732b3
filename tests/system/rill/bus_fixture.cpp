#include "tests/system/rill/bus_fixture.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string.h>

#include "common/file_descriptor.h"
#include "tests/support/wait_for.h"

namespace zibd::test {

std::ostream& operator<<(std::ostream& out, const Flat& f) {
  return out << "{" << f.path << " " << f.name << " " << f.value << " " << f.error << "}";
}

namespace {

std::string text(dynstr_t* s) { return s ? dynstr_getstring(s) : "-"; }

int collect(rill_reply_t* reply, void* context) {
  if (!reply) return 17;  // the bus said no
  EXPECT_EQ(rill_reply_get_kind(reply), RILL_REPLY_VALUES);
  auto* items = static_cast<std::vector<Flat>*>(context);
  for (const Flat& f : flatten(rill_reply_get_items(reply))) items->push_back(f);
  return 0;
}

bool accepts(const std::string& path) {
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace

std::vector<Flat> flatten(llist_t* items) {
  std::vector<Flat> flat;
  for (int i = 0; i < llist_getlength(items); ++i) {
    rill_cmddata_t* item = rill_cmddata_getat(items, i);
    flat.push_back(Flat{text(rill_cmddata_path_get(item)), text(rill_cmddata_name_get(item)),
                        text(rill_cmddata_value_get(item)), rill_cmddata_error_get(item)});
  }
  return flat;
}

void BusTest::SetUp() {
  socket_ = sandbox_ / "rill.sock";
  ::setenv("RILL_SOCKET", socket_.c_str(), 1);  // for the library in this process
}

void BusTest::TearDown() {
  while (!conns_.empty()) disconnect(conns_.back());
  broker_.reset();
}

void BusTest::startBroker(const std::string& model, std::vector<std::string> extra_args, int max_descriptors) {
  sandbox_.write("gateway.model", model);
  std::vector<std::string> argv{binary("rilld"), "--model", sandbox_ / "gateway.model"};
  argv.insert(argv.end(), extra_args.begin(), extra_args.end());
  if (max_descriptors > 0) {
    argv.insert(argv.begin(), {"/bin/sh", "-c", "ulimit -n " + std::to_string(max_descriptors) + " && exec \"$0\" \"$@\""});
  }
  Env broker_env = env();
  broker_env.set.insert(broker_env_.set.begin(), broker_env_.set.end());
  broker_ = std::make_unique<Process>(argv, broker_env);
  ASSERT_TRUE(waitFor([&] { return accepts(socket_) || !broker_->running(); }));
  ASSERT_TRUE(broker_->running()) << broker_->err();
}

Result BusTest::ctl(std::vector<std::string> args) {
  args.insert(args.begin(), binary("rillctl"));
  return run(args, env());
}

rill_conn_t* BusTest::connect(const char* name) {
  rill_conn_t* conn = rill_ctx_create_client_connection(name, 0);
  EXPECT_NE(conn, nullptr) << name;
  if (conn) conns_.push_back(conn);
  return conn;
}

void BusTest::disconnect(rill_conn_t* conn) {
  std::erase(conns_, conn);
  rill_invoke_unregister(conn);
  rill_ctx_reset(conn);
  rill_ctx_free(conn);
}

int BusTest::read(rill_conn_t* conn, const char* path, std::vector<Flat>* items) {
  rill_ccmd_t cmd{};
  int rc = rill_ccmd_add_getvalues_request(conn, &cmd, path, 0, 2, 0, 2);
  if (rc == 0) rc = rill_invoke_ccmd(conn, &cmd, collect, items);
  rill_ccmd_cleanup(&cmd);
  return rc;
}

int BusTest::set(rill_conn_t* conn, const char* object, const char* param, const std::string& value) {
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

// The notification callback of subscribe(): context is {test, connection}.
int BusTest::record(rill_notification_t* n, void* context) {
  auto [test, conn] = *static_cast<std::pair<BusTest*, rill_conn_t*>*>(context);
  Event event{rill_notification_get_type(n), rill_notification_get_subid(n), flatten(rill_notification_get_items(n))};
  for (const Flat& item : event.items) {
    if (!test->read_back_on_add_ || event.type != RILL_EVENT_OBJECT_ADDED) break;
    int error = -1;
    cs_find_parameters_of_obj_instances(conn, item.path.c_str(), 0, 2, collect, &test->seen_in_callback_, &error);
    EXPECT_EQ(error, 0) << item.path;
  }
  test->events_.push_back(std::move(event));
  return 0;
}

std::vector<uint32_t> BusTest::subscribe(
    rill_conn_t* conn, const std::vector<std::tuple<const char*, const char*, unsigned>>& requests) {
  auto context = std::make_shared<std::pair<BusTest*, rill_conn_t*>>(this, conn);
  callback_contexts_.push_back(context);
  rill_ccmd_t cmd{};
  for (const auto& [path, param, mask] : requests)
    EXPECT_EQ(rill_ccmd_add_subscribe_request(conn, &cmd, path, param, 0, mask), 0) << path;
  std::vector<uint32_t> ids;
  EXPECT_EQ(rill_invoke_ccmd_subscribe(conn, &cmd, 0, record, context.get()), 0);
  for (const Flat& answer : flatten(rill_ccmd_get_answers(&cmd))) {
    EXPECT_EQ(answer.error, 0) << answer;
    ids.push_back(static_cast<uint32_t>(std::stoul(answer.value)));
  }
  rill_ccmd_cleanup(&cmd);
  return ids;
}

bool BusTest::awaitEvents(rill_conn_t* conn, size_t count) {
  const int fd = rill_getnotifylistensocket(conn);
  return waitFor([&] {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 100) > 0 && rill_msg_parse(fd, conn) != 0) return true;  // lost: stop waiting
    return events_.size() >= count;
  }) && events_.size() >= count;
}

}  // namespace zibd::test
