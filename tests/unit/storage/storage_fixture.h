// A bus broker in the test's process on a private socket, a sandboxed storage root and tag store
// files, and fakes of the layers above the storage model; for the storage and bus unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <thread>

#include "common/mutex.h"
#include "host/rill/broker.h"
#include "host/rill/client.h"
#include "host/rill/model.h"
#include "platform/rill.h"
#include "storage/rule_registry.h"
#include "storage/scanner_control.h"
#include "storage/storage_model.h"
#include "storage/watch_requests.h"
#include "tests/support/sandbox.h"

namespace zibd::test {

// The watcher records the watches asked for; the scanner is never busy.
class FakeUpperLayers : public WatchRequests, public ScannerControl {
 public:
  void fsQueueAddWatch(const std::string& path) override { calls.push_back("add " + path); }
  void fsQueueRemoveWatch(const std::string& path) override { calls.push_back("remove " + path); }
  void stopBelow(const std::string&) override {}
  void stopAll() override {}
  void releaseTagStore() override {}
  std::vector<std::string> calls;
};

// Partitions mount at <sandbox>/uuidmount/<name>; metadata files, events and the socket lie in the sandbox.
class StorageTest : public SandboxTest {
 protected:
  void SetUp() override {
    root_ = std::filesystem::canonical(sandbox_.path()).string() + "/uuidmount";
    sandbox_.mkdirs("uuidmount");
    config_ = {.root = root_, .kord_ini = sandbox_ / "kord.ini", .location = sandbox_ / "location",
               .update_signal = sandbox_ / "update", .read_retry_pause = {}, .settle_delay = config_.settle_delay};
    for (const auto& [name, file] : {std::pair{"KORD_INI", "kord.ini"}, {"KORD_UPDATE", "update"}, {"KORD_VIEWS", "views"},
                                     {"TOCK_EVENTS", "tock.events"}, {"RILL_SOCKET", "rill.sock"}})
      ::setenv(name, (sandbox_ / file).c_str(), 1);
    remakeModel();
  }
  void TearDown() override {
    model_.reset();
    if (conn_) { rill_invoke_unregister(conn_); rill_ctx_reset(conn_); rill_ctx_free(conn_); }
    stopBroker();
  }
  // Starts the broker with the model; "@ROOT@" in it stands for the storage root.
  void startBroker(std::string model, size_t max_subscriptions = 1024) {
    for (size_t at; (at = model.find("@ROOT@")) != std::string::npos;) model.replace(at, 6, root_);
    rill::Model loaded;
    std::string error;
    ASSERT_TRUE(rill::loadModel(model, &loaded, &error)) << error;
    rill::BrokerOptions options;
    options.socket_path = sandbox_ / "rill.sock";
    options.max_subscriptions = max_subscriptions;
    broker_ = std::make_unique<rill::Broker>(std::move(loaded), options);
    ASSERT_EQ(broker_->listen(&error), 0) << error;
    broker_thread_ = std::thread([this] { broker_->run(); });
  }
  // The broker goes away: every connection to it ends.
  void stopBroker() { if (broker_) broker_->stop(); if (broker_thread_.joinable()) broker_thread_.join(); }
  // Another service's request: the broker's reply, or none when unreachable or it said no.
  std::optional<rill::Reply> call(rill::Op op, const std::string& path, std::optional<std::string> name = {},
                                  std::optional<std::string> value = {}) {
    rill::Client client;
    if (!client.connect("test-tools", sandbox_ / "rill.sock")) return std::nullopt;
    auto reply = client.call({.op = op, .id = 0, .path = path, .name = std::move(name), .value = std::move(value),
                              .number = 0, .params = {}});
    return reply && reply->status == rill::Status::kOk ? reply : std::nullopt;
  }
  bool set(const std::string& object, const std::string& param, const std::string& value) {
    return call(rill::Op::kSetValue, object, param, value).has_value();
  }
  // Every value clients wrote to the parameter, oldest first.
  std::vector<std::string> history(const std::string& object, const std::string& param) {
    std::vector<std::string> values;
    if (auto reply = call(rill::Op::kHistory, object, param))
      for (const auto& item : reply->items) values.push_back(item.value.value_or(""));
    return values;
  }
  int64_t refcount(const std::string& object) {
    auto reply = call(rill::Op::kRefcount, object);
    return reply ? reply->number : -1;
  }
  void remakeModel() { model_ = std::make_unique<StorageModel>(upper_, upper_, config_); }
  // Hands the storage model a daemon connection ("zib_client").
  void connectModel() {
    conn_ = rill_ctx_create_client_connection("zib_client", 0);
    EXPECT_NE(conn_, nullptr);
    model_->setConnection(conn_);
  }
  // Makes the mount directory <root>/<name>, with a tag database when asked.
  std::string mount(const std::string& name, bool with_database = false) {
    sandbox_.mkdirs("uuidmount/" + name);
    if (with_database) sandbox_.write("uuidmount/" + name + "/.kord/tagdb", "");
    return root_ + "/" + name;
  }
  // The mount paths of every recorded partition, newest disk and partition first.
  std::vector<std::string> mounts() {
    std::vector<std::string> all;
    model_->visitDisks([&](const Disk& disk) {
      for (const Partition& p : disk.partitions) all.push_back(p.mount_path);
    });
    return all;
  }

  std::string root_;
  StorageConfig config_;
  FakeUpperLayers upper_;
  std::unique_ptr<rill::Broker> broker_;
  std::thread broker_thread_;
  std::unique_ptr<StorageModel> model_;
  rill_conn_t* conn_ = nullptr;
};

}  // namespace zibd::test
