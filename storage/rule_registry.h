// The media server's indexing rules ("ContentSharing.UPnPAV.IndexRules"
// instances), each turned into the directory below the storage root whose
// files it offers, with the categories it enables.
//
// Threads: the bus thread reads, adds, changes and removes rules; the scanner
// thread asks for categories and resolves the paths. The registry's own mutex
// guards the list and is held around nothing else (docs/code-map.md).
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>

#include "common/mutex.h"
#include "common/status.h"
#include "platform/rill.h"
#include "storage/index_rules.h"

namespace zibd {

struct IndexRule {
  uint32_t enabled = 0;                   // "Status" is "Up"
  std::optional<std::string> path;        // root + "/" + uuid + "/" + directory
  std::optional<std::string> uuid;        // "UUID"
  std::optional<std::string> directory_name;  // "DirectoryName"
  std::string object_path;                // e.g. ContentSharing.UPnPAV.IndexRules.3
  uint32_t categories = 0;                // RuleCategory bits
};

// The rule collector for the "ContentSharing.UPnPAV.IndexRules" read: as
// stObjectPathCollector (storage_model.h). context: std::vector<std::string>*.
extern "C" int stRuleCollector(rill_reply_t* reply, void* context);

class RuleRegistry final : public IndexRules {
 public:
  // root: the storage root the rules' directories lie below.
  explicit RuleRegistry(std::string root = "/var/uuidmount") : root_(std::move(root)) {}

  uint32_t ruleCategories(const std::string& path) const override EXCLUDES(mutex_);
  void resolveRulePaths() override EXCLUDES(mutex_);

  // Reads the rule at object_path from the bus and adds it; tried up to three
  // times. Fails with EIO when the last try did.
  Status readRule(rill_conn_t* connection, const std::string& object_path) EXCLUDES(mutex_);
  // Builds the rule's path (when it has a uuid and a directory) and appends it.
  void addRule(IndexRule rule) EXCLUDES(mutex_);
  // A copy of the first rule whose object path is a prefix of text.
  std::optional<IndexRule> findRule(const std::string& text) const EXCLUDES(mutex_);
  // Removes the first rule whose object path is a prefix of text.
  void removeRule(const std::string& text) EXCLUDES(mutex_);
  // Applies change to the first rule whose object path is a prefix of text;
  // false when there is none.
  bool changeRule(const std::string& text, const std::function<void(IndexRule&)>& change)
      EXCLUDES(mutex_);
  bool haveRules() const EXCLUDES(mutex_);
  void clearRules() EXCLUDES(mutex_);

 private:
  const std::string root_;
  mutable Mutex mutex_;
  std::list<IndexRule> rules_ GUARDED_BY(mutex_);  // in the order they were read
};

}  // namespace zibd
