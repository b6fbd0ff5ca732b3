// Recording fakes of the scan queue and the storage model, and a clock the
// test sets.
#pragma once

#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "scan/scan_requests.h"
#include "storage/storage_queries.h"
#include "watch/change_handler.h"

namespace zibd::test {

class FakeScans : public ScanRequests {
 public:
  void enqueue(const std::string& path, uint32_t kind) override {
    std::lock_guard lock(mutex_);
    requests_.emplace_back(path, kind);
  }
  std::vector<std::pair<std::string, uint32_t>> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, uint32_t>> requests_;
};

class FakeStorage : public StorageQueries {
 public:
  bool ready = true;
  std::optional<std::string> managed;
  std::vector<std::string> events;

  bool storageReady() const override { return ready; }
  bool pathIsOnPartition(const std::string&) const override { return true; }
  std::optional<std::string> managedPartitionPath() const override { return managed; }
  void sendChangeEvent(const std::string& path) override { events.push_back(path); }
  void markInitialScanDone() override {}
};

struct FakeClock {
  std::time_t seconds = 1700000000;
  FsClock clock() {
    return [this] { return seconds; };
  }
};

}  // namespace zibd::test
