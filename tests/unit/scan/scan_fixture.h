// Thread-safe fakes of the scanner's upper layers; a sandboxed tag store, type map and rules over p1.
#pragma once

#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>

#include "common/walk.h"
#include "scan/file_type_map.h"
#include "scan/scan_reports.h"
#include "scan/tagging.h"
#include "storage/index_rules.h"
#include "storage/storage_queries.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {

struct FakeStorage : StorageQueries {
  std::atomic<bool> ready{true};
  std::atomic<int> initial_scans_done{0};
  std::string mount;  // the one partition; "": every path is on one

  bool storageReady() const override { return ready.load(); }
  bool pathIsOnPartition(const std::string& p) const override { return mount.empty() || fsPathIsUnder(mount.c_str(), p.c_str()); }
  std::optional<std::string> managedPartitionPath() const override { return std::nullopt; }
  void sendChangeEvent(const std::string&) override {}
  void markInitialScanDone() override { ++initial_scans_done; }
};

// Records reports as "busy", "idle" or the scanned partition's path.
struct FakeReports : ScanReports {
  void reportProfiling(bool busy) override { add(busy ? "busy" : "idle"); }
  void reportPartitionScanned(const std::string& mount_path) override { add(mount_path); }
  void add(const std::string& report) { std::lock_guard lock(mutex); all.push_back(report); }
  std::vector<std::string> reports() const { std::lock_guard lock(mutex); return all; }
  mutable std::mutex mutex;
  std::vector<std::string> all;
};

// Rules as directory -> categories, each over the paths strictly below it.
struct FakeRules : IndexRules {
  std::map<std::string, uint32_t> rules;
  std::atomic<int> resolves{0};

  uint32_t ruleCategories(const std::string& path) const override {
    uint32_t mask = 0;
    for (const auto& [dir, categories] : rules)
      if (path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/')
        mask |= categories;
    return mask;
  }
  void resolveRulePaths() override { ++resolves; }
};

// Loads text as the map file "map": "" or what the load said.
inline std::string parseMap(FileTypeMap& map, std::string text) {
  std::FILE* file = ::fmemopen(text.data(), text.size(), "r");
  if (!file) return "fmemopen";
  const Status loaded = map.load(file, "map");
  std::fclose(file);
  return loaded.ok() ? "" : loaded.what();
}

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
    ASSERT_EQ(parseMap(types_, text), "");
  }
  // An executable shell script in the sandbox; its path.
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
    for (const auto& r : types_.records()) if (r->type == type) return *r;
    throw std::runtime_error("no type " + type);
  }

  FileTypeMap types_;
  FakeRules rules_;
  FakeStorage storage_;
  FakeReports reports_;
};

}  // namespace zibd::test
