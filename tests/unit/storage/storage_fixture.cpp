#include "tests/unit/storage/storage_fixture.h"

#include <stdlib.h>

#include <filesystem>

#include "host/rill/model.h"

namespace zibd::test {

InProcessBroker::InProcessBroker(const std::string& socket_path, const std::string& model, size_t max_subscriptions)
    : socket_path_(socket_path) {
  rill::Model loaded;
  std::string error;
  EXPECT_TRUE(rill::loadModel(model, &loaded, &error)) << error;
  rill::BrokerOptions options;
  options.socket_path = socket_path;
  options.stage = 100;
  options.max_subscriptions = max_subscriptions;
  broker_ = std::make_unique<rill::Broker>(std::move(loaded), options);
  EXPECT_EQ(broker_->listen(&error), 0) << error;
  thread_ = std::thread([this] { broker_->run(); });
}

void InProcessBroker::stop() {
  if (broker_) broker_->stop();
  if (thread_.joinable()) thread_.join();
}

std::optional<rill::Reply> InProcessBroker::call(rill::Op op, const std::string& path, std::optional<std::string> name,
                                                 std::optional<std::string> value, const Params& params) {
  rill::Request request;
  request.op = op;
  request.path = path;
  request.name = std::move(name);
  request.value = std::move(value);
  request.params = params;
  rill::Client client;
  if (!client.connect("test-tools", socket_path_)) return std::nullopt;
  auto reply = client.call(std::move(request));
  if (reply && reply->status != rill::Status::kOk) return std::nullopt;
  return reply;
}

std::vector<std::string> InProcessBroker::history(const std::string& object, const std::string& param) {
  std::vector<std::string> values;
  if (auto reply = call(rill::Op::kHistory, object, param))
    for (const auto& item : reply->items) values.push_back(item.value.value_or(""));
  return values;
}

void StorageTest::SetUp() {
  root_ = std::filesystem::canonical(sandbox_.path()).string() + "/uuidmount";
  sandbox_.mkdirs("uuidmount");
  config_.root = root_;
  config_.kord_ini = sandbox_ / "kord.ini";
  config_.location = sandbox_ / "location";
  config_.update_signal = sandbox_ / "update";
  config_.read_retry_pause = std::chrono::milliseconds(0);
  ::setenv("KORD_INI", config_.kord_ini.c_str(), 1);
  ::setenv("KORD_UPDATE", config_.update_signal.c_str(), 1);
  ::setenv("KORD_VIEWS", (sandbox_ / "views").c_str(), 1);
  ::setenv("TOCK_EVENTS", (sandbox_ / "tock.events").c_str(), 1);
  remakeModel();
}

void StorageTest::TearDown() {
  model_.reset();
  if (conn_) {
    rill_invoke_unregister(conn_);
    rill_ctx_reset(conn_);
    rill_ctx_free(conn_);
  }
  broker_.reset();
}

void StorageTest::startBroker(const std::string& model, size_t max_subscriptions) {
  std::string text = model;
  for (size_t at; (at = text.find("@ROOT@")) != std::string::npos;) text.replace(at, 6, root_);
  const std::string socket = sandbox_ / "rill.sock";
  ::setenv("RILL_SOCKET", socket.c_str(), 1);
  broker_ = std::make_unique<InProcessBroker>(socket, text, max_subscriptions);
}

rill_conn_t* StorageTest::connectModel() {
  conn_ = rill_ctx_create_client_connection("zib_client", 0);
  EXPECT_NE(conn_, nullptr);
  model_->setConnection(conn_);
  return conn_;
}

std::string StorageTest::mount(const std::string& name, bool with_database) {
  sandbox_.mkdirs("uuidmount/" + name);
  if (with_database) sandbox_.write("uuidmount/" + name + "/.kord/tagdb", "");
  return root_ + "/" + name;
}

std::vector<std::string> StorageTest::mounts() {
  MutexLock hold(model_->storage_lock);
  std::vector<std::string> all;
  for (const Disk& disk : model_->disks)
    for (const Partition& p : disk.partitions) all.push_back(p.mount_path);
  return all;
}

}  // namespace zibd::test
