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

[[noreturn]] void failStartupWithErrno(const char* what) {
  std::perror(what);
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
  if (daemon.sync_pipe.open() != 0) failStartupWithErrno("sync pipe creation");
  if (g_daemon.termination_pipe.open(O_NONBLOCK) != 0)
    failStartupWithErrno("termination pipe creation");
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
  const int bad_line = daemon.type_map.load(file.get());
  // fopen accepts a directory and only the reads fail: a map that cannot be
  // read is as unusable as one that cannot be opened.
  const bool unreadable = std::ferror(file.get()) != 0;
  file.reset();
  if (unreadable) {
    std::fprintf(stderr, "Could not open %s for reading\n", path.c_str());
    std::exit(EXIT_FAILURE);
  }
  if (bad_line != 0) {
    std::fprintf(stderr, "Parse error on line %d of %s\n", bad_line, path.c_str());
    std::exit(EXIT_FAILURE);
  }
}

void lowerPriority() {
  // A failure leaves the default priority, which is acceptable.
  (void)::setpriority(PRIO_PROCESS, 0, kNiceValue);
}

void daemonize(const std::string& program) {
  if (proc_lib_daemonize(program.c_str()) != 0) failStartup("proc_lib_daemonize() failed\n");
}

void startScanner(Daemon& daemon) {
  if (!daemon.startScanner()) failStartup("Could not launch scanner thread\n");
}

void startBusClient(Daemon& daemon) {
  daemon.wire();
  if (daemon.startBus() != 0) failStartup("Could not initialize rill client\n");
}

void initWatch(Daemon& daemon) {
  if (daemon.initWatch() != 0) failStartup("fsInitWatch() failed\n");
}

void startWatcher(Daemon& daemon) {
  if (!daemon.startWatcher()) failStartup("Could not launch watcher thread\n");
}

void installSignalHandler() {
  if (blockTerminationSignals(&g_daemon.termination_wait_mask) != 0)
    failStartupWithErrno("pthread_sigmask");
  if (installTerminationHandler() != 0) failStartupWithErrno("sigaction");
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
