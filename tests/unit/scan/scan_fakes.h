// Fakes of the interfaces the scanner uses upward, recording what they are
// asked. Thread-safe: the scanner thread and the test thread use them at once.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "scan/scan_reports.h"
#include "storage/index_rules.h"
#include "storage/storage_queries.h"

namespace zibd::test {

class FakeStorage : public StorageQueries {
 public:
  std::atomic<bool> ready{true};
  std::optional<std::string> managed;  // set before the scanner runs
  mutable std::atomic<int> on_partition_queries{0};

  bool storageReady() const override { return ready.load(); }
  bool pathIsOnPartition(const std::string&) const override { return ++on_partition_queries > 0; }
  std::optional<std::string> managedPartitionPath() const override { return managed; }
  void sendChangeEvent(const std::string&) override {}
  void markInitialScanDone() override {}
};

class FakeReports : public ScanReports {
 public:
  int reportProfiling(int busy) override { return record(&profiling_, busy); }
  int reportPartitionScanned(const std::string& mount_path) override { return record(&scanned_, mount_path); }
  std::vector<int> profiling() const { return copy(profiling_); }
  std::vector<std::string> scanned() const { return copy(scanned_); }

 private:
  template <typename T>
  int record(std::vector<T>* to, const T& value) {
    std::lock_guard lock(mutex_);
    to->push_back(value);
    return 8;
  }
  template <typename T>
  std::vector<T> copy(const std::vector<T>& from) const {
    std::lock_guard lock(mutex_);
    return from;
  }
  mutable std::mutex mutex_;
  std::vector<int> profiling_;
  std::vector<std::string> scanned_;
};

// Rules as directory -> categories; a rule matches the paths strictly below
// its directory. on_query, when set, runs on every query.
class FakeRules : public IndexRules {
 public:
  std::map<std::string, uint32_t> rules;
  std::function<void(const std::string&)> on_query;
  std::atomic<int> resolves{0};

  uint32_t stRuleCategories(const std::string& path) const override {
    if (on_query) on_query(path);
    uint32_t mask = 0;
    for (const auto& [dir, categories] : rules)
      if (path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/')
        mask |= categories;
    return mask;
  }
  void stResolveRulePaths() override { ++resolves; }
};

}  // namespace zibd::test
