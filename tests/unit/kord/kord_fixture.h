// A sandboxed tag store: kord.ini, update signal and views in the sandbox; the database covers <sandbox>/uuidmount.
#pragma once
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include "host/kord/kord_host.h"
#include "platform/kord.h"
#include "tests/support/sandbox.h"

namespace zibd::test {
struct HandleCloser { void operator()(kord_bulk_t* h) const { kord_bulk_fini(h); } };
using Handle = std::unique_ptr<kord_bulk_t, HandleCloser>;

class KordTest : public SandboxTest {
 protected:
  void SetUp() override {
    ::setenv(kord::kIniEnv, (sandbox_ / "kord.ini").c_str(), 1);
    ::setenv(kord::kUpdateEnv, (sandbox_ / "update").c_str(), 1);
    ::setenv(kord::kViewsEnv, (sandbox_ / "views").c_str(), 1);
    sandbox_.write("update");
    for (const char* p : {"uuidmount/p1", "uuidmount/p2"}) sandbox_.mkdirs(p);
  }
  std::string root() const { return sandbox_ / "uuidmount"; }
  std::string at(const std::string& relative) const { return root() + "/" + relative; }
  std::string database(const std::string& partition = "p1") const { return at(partition + "/.kord/tagdb"); }
  // Writes the line the daemon writes when it chooses a partition.
  void configure(const std::string& partition = "p1", const std::string& seconds = "1700000000") {
    sandbox_.write("kord.ini", "dms-metadata-db-" + seconds + ":" + root() + ":" + database(partition) + "\n");
  }
  static Handle open() { return Handle(kord_bulk_init()); }
  // Sets tags on one file through a fresh handle and commits.
  static void tag(const std::string& path, const std::map<std::string, std::string>& tags) {
    Handle h = open();
    ASSERT_EQ(kord_bulk_setpath(h.get(), path.c_str()), 0) << kord::lastError().message;
    for (const auto& [name, value] : tags) ASSERT_EQ(kord_bulk_settag(h.get(), name.c_str(), value.c_str()), 0);
    ASSERT_EQ(kord_bulk_commit(h.get()), 0);
  }
  // The file's tags as NAME=VALUE, or "unknown".
  static std::string tagsOf(const std::string& path) {
    std::vector<std::pair<std::string, std::string>> tags;
    const kord::Status s = kord::listTags(path, &tags);
    if (s != kord::Status::kOk) return s == kord::Status::kNotFound ? "unknown" : "error: " + kord::lastError().message;
    std::string text;
    for (const auto& [name, value] : tags) text += (text.empty() ? "" : " ") + name + "=" + value;
    return text;
  }
  // One tag through a fresh handle; "absent" when gettag fails.
  static std::string getTag(const std::string& path, const char* name) {
    Handle h = open();
    if (kord_bulk_setpath(h.get(), path.c_str()) != 0) return "setpath failed";
    char value[256];
    return kord_bulk_gettag(h.get(), name, value, sizeof value) == 0 ? value : "absent";
  }
  static std::vector<std::string> files(const std::string& under = "/") {
    std::vector<std::string> paths;
    if (kord::listFiles(under, &paths) != kord::Status::kOk) paths = {"error: " + kord::lastError().message};
    return paths;
  }
};

// The symbolic links in a directory: name -> target.
inline std::map<std::string, std::string> linksIn(const std::string& dir) {
  std::map<std::string, std::string> links;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error))
    if (entry.is_symlink()) links[entry.path().filename()] = std::filesystem::read_symlink(entry.path());
  return links;
}
inline std::vector<std::string> linkTargets(const std::string& dir) {
  std::vector<std::string> targets;
  for (const auto& link : linksIn(dir)) targets.push_back(link.second);
  std::sort(targets.begin(), targets.end());
  return targets;
}
}  // namespace zibd::test
