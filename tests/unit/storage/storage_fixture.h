// A real bus broker in the test's process (the broker core of rilld on a
// private socket), a daemon-side connection to it, a sandbox standing in for
// the storage root and the tag store's files, and fakes of the layers above
// the storage model. Shared by the storage and bus unit tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "host/rill/broker.h"
#include "host/rill/client.h"
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
  InProcessBroker(const std::string& socket_path, const std::string& model, size_t max_subscriptions);
  ~InProcessBroker() { stop(); }

  using Params = std::vector<std::pair<std::string, std::string>>;
  // The broker's reply, or none when it could not be reached or said no.
  std::optional<rill::Reply> call(rill::Op op, const std::string& path, std::optional<std::string> name = {},
                                  std::optional<std::string> value = {}, const Params& params = {});
  bool add(const std::string& object, const Params& params) {
    return call(rill::Op::kAddObject, object, {}, {}, params).has_value();
  }
  bool del(const std::string& object) { return call(rill::Op::kDelObject, object).has_value(); }
  bool set(const std::string& object, const std::string& param, const std::string& value) {
    return call(rill::Op::kSetValue, object, param, value).has_value();
  }
  // Every value clients wrote to the parameter, oldest first.
  std::vector<std::string> history(const std::string& object, const std::string& param);
  int64_t refcount(const std::string& object) {
    auto reply = call(rill::Op::kRefcount, object);
    return reply ? reply->number : -1;
  }
  // The broker goes away: every connection to it ends.
  void stop();

 private:
  std::string socket_path_;
  std::unique_ptr<rill::Broker> broker_;
  std::thread thread_;
};

// Sandbox layout: <sandbox>/uuidmount/<name> are the partitions' mounts,
// <sandbox>/kord.ini and <sandbox>/location the metadata files.
class StorageTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the broker with the model; "@ROOT@" in it stands for the storage root.
  void startBroker(const std::string& model, size_t max_subscriptions = 1024);
  // Makes the storage model again with config_ (after a test changed it).
  void remakeModel() { model_ = std::make_unique<StorageModel>(watches_, scanner_, config_); }
  // A daemon connection ("zib_client") handed to the storage model.
  rill_conn_t* connectModel();
  // Makes the mount directory <root>/<name>, with a tag database when asked.
  std::string mount(const std::string& name, bool with_database = false);
  // The mount paths of every recorded partition, newest disk and partition first.
  std::vector<std::string> mounts();

  std::string root_;
  StorageConfig config_;
  FakeWatchRequests watches_;
  NoScanner scanner_;
  std::unique_ptr<InProcessBroker> broker_;
  std::unique_ptr<StorageModel> model_;
  rill_conn_t* conn_ = nullptr;
};

}  // namespace zibd::test
