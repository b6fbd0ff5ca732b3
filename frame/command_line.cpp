#include "frame/command_line.h"

#include <unistd.h>

#include <cstdio>

namespace zibd {

namespace {

constexpr char kOptions[] = "t:dh";

}  // namespace

CommandLineVerdict parseCommandLine(int argc, char* argv[], CommandLine& options) {
  int option;
  while ((option = ::getopt(argc, argv, kOptions)) != -1) {
    switch (option) {
      case 't':
        options.map_path = optarg;
        break;
      case 'd':
        options.daemonize = true;
        break;
      case 'h':
        return CommandLineVerdict::kHelp;
      default:
        return CommandLineVerdict::kBadUsage;
    }
  }
  return options.map_path ? CommandLineVerdict::kRun : CommandLineVerdict::kBadUsage;
}

void printUsage(const char* program) {
  std::fputs("\n", stderr);
  std::fprintf(stderr, "\nUsage: %s -t <file-type-INI-file> [-n <nice>] [-d] [-h]\n", program);
  std::fputs("Options are as follows:\n", stderr);
  std::fputs("  -t <path>   path of the INI file mapping file extensions to type/category\n",
             stderr);
  std::fputs("  -d          run as a daemon\n", stderr);
  std::fputs("  -n <nice>   run at non-default nice value (priority)\n", stderr);
  std::fputs("  -w <delay>  wait for <delay> seconds before initiating cold scan actions\n",
             stderr);
  std::fputs("  -h          print this help text and exit\n", stderr);
  std::fputs("\n", stderr);
}

}  // namespace zibd
