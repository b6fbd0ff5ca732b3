// A property that fails aborts: libFuzzer saves the input as a crash.
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
