#include "storage/rule_registry.h"

#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>

#include "platform/cs.h"
#include "platform/dynstr.h"
#include "storage/bus_retry.h"
#include "storage/reply_items.h"
#include "storage/storage_model.h"

namespace zibd {
namespace {

struct ReadContext {
  RuleRegistry* registry;
  const std::string* object_path;
};

std::optional<std::string> copyOf(const dynstr_t* value) {
  const char* text = dynstr_getstring(value);
  if (!text) return std::nullopt;
  return std::string(text);
}

// Reads one rule's answer and adds the rule.
extern "C" int ruleReader(rill_reply_t* reply, void* context) {
  if (!reply) return 0;
  auto* read = static_cast<ReadContext*>(context);
  try {
    IndexRule rule;
    rule.object_path = *read->object_path;
    int enable = 0;  // shared by the three category switches
    forEachReplyValue(reply, [&](const char* name, const dynstr_t* value) {
      if (::strstr(name, "Status")) {
        rule.enabled = dynstr_strcmp2(value, "Up") == 0 ? 1 : 0;
      } else if (::strstr(name, "UUID")) {
        if (value) rule.uuid = copyOf(value);
      } else if (::strstr(name, "DirectoryName")) {
        if (value) rule.directory_name = copyOf(value);
      } else {
        uint32_t bit = 0;
        if (::strstr(name, "EnableMovie")) bit = kCategoryMovies;
        else if (::strstr(name, "EnableMusic")) bit = kCategoryMusic;
        else if (::strstr(name, "EnablePicture")) bit = kCategoryPictures;
        if (bit == 0) return;
        int converted = 0;
        if (dynstr_getbool(value, &converted) == 0) enable = converted;
        if (enable) rule.categories |= bit;
      }
    });
    read->registry->addRule(std::move(rule));
  } catch (const std::bad_alloc&) {
    // Out of memory: the rule is not recorded.
  }
  return 0;
}

bool isPrefixOf(const std::string& prefix, const std::string& text) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

extern "C" int stRuleCollector(rill_reply_t* reply, void* context) {
  return stObjectPathCollector(reply, context);
}

uint32_t RuleRegistry::ruleCategories(const std::string& path) const {
  MutexLock hold(mutex_);
  uint32_t categories = 0;
  for (const IndexRule& rule : rules_) {
    if (!rule.enabled || !rule.path) continue;
    const std::string& base = *rule.path;
    if (path.size() > base.size() && path.compare(0, base.size(), base) == 0 && path[base.size()] == '/')
      categories |= rule.categories;
  }
  return categories;
}

void RuleRegistry::resolveRulePaths() {
  MutexLock hold(mutex_);
  for (IndexRule& rule : rules_) {
    if (!rule.path) continue;
    std::unique_ptr<char, decltype(&::free)> resolved(::realpath(rule.path->c_str(), nullptr), &::free);
    if (resolved) rule.path = std::string(resolved.get());
  }
}

Status RuleRegistry::readRule(rill_conn_t* connection, const std::string& object_path) {
  ReadContext context{this, &object_path};
  int error = 0;
  const int result = retryBusCall([&] {
    return cs_find_parameters_of_obj_instances(connection, object_path.c_str(), 0, 2, ruleReader, &context, &error);
  });
  if (result != 0) return Status::error(EIO, "read " + object_path + ": bus result " + std::to_string(result));
  return Status();
}

void RuleRegistry::addRule(IndexRule rule) {
  if (rule.uuid && rule.directory_name) {
    std::string directory = *rule.directory_name;
    if (!directory.empty() && directory.back() == '/') directory.pop_back();
    rule.path = root_ + "/" + *rule.uuid + "/" + directory;
  }
  MutexLock hold(mutex_);
  rules_.push_back(std::move(rule));
}

std::optional<IndexRule> RuleRegistry::findRule(const std::string& text) const {
  MutexLock hold(mutex_);
  for (const IndexRule& rule : rules_)
    if (isPrefixOf(rule.object_path, text)) return rule;
  return std::nullopt;
}

void RuleRegistry::removeRule(const std::string& text) {
  MutexLock hold(mutex_);
  for (auto it = rules_.begin(); it != rules_.end(); ++it)
    if (isPrefixOf(it->object_path, text)) {
      rules_.erase(it);
      return;
    }
}

bool RuleRegistry::changeRule(const std::string& text, const std::function<void(IndexRule&)>& change) {
  MutexLock hold(mutex_);
  for (IndexRule& rule : rules_)
    if (isPrefixOf(rule.object_path, text)) {
      change(rule);
      return true;
    }
  return false;
}

bool RuleRegistry::haveRules() const {
  MutexLock hold(mutex_);
  return !rules_.empty();
}

void RuleRegistry::clearRules() {
  MutexLock hold(mutex_);
  rules_.clear();
}

}  // namespace zibd
