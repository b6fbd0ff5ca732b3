// rillctl: reads and changes the host configuration bus from the command
// line. Exit status: 0 done, 1 nothing matched or the wait timed out, 2 any
// error (usage, no broker, malformed path, unknown object).
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <charconv>
#include <string>
#include <string_view>
#include <vector>

#include "host/rill/client.h"
#include "host/rill/path.h"

namespace {

using zibd::rill::Op;
using zibd::rill::Reply;
using zibd::rill::Request;
using zibd::rill::Status;

constexpr int kExitOk = 0;
constexpr int kExitNoMatch = 1;
constexpr int kExitError = 2;
constexpr double kDefaultWaitSeconds = 30;

constexpr const char* kUsage =
    "usage: rillctl get PATH\n"
    "       rillctl set PATH.PARAM VALUE\n"
    "       rillctl add OBJECT.PATH [PARAM=VALUE]...\n"
    "       rillctl del OBJECT.PATH\n"
    "       rillctl wait PATH.PARAM VALUE [SECONDS]\n"
    "       rillctl history PATH.PARAM\n"
    "       rillctl refcount OBJECT.PATH\n"
    "       rillctl stage [N]\n";

// Thrown to leave with a message and a status; caught in main.
struct Exit {
  int status;
  std::string message;
};

[[noreturn]] void fail(const std::string& message, int status = kExitError) { throw Exit{status, message}; }

[[noreturn]] void usage() { throw Exit{kExitError, ""}; }

zibd::rill::Path objectPath(const std::string& text) {
  auto path = zibd::rill::parseObjectPath(text);
  if (!path) fail("malformed path: " + text);
  return *path;
}

zibd::rill::ParamPath paramPath(const std::string& text) {
  auto path = zibd::rill::parseParamPath(text);
  if (!path) fail("malformed parameter path: " + text);
  return *path;
}

class Bus {
 public:
  Bus() {
    if (!client_.connect("rillctl")) fail(client_.error());
  }

  // The reply to request; fails unless the broker said yes.
  Reply call(Request request) {
    auto reply = client_.call(std::move(request));
    if (!reply) fail(client_.error());
    if (reply->status != Status::kOk) fail(reply->text);
    return *reply;
  }

  zibd::rill::Client& client() { return client_; }

 private:
  zibd::rill::Client client_;
};

Request request(Op op, std::string path = {}) {
  Request r;
  r.op = op;
  r.path = std::move(path);
  return r;
}

int get(const std::string& path) {
  if (!zibd::rill::parsePattern(path)) fail("malformed path: " + path);
  Bus bus;
  Reply reply = bus.call(request(Op::kGetSubtree, path));
  std::vector<std::string> lines;
  for (const auto& item : reply.items)
    lines.push_back(item.path.value_or("") + "." + item.name.value_or("") + "=" + item.value.value_or(""));
  std::sort(lines.begin(), lines.end());
  for (const auto& line : lines) ::printf("%s\n", line.c_str());
  return lines.empty() ? kExitNoMatch : kExitOk;
}

int set(const std::string& path, const std::string& value) {
  auto param = paramPath(path);
  Bus bus;
  Request r = request(Op::kSetValue, zibd::rill::format(param.object));
  r.name = param.param;
  r.value = value;
  bus.call(std::move(r));
  return kExitOk;
}

int add(const std::string& path, const std::vector<std::string>& assignments) {
  Request r = request(Op::kAddObject, zibd::rill::format(objectPath(path)));
  for (const std::string& assignment : assignments) {
    size_t equals = assignment.find('=');
    std::string name = assignment.substr(0, equals);
    if (equals == std::string::npos || !zibd::rill::isName(name)) fail("expected PARAM=VALUE: " + assignment);
    r.params.emplace_back(name, assignment.substr(equals + 1));
  }
  Bus bus;
  bus.call(std::move(r));
  return kExitOk;
}

int del(const std::string& path) {
  Request r = request(Op::kDelObject, zibd::rill::format(objectPath(path)));
  Bus bus;
  bus.call(std::move(r));
  return kExitOk;
}

int history(const std::string& path) {
  auto param = paramPath(path);
  Bus bus;
  Request r = request(Op::kHistory, zibd::rill::format(param.object));
  r.name = param.param;
  for (const auto& item : bus.call(std::move(r)).items) ::printf("%s\n", item.value.value_or("").c_str());
  return kExitOk;
}

int refcount(const std::string& path) {
  Request r = request(Op::kRefcount, zibd::rill::format(objectPath(path)));
  Bus bus;
  ::printf("%lld\n", static_cast<long long>(bus.call(std::move(r)).number));
  return kExitOk;
}

int64_t parseInteger(const std::string& text) {
  int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) fail("not a number: " + text);
  return value;
}

