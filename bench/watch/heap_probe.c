/* Preloaded into another program: on SIGUSR1 it writes the allocator's count
 * of bytes in use (mallinfo2().uordblks) as one line "heap N" to stderr. The
 * program is expected to sit in a blocking read when the signal comes. */
#define _GNU_SOURCE
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static void report(int sig) {
  (void)sig;
  char line[64];
  const int n = snprintf(line, sizeof line, "heap %zu\n", mallinfo2().uordblks);
  if (n > 0) (void)write(STDERR_FILENO, line, (size_t)n);
}

__attribute__((constructor)) static void install(void) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = report;
  sa.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &sa, NULL);
}
