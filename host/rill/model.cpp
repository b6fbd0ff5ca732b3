#include "host/rill/model.h"

#include <iterator>

namespace zibd::rill {

const Model::Object* Model::find(const Path& object) const {
  auto it = objects_.find(object);
  return it == objects_.end() ? nullptr : &it->second;
}

Model::Object* Model::find(const Path& object) {
  auto it = objects_.find(object);
  return it == objects_.end() ? nullptr : &it->second;
}

std::vector<Path> Model::add(const Path& object, const Params& params) {
  std::vector<Path> created;
  if (object.empty() || objects_.count(object)) return created;
  Path prefix;
  for (const Segment& segment : object) {
    prefix.push_back(segment);
    if (objects_.try_emplace(prefix).second) created.push_back(prefix);
  }
  Object& added = objects_[object];
  for (const auto& [name, value] : params) added.params[name] = value;
  return created;
}

void Model::seed(const Path& object, const std::string& param, const std::string& value) {
  Path prefix;
  for (const Segment& segment : object) {
    prefix.push_back(segment);
    objects_.try_emplace(prefix);
  }
  objects_[object].params[param] = value;
}

std::vector<Path> Model::remove(const Path& object) {
  std::vector<Path> removed;
  auto first = objects_.find(object);
  if (first == objects_.end()) return removed;
  auto last = std::next(first);
  while (last != objects_.end() && isBelow(object, last->first)) ++last;
  for (auto it = last; it != first;) removed.push_back((--it)->first);
  objects_.erase(first, last);
  return removed;
}

Model::SetResult Model::set(const Path& object, const std::string& param,
                            const std::string& value) {
  Object* target = find(object);
  if (!target) return SetResult::kNoObject;
  auto [it, inserted] = target->params.try_emplace(param, value);
  if (inserted) return SetResult::kChanged;
  if (it->second == value) return SetResult::kUnchanged;
  it->second = value;
  return SetResult::kChanged;
}

std::vector<std::pair<const Path*, const Model::Object*>> Model::match(const Path& pattern) const {
  std::vector<std::pair<const Path*, const Object*>> found;
  for (const auto& [path, object] : objects_)
    if (matches(pattern, path)) found.emplace_back(&path, &object);
  return found;
}

std::vector<std::pair<const Path*, const Model::Object*>> Model::matchAtOrBelow(
    const Path& pattern) const {
  std::vector<std::pair<const Path*, const Object*>> found;
  for (const auto& [path, object] : objects_)
    if (matchesAtOrBelow(pattern, path)) found.emplace_back(&path, &object);
  return found;
}

namespace {

std::string_view trim(std::string_view s) {
  const char* blanks = " \t\r";
  size_t first = s.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

// One model line; false with *error set when it is not "Object.Path.Param=value".
bool loadLine(std::string_view line, Model* model, std::string* error) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  std::string_view content = trim(line);
  if (content.empty() || content.front() == '#') return true;
  size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    *error = "expected Object.Path.Param=value";
    return false;
  }
  std::string_view key = trim(line.substr(0, equals));
  auto param = parseParamPath(key);
  if (!param) {
    *error = "malformed parameter path '" + std::string(key) + "'";
    return false;
  }
  model->seed(param->object, param->param, std::string(line.substr(equals + 1)));
  return true;
}

}  // namespace

bool loadModel(const std::string& text, Model* model, std::string* error) {
  size_t start = 0;
  for (int number = 1; start < text.size(); ++number) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string reason;
    if (!loadLine(std::string_view(text).substr(start, end - start), model, &reason)) {
      *error = "line " + std::to_string(number) + ": " + reason;
      return false;
    }
    start = end + 1;
  }
  return true;
}

}  // namespace zibd::rill
