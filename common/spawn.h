// The one place where the daemon starts another program (the profilers).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zibd {

struct SpawnResult {
  // The child's process id, or -1 when no child was made (the pipe or fork
  // failed; error then holds errno). A child whose exec failed is still
  // returned here: it has printed "execvp failed: ..." to standard error and
  // exits with status 1, and the caller reaps it like any other.
  pid_t pid = -1;
  int error = 0;       // errno of a failed pipe2 or fork
  int exec_error = 0;  // errno of the child's failed execvp, 0 when it ran
};

// Starts argv[0], searched on PATH as execvp does, with argv as its argument
// vector. The child starts with an empty signal mask and default SIGPIPE
// handling, and with only descriptors 0, 1 and 2 of the daemon open. Returns
// once the program runs (or its exec failed); the caller owns the child and
// must reap it with waitpid. argv must not be empty.
//
// Thread: any. Safe to call while other threads run: between fork and exec the
// child calls only async-signal-safe functions.
SpawnResult spawnProcess(const std::vector<std::string>& argv);

}  // namespace zibd
