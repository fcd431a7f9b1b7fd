#pragma once
// How a fuzz target says that a property does not hold: it ends with the condition on the screen,
// in every build type.

#include <cstdio>
#include <cstdlib>

#define ZR_FUZZ_CHECK(condition)                                                          \
  do {                                                                                    \
    if (!(condition)) {                                                                   \
      std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                       \
    }                                                                                     \
  } while (false)