int stage(const std::vector<std::string>& args) {
  Bus bus;
  if (args.empty()) {
    ::printf("%lld\n", static_cast<long long>(bus.call(request(Op::kStageGet)).number));
    return kExitOk;
  }
  Request r = request(Op::kStageSet);
  r.number = parseInteger(args[0]);
  bus.call(std::move(r));
  return kExitOk;
}

double parseSeconds(const std::string& text) {
  char* end = nullptr;
  double seconds = ::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(seconds >= 0)) fail("not a number of seconds: " + text);
  return seconds;
}

// The parameter's current value, or nullopt while it (or its object) does
// not exist.
std::optional<std::string> currentValue(Bus& bus, const zibd::rill::ParamPath& param) {
  auto reply = bus.client().call(request(Op::kGetValues, zibd::rill::format(param.object)));
  if (!reply) fail(bus.client().error());
  for (const auto& item : reply->items)
    if (item.name == param.param && item.path == zibd::rill::format(param.object)) return item.value;
  return std::nullopt;
}

// Waits on notifications of the object (added, removed, any value changed)
// and reads the value again after each.
int wait(const std::string& path, const std::string& expected, double seconds) {
  auto param = paramPath(path);
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(seconds));
  Bus bus;
  if (!bus.client().attachNotify()) fail(bus.client().error());
  Request subscribe = request(Op::kSubscribe, zibd::rill::format(param.object));
  subscribe.number = zibd::rill::kMaskAdded | zibd::rill::kMaskRemoved | zibd::rill::kMaskValue;
  bus.call(std::move(subscribe));
  for (;;) {
    if (currentValue(bus, param) == expected) return kExitOk;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ::fprintf(stderr, "rillctl: timed out waiting for %s=%s\n", path.c_str(), expected.c_str());
      return kExitNoMatch;
    }
    pollfd pfd{bus.client().notifications().fd(), POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX))) > 0) {
      bool alive = true;
      bus.client().notifications().takeNotifications(&alive);
      if (!alive) fail("connection to the bus lost");
    }
  }
}

int dispatch(const std::vector<std::string>& args) {
  if (args.empty()) usage();
  const std::string& command = args[0];
  const size_t n = args.size() - 1;
  if (command == "get" && n == 1) return get(args[1]);
  if (command == "set" && n == 2) return set(args[1], args[2]);
  if (command == "add" && n >= 1) return add(args[1], {args.begin() + 2, args.end()});
  if (command == "del" && n == 1) return del(args[1]);
  if (command == "wait" && (n == 2 || n == 3))
    return wait(args[1], args[2], n == 3 ? parseSeconds(args[3]) : kDefaultWaitSeconds);
  if (command == "history" && n == 1) return history(args[1]);
  if (command == "refcount" && n == 1) return refcount(args[1]);
  if (command == "stage" && n <= 1) return stage({args.begin() + 1, args.end()});
  usage();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return dispatch(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const Exit& exit) {
    if (exit.message.empty()) {
      ::fputs(kUsage, stderr);
    } else {
      ::fprintf(stderr, "rillctl: %s\n", exit.message.c_str());
    }
    return exit.status;
  } catch (const std::exception& e) {
    ::fprintf(stderr, "rillctl: %s\n", e.what());
    return kExitError;
  }
}
