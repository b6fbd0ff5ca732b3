// zibd-status: what zibd is doing, from what the gateway offers to any reader
// (the configuration bus, the metadata storage files, the tag store and the
// change-event log), since zibd itself logs nothing. Live in a terminal until
// Ctrl-C or q; once, as plain text, with --once or when the output is not a
// terminal. It never writes to the bus or the tag store.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "tools/zibd-status/render.h"
#include "tools/zibd-status/snapshot.h"
#include "tools/zibd-status/terminal.h"

namespace zibd::status {
namespace {

constexpr const char* kUsage =
    "usage: zibd-status [--once] [--interval SECONDS] [--events N]\n"
    "Shows what zibd is doing: the metadata storage status and the chosen partition, the\n"
    "profiling status, the files known, the files waiting for profiling per type (the live\n"
    "view adds a progress bar while profiling runs) and the latest change events.\n"
    "\n"
    "  --once              print the status once as plain text and exit (also the\n"
    "                      behaviour when the output is not a terminal)\n"
    "  --interval SECONDS  time between refreshes of the live view (default 1)\n"
    "  --events N          change events shown by --once (default 10); the live view\n"
    "                      shows as many as fit\n"
    "  -h, --help          print this help\n"
    "\n"
    "The live view redraws in place until Ctrl-C or q.\n"
    "Environment: RILL_SOCKET (the bus), KORD_INI (the tag store's configuration),\n"
    "TOCK_EVENTS (the change-event log), KORDCTL (the kordctl program to count with).\n";

struct Options {
  bool once = false;
  std::chrono::milliseconds interval{1000};
  std::size_t events = 10;
};

int usageError(const std::string& message) {
  ::fprintf(stderr, "zibd-status: %s\nTry 'zibd-status --help'.\n", message.c_str());
  return 2;
}

// Parses argv; returns -1 to go on, or the exit status.
int parseOptions(int argc, char** argv, Options* options) {
  std::vector<std::string> args(argv + 1, argv + argc);
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    auto value = [&](const char* name) -> const std::string* {
      if (i + 1 >= args.size()) return nullptr;
      (void)name;
      return &args[++i];
    };
    if (arg == "-h" || arg == "--help") {
      ::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--once") {
      options->once = true;
    } else if (arg == "--interval") {
      const std::string* text = value("--interval");
      if (!text) return usageError("--interval needs SECONDS");
      char* end = nullptr;
      errno = 0;
      const double seconds = std::strtod(text->c_str(), &end);
      if (errno || end == text->c_str() || *end || !std::isfinite(seconds) || seconds < 0.1 || seconds > 3600)
        return usageError("--interval takes 0.1 to 3600 seconds, not '" + *text + "'");
      options->interval = std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    } else if (arg == "--events") {
      const std::string* text = value("--events");
      if (!text) return usageError("--events needs N");
      std::size_t n = 0;
      auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), n);
      if (ec != std::errc() || end != text->data() + text->size() || text->empty() || n > 500)
        return usageError("--events takes 0 to 500, not '" + *text + "'");
      options->events = n;
    } else {
      return usageError("unknown argument '" + arg + "'");
    }
  }
  return -1;
}

Snapshot gather(BusReader& bus, const std::string& kordctl) {
  Snapshot s;
  s.bus = bus.read();
  s.storage = readStorageFiles();
  s.store = readStoreCounts(kordctl, s.storage);
  return s;
}

int runOnce(const Options& options, const std::string& kordctl) {
  BusReader bus;
  EventLog events(envOr("TOCK_EVENTS", kDefaultEventLog), options.events ? options.events : 1);
  events.refresh();
  const Snapshot snapshot = gather(bus, kordctl);
  RenderOptions render;
  render.max_events = options.events;
  for (const std::string& line : renderLines(snapshot, events, render)) {
    ::fwrite(line.data(), 1, line.size(), stdout);
    ::fputc('\n', stdout);
  }
  if (::fflush(stdout) != 0 || ::ferror(stdout)) {
    ::fprintf(stderr, "zibd-status: cannot write the output\n");
    return 1;
  }
  return 0;
}

int runLive(const Options& options, const std::string& kordctl) {
  SignalPipe signals;
  if (!signals.valid()) {
    ::perror("zibd-status: pipe");
    return 1;
  }
  const int keys = ::isatty(STDIN_FILENO) ? STDIN_FILENO : -1;
  Terminal terminal(keys, STDOUT_FILENO);
  terminal.enter();
  BusReader bus;
  EventLog events(envOr("TOCK_EVENTS", kDefaultEventLog));
  Snapshot snapshot;
  ProgressTracker tracker;
  std::optional<Progress> progress;
  using Clock = std::chrono::steady_clock;
  auto next = Clock::now();
  for (;;) {
    if (Clock::now() >= next) {
      events.refresh();
      snapshot = gather(bus, kordctl);
      progress = tracker.update(snapshot);
      next = Clock::now() + options.interval;
    }
    std::size_t columns, rows;
    terminal.size(&columns, &rows);
    RenderOptions render;
    render.clock = ::time(nullptr);
    render.progress = progress;
    render.bar_width = columns >= 80 ? 30 : columns >= 50 ? 15 : 5;
    const std::size_t head = linesBeforeEvents(snapshot, events, render);
    render.max_events = rows > head ? rows - head : 0;
    terminal.draw(renderLines(snapshot, events, render));

    pollfd fds[2] = {{signals.fd(), POLLIN, 0}, {keys, POLLIN, 0}};
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
    const int ready = ::poll(fds, keys >= 0 ? 2 : 1, static_cast<int>(std::max<long>(0, wait.count())));
    if (ready < 0 && errno != EINTR) break;
    for (int sig : signals.take()) {
      if (sig == SIGINT || sig == SIGTERM || sig == SIGHUP) return 0;
      if (sig == SIGTSTP) {
        terminal.leave();
        SignalPipe::stopProcess();
        terminal.enter();
        next = Clock::now();
      }
      // SIGWINCH: the loop draws the same status at the new size.
    }
    if (keys >= 0 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
      char buffer[64];
      const ssize_t n = ::read(keys, buffer, sizeof buffer);
      if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return 0;
      for (ssize_t i = 0; i < n; ++i)
        if (buffer[i] == 'q' || buffer[i] == 'Q') return 0;
    }
  }
  return 0;
}

}  // namespace
}  // namespace zibd::status

int main(int argc, char** argv) {
  using namespace zibd::status;
  Options options;
  if (int rc = parseOptions(argc, argv, &options); rc >= 0) return rc;
  const std::string kordctl = findKordctl(argv[0]);
  try {
    if (options.once || !::isatty(STDOUT_FILENO)) return runOnce(options, kordctl);
    return runLive(options, kordctl);
  } catch (const std::exception& e) {
    ::fprintf(stderr, "zibd-status: %s\n", e.what());
    return 1;
  }
}
