// zibd: keeps the tag database of the media files on the gateway's storage up
// to date. Start-up runs step by step below; every failed step reports one
// line on standard error and exits with status 1 without undoing anything.

#include <fcntl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "common/status.h"
#include "frame/command_line.h"
#include "frame/daemon.h"
#include "frame/daemon_state.h"
#include "frame/signals.h"
#include "platform/proc_lib.h"

namespace zibd {
namespace {

// The daemon always runs at this nice value.
constexpr int kNiceValue = 10;
constexpr char kDefaultProgramName[] = "zibd";

[[noreturn]] void failStartup(const char* message) {
  std::fputs(message, stderr);
  std::exit(EXIT_FAILURE);
}

// perror's line: what, then why the step failed.
[[noreturn]] void failStartup(const char* what, const Status& failure) {
  std::fprintf(stderr, "%s: %s\n", what, failure.reason().c_str());
  std::exit(EXIT_FAILURE);
}

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::string programName(int argc, char* argv[]) {
  if (argc < 1 || !argv[0]) return kDefaultProgramName;
  return proc_lib_remove_path(argv[0]);
}

void createPipes(Daemon& daemon) {
  if (Status made = daemon.sync_pipe.open(); !made.ok()) failStartup("sync pipe creation", made);
  if (Status made = g_daemon.termination_pipe.open(O_NONBLOCK); !made.ok())
    failStartup("termination pipe creation", made);
}

CommandLine readCommandLine(int argc, char* argv[], const std::string& program) {
  CommandLine options;
  switch (parseCommandLine(argc, argv, options)) {
    case CommandLineVerdict::kRun:
      return options;
    case CommandLineVerdict::kHelp:
      printUsage(program.c_str());
      std::exit(EXIT_SUCCESS);
    case CommandLineVerdict::kBadUsage:
      break;
  }
  printUsage(program.c_str());
  std::exit(EXIT_FAILURE);
}

void loadTypeMap(Daemon& daemon, const std::string& path) {
  File file(std::fopen(path.c_str(), "re"));
  if (!file) {
    std::fprintf(stderr, "Could not open %s for reading\n", path.c_str());
    std::exit(EXIT_FAILURE);
  }
  const Status loaded = daemon.type_map.load(file.get(), path);
  if (!loaded.ok()) failStartup((loaded.what() + "\n").c_str());
}

void lowerPriority() {
  // A failure leaves the default priority, which is acceptable.
  (void)::setpriority(PRIO_PROCESS, 0, kNiceValue);
}

void daemonize(const std::string& program) {
  if (proc_lib_daemonize(program.c_str()) != 0) failStartup("proc_lib_daemonize() failed\n");
}

void startScanner(Daemon& daemon) {
  if (!daemon.startScanner().ok()) failStartup("Could not launch scanner thread\n");
}

void startBusClient(Daemon& daemon) {
  daemon.wire();
  if (!daemon.startBus().ok()) failStartup("Could not initialize rill client\n");
}

void initWatch(Daemon& daemon) {
  if (!daemon.initWatch().ok()) failStartup("fsInitWatch() failed\n");
}

void startWatcher(Daemon& daemon) {
  if (!daemon.startWatcher().ok()) failStartup("Could not launch watcher thread\n");
}

void installSignalHandler() {
  if (Status blocked = blockTerminationSignals(&g_daemon.termination_wait_mask); !blocked.ok())
    failStartup("pthread_sigmask", blocked);
  if (Status installed = installTerminationHandler(); !installed.ok()) failStartup("sigaction", installed);
}

}  // namespace
}  // namespace zibd

int main(int argc, char* argv[]) {
  using namespace zibd;
  const std::string program = programName(argc, argv);
  g_daemon.running.store(1);
  // A failed start-up step exits without unwinding, so threads that still
  // use the daemon's objects never see them destroyed.
  Daemon daemon;
  createPipes(daemon);
  const CommandLine options = readCommandLine(argc, argv, program);
  loadTypeMap(daemon, *options.map_path);
  lowerPriority();
  if (options.daemonize) daemonize(program);
  initWatch(daemon);
  installSignalHandler();
  startBusClient(daemon);
  startScanner(daemon);
  startWatcher(daemon);
  daemon.runEventLoop();
  daemon.shutdown();
  return EXIT_SUCCESS;
}
