// The daemon's command line: -t MAP (required), -d, -h.
#pragma once

#include <optional>
#include <string>

namespace zibd {

struct CommandLine {
  std::optional<std::string> map_path;  // -t; the last one given wins
  bool daemonize = false;               // -d
};

enum class CommandLineVerdict {
  kRun,       // options complete
  kHelp,      // -h came before any bad option: usage, exit 0
  kBadUsage,  // unknown option (getopt has printed why) or no -t: usage, exit 1
};

// Reads the options with getopt from its current position (optind). The
// usage text mentions -n and -w, but neither is accepted.
CommandLineVerdict parseCommandLine(int argc, char* argv[], CommandLine& options);

// Writes the usage text for program to standard error.
void printUsage(const char* program);

}  // namespace zibd
