// Model files and paths: a path that parses formats back to itself, and what a
// model file created is found under its formatted path.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/rill/model.h"
#include "host/rill/path.h"

namespace rill = zibd::rill;

namespace {

void checkRoundTrips(std::string_view text) {
  if (auto pattern = rill::parsePattern(text)) {
    const std::string formatted = rill::format(*pattern);
    FUZZ_CHECK(rill::parsePattern(formatted) == pattern);
  }
  if (auto object = rill::parseObjectPath(text)) {
    const std::string formatted = rill::format(*object);
    FUZZ_CHECK(rill::parseObjectPath(formatted) == object);
    FUZZ_CHECK(rill::parsePattern(formatted) == object);
    FUZZ_CHECK(rill::matches(*object, *object));
  }
  if (auto param = rill::parseParamPath(text)) {
    auto again = rill::parseParamPath(rill::format(param->object) + "." + param->param);
    FUZZ_CHECK(again && again->object == param->object && again->param == param->param);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  // Each line, and the part before its '=', as a path of every kind.
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string_view line = std::string_view(text).substr(start, end - start);
    checkRoundTrips(line);
    checkRoundTrips(line.substr(0, line.find('=')));
    start = end + 1;
  }

  rill::Model model;
  std::string error;
  if (!rill::loadModel(text, &model, &error)) {
    FUZZ_CHECK(error.rfind("line ", 0) == 0);
    return 0;
  }
  auto everything = rill::parsePattern("*");
  FUZZ_CHECK(everything);
  size_t objects = 0;
  for (const auto& [path, object] : model.matchAtOrBelow(*everything)) {
    ++objects;
    const std::string formatted = rill::format(*path);
    auto again = rill::parseObjectPath(formatted);
    FUZZ_CHECK(again && *again == *path);
    FUZZ_CHECK(model.find(*again) == object);
    for (const auto& [name, value] : object->params) {
      auto param = rill::parseParamPath(formatted + "." + name);
      FUZZ_CHECK(param && param->object == *path && param->param == name);
    }
  }
  FUZZ_CHECK(objects == model.size());
  return 0;
}
