// A real bus broker in the test's process (the broker core of rilld on a
// private socket), a daemon-side connection to it, a sandbox standing in for
// the storage root and the tag store's files, and fakes of the layers above
// the storage model. Shared by the storage and bus unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "host/rill/broker.h"
#include "host/rill/client.h"
#include "host/rill/model.h"
#include "platform/rill.h"
#include "scan/scan_requests.h"
#include "storage/rule_registry.h"
#include "storage/scanner_control.h"
#include "storage/storage_model.h"
#include "storage/watch_requests.h"
#include "tests/support/sandbox.h"

namespace zibd::test {

class FakeWatchRequests : public WatchRequests {
 public:
  void fsQueueAddWatch(const std::string& path) override { calls.push_back("add " + path); }
  void fsQueueRemoveWatch(const std::string& path) override { calls.push_back("remove " + path); }
  std::vector<std::string> calls;
};

class NoScanner : public ScannerControl {
 public:
  void stopBelow(const std::string&) override {}
  void stopAll() override {}
};

class FakeScanRequests : public ScanRequests {
 public:
  void enqueue(const std::string& path, uint32_t kind) override {
    MutexLock hold(mutex);
    requests.emplace_back(path, kind);
  }
  std::vector<std::pair<std::string, uint32_t>> taken() {
    MutexLock hold(mutex);
    return std::exchange(requests, {});
  }
  Mutex mutex;
  std::vector<std::pair<std::string, uint32_t>> requests GUARDED_BY(mutex);
};

// The broker and, as rillctl, the tools of the other services on the bus.
class InProcessBroker {
 public:
  InProcessBroker(const std::string& socket_path, const std::string& model, size_t max_subscriptions)
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
  ~InProcessBroker() { stop(); }

  using Params = std::vector<std::pair<std::string, std::string>>;
  // The broker's reply, or none when it could not be reached or said no.
  std::optional<rill::Reply> call(rill::Op op, const std::string& path, std::optional<std::string> name = {},
                                  std::optional<std::string> value = {}, const Params& params = {}) {
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
  bool add(const std::string& object, const Params& params) {
    return call(rill::Op::kAddObject, object, {}, {}, params).has_value();
  }
  bool del(const std::string& object) { return call(rill::Op::kDelObject, object).has_value(); }
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
  // The broker goes away: every connection to it ends.
  void stop() {
    if (broker_) broker_->stop();
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::string socket_path_;
  std::unique_ptr<rill::Broker> broker_;
  std::thread thread_;
};

// Sandbox layout: <sandbox>/uuidmount/<name> are the partitions' mounts,
// <sandbox>/kord.ini and <sandbox>/location the metadata files.
class StorageTest : public SandboxTest {
 protected:
  void SetUp() override {
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
  void TearDown() override {
    model_.reset();
    if (conn_) {
      rill_invoke_unregister(conn_);
      rill_ctx_reset(conn_);
      rill_ctx_free(conn_);
    }
    broker_.reset();
  }

  // Starts the broker with the model; "@ROOT@" in it stands for the storage root.
  void startBroker(std::string model, size_t max_subscriptions = 1024) {
    for (size_t at; (at = model.find("@ROOT@")) != std::string::npos;) model.replace(at, 6, root_);
    ::setenv("RILL_SOCKET", (sandbox_ / "rill.sock").c_str(), 1);
    broker_ = std::make_unique<InProcessBroker>(sandbox_ / "rill.sock", model, max_subscriptions);
  }
  // Makes the storage model again with config_ (after a test changed it).
  void remakeModel() { model_ = std::make_unique<StorageModel>(watches_, scanner_, config_); }
  // A daemon connection ("zib_client") handed to the storage model.
  rill_conn_t* connectModel() {
    conn_ = rill_ctx_create_client_connection("zib_client", 0);
    EXPECT_NE(conn_, nullptr);
    model_->setConnection(conn_);
    return conn_;
  }
  // Makes the mount directory <root>/<name>, with a tag database when asked.
  std::string mount(const std::string& name, bool with_database = false) {
    sandbox_.mkdirs("uuidmount/" + name);
    if (with_database) sandbox_.write("uuidmount/" + name + "/.kord/tagdb", "");
    return root_ + "/" + name;
  }
  // The mount paths of every recorded partition, newest disk and partition first.
  std::vector<std::string> mounts() {
    MutexLock hold(model_->storage_lock);
    std::vector<std::string> all;
    for (const Disk& disk : model_->disks)
      for (const Partition& p : disk.partitions) all.push_back(p.mount_path);
    return all;
  }

  std::string root_;
  StorageConfig config_;
  FakeWatchRequests watches_;
  NoScanner scanner_;
  std::unique_ptr<InProcessBroker> broker_;
  std::unique_ptr<StorageModel> model_;
  rill_conn_t* conn_ = nullptr;
};

}  // namespace zibd::test
