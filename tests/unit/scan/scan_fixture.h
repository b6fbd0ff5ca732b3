// Fakes of the interfaces the scanner uses upward (thread-safe: the scanner
// thread and the test thread use them at once), and a sandboxed tag store
// (tests/unit/kord/kord_fixture.h) with a file-type map, fake index rules and
// the tools to make media trees and profiler scripts.
#pragma once

#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "scan/file_type_map.h"
#include "scan/scan_reports.h"
#include "scan/tagging.h"
#include "storage/index_rules.h"
#include "storage/storage_queries.h"
#include "tests/unit/kord/kord_fixture.h"

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


class ScanTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
    loadMap("mkv,avi:STDVIDEO:true:\nmp3:STDAUDIO:true:\njpg:STDIMAGE:true:\n");
    rules_.rules[at("p1")] = kCategoryMovies | kCategoryMusic;
  }

  void loadMap(const std::string& text) {
    types_.clear();
    sandbox_.write("types.ini", text);
    std::FILE* file = std::fopen((sandbox_ / "types.ini").c_str(), "re");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(types_.load(file), 0);
    std::fclose(file);
  }
  // An executable shell script below the sandbox; its path.
  std::string script(const std::string& name, const std::string& body) {
    sandbox_.write(name, "#!/bin/sh\n" + body);
    EXPECT_EQ(::chmod((sandbox_ / name).c_str(), 0755), 0);
    return sandbox_ / name;
  }
  // A file below the tag store's root, modified at mtime (seconds) unless -1.
  std::string media(const std::string& relative, long mtime = -1) {
    sandbox_.write("uuidmount/" + relative, "x");
    if (mtime >= 0) setMtime(at(relative), mtime);
    return at(relative);
  }
  static void setMtime(const std::string& path, long seconds) {
    struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimes(path.c_str(), times), 0);
  }
  static std::string timeText(long seconds) {
    char text[20];
    formatTagTime(static_cast<std::time_t>(seconds), text, sizeof text);
    return text;
  }
  FileTypeRecord& typeRecord(const std::string& type) {
    for (const auto& r : types_.records())
      if (r->type == type) return *r;
    ADD_FAILURE() << "no type " << type;
    return *types_.records().front();
  }

  FileTypeMap types_;
  FakeRules rules_;
  FakeStorage storage_;
  FakeReports reports_;
};

}  // namespace zibd::test
