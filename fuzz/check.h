// A property every fuzz target checks on what it parsed: when it does not
// hold, the input is reported (libFuzzer saves it as a crash) and the run
// stops.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#define FUZZ_CHECK(condition)                                                              \
  do {                                                                                     \
    if (!(condition)) {                                                                    \
      ::fprintf(stderr, "property does not hold: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      ::abort();                                                                           \
    }                                                                                      \
  } while (0)
