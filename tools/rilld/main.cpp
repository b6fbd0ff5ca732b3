// rilld: the host configuration bus broker. Listens on $RILL_SOCKET (default
// /run/rill.sock) until SIGTERM or SIGINT.
//
//   rilld [--model FILE] [--stage N]
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "host/rill/broker.h"
#include "host/rill/socket.h"

namespace {

constexpr const char* kUsage = "usage: rilld [--model FILE] [--stage N]\n";

zibd::rill::Broker* g_broker = nullptr;  // set before the stop signals are handled

void onStopSignal(int) { g_broker->stop(); }

struct Options {
  std::string model_path;
  int64_t stage = 100;
};

bool parseArgs(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (i + 1 >= argc) return false;
    std::string_view value = argv[++i];
    if (arg == "--model") {
      options->model_path = value;
    } else if (arg == "--stage") {
      auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), options->stage);
      if (ec != std::errc() || end != value.data() + value.size()) return false;
    } else {
      return false;
    }
  }
  return true;
}

bool loadModelFile(const std::string& path, zibd::rill::Model* model) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    ::fprintf(stderr, "rilld: cannot read %s: %s\n", path.c_str(), ::strerror(errno));
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::string error;
  if (!zibd::rill::loadModel(text.str(), model, &error)) {
    ::fprintf(stderr, "rilld: %s: %s\n", path.c_str(), error.c_str());
    return false;
  }
  return true;
}

// Raises the soft descriptor limit towards the hard one, so that the client
// cap (plus what the broker keeps for itself) fits under the usual limit of
// 1024; the broker lowers its cap to whatever limit it ends up with.
void allowDescriptors(size_t clients) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  const rlim_t wanted = static_cast<rlim_t>(clients) + 64;
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < wanted) {
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);  // at worst the cap stays lower
  }
}

void handleSignals() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, nullptr);
  struct sigaction stop {};
  stop.sa_handler = onStopSignal;
  ::sigemptyset(&stop.sa_mask);
  ::sigaction(SIGTERM, &stop, nullptr);
  ::sigaction(SIGINT, &stop, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseArgs(argc, argv, &options)) {
    ::fputs(kUsage, stderr);
    return 2;
  }
  zibd::rill::Model model;
  if (!options.model_path.empty() && !loadModelFile(options.model_path, &model)) return 1;

  zibd::rill::BrokerOptions broker_options;
  allowDescriptors(broker_options.max_clients);
  broker_options.socket_path = zibd::rill::socketPath();
  broker_options.stage = options.stage;
  zibd::rill::Broker broker(std::move(model), broker_options);
  std::string error;
  if (broker.listen(&error) != 0) {
    ::fprintf(stderr, "rilld: %s\n", error.c_str());
    return 1;
  }
  g_broker = &broker;
  handleSignals();
  const int rc = broker.run();
  ::signal(SIGTERM, SIG_DFL);  // the broker goes away with this scope
  ::signal(SIGINT, SIG_DFL);
  return rc == 0 ? 0 : 1;
}
