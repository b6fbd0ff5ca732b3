// The broker's data model: objects with dotted paths and numbered instances,
// each holding named text parameters and a reference count. Not thread-safe:
// the broker's one loop thread owns it.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/rill/path.h"

namespace zibd::rill {

class Model {
 public:
  struct Object {
    std::map<std::string, std::string> params;  // sorted by name
    int64_t refcount = 0;                        // cs_incrementDiskRefcount and friends
  };
  using Params = std::vector<std::pair<std::string, std::string>>;
  enum class SetResult { kNoObject, kUnchanged, kChanged };

  const Object* find(const Path& object) const;
  Object* find(const Path& object);

  // Creates the object with its parameters, and any missing objects above
  // it. Returns the objects created, outermost first; empty when the object
  // already existed (then nothing changes).
  std::vector<Path> add(const Path& object, const Params& params);
  // Creates what is missing and sets one parameter, without asking whether
  // the object existed: how a model file seeds the bus.
  void seed(const Path& object, const std::string& param, const std::string& value);
  // Removes the object and everything below it. Returns the removed objects,
  // innermost first (children before their parent); empty when it did not
  // exist.
  std::vector<Path> remove(const Path& object);
  SetResult set(const Path& object, const std::string& param, const std::string& value);

  // Objects matched by the pattern itself (not objects below them), in path
  // order.
  std::vector<std::pair<const Path*, const Object*>> match(const Path& pattern) const;
  // Objects at or below whatever the pattern matches, in path order.
  std::vector<std::pair<const Path*, const Object*>> matchAtOrBelow(const Path& pattern) const;

  size_t size() const { return objects_.size(); }

 private:
  std::map<Path, Object> objects_;  // keyed by path: an object's descendants follow it
};

// Reads model lines "Object.Path.Param=value" ("#" comments and blank lines
// skipped) into model. On a bad line returns false with *error set to
// "line N: reason".
bool loadModel(const std::string& text, Model* model, std::string* error);

}  // namespace zibd::rill
