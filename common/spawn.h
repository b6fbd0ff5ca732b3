// The one place where the daemon starts another program (the profilers).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "common/status.h"

namespace zibd {

// A started child. Its exec may still have failed: it has then printed
// "execvp failed: ..." to the daemon's standard error and exits with status
// 1, and the caller reaps it like any other.
struct ChildProcess {
  pid_t pid = -1;
  // Failed when the child's execvp did.
  Status exec;
  // Readable (poll POLLIN) once the child has exited; not valid when the
  // kernel has no pidfd_open (the caller then polls the child's state).
  FileDescriptor exited;
};

// Starts argv[0], searched on PATH as execvp does, with argv as its argument
// vector. The child starts with an empty signal mask and default SIGPIPE
// handling, in a process group of its own (its id is the child's pid), with
// the daemon's standard input, its standard output and standard error on
// /dev/null (nobody reads them: a pipe would fill and a file would grow), and
// no other descriptor of the daemon. Returns once the program
// runs (or its exec failed); the caller owns the child and must reap it with
// waitpid. Fails, with no child made, when the pipe, /dev/null or the fork
// cannot be had. argv must not be empty.
//
// Thread: any. Safe to call while other threads run: between fork and exec the
// child calls only async-signal-safe functions.
Result<ChildProcess> spawnProcess(const std::vector<std::string>& argv);

// SIGKILL to every process of the group that spawnProcess made for pid:
// the child and whatever it started and did not move elsewhere. Call it
// before the child is reaped, so that the group's id cannot have been given
// to another process.
void killProcessGroup(pid_t pid);

}  // namespace zibd
