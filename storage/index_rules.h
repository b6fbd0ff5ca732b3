// The media server's indexing rules as the file classification asks them.
// The index-rule registry implements it; unit tests of the layers above use
// fakes.
#pragma once

#include <cstdint>
#include <string>

#include "common/tag_names.h"

namespace zibd {

class IndexRules {
 public:
  virtual ~IndexRules() = default;

  // The OR of the categories of every enabled rule whose
  // directory contains path (path continues the rule's path with "/").
  // Scanner thread, while the bus thread may add and remove rules.
  virtual uint32_t ruleCategories(const std::string& path) const = 0;

  // Replaces each rule's path by its realpath where it
  // resolves. Scanner thread, before it uses the rules.
  virtual void resolveRulePaths() = 0;
};

}  // namespace zibd
