#pragma once

#include <cstdio>
#include <cstdlib>

// Ends a fuzzer that has found a rule broken; libFuzzer keeps the input.
inline void require(bool holds, const char* rule) {
  if (!holds) {
    std::fprintf(stderr, "broken: %s\n", rule);
    std::abort();
  }
}
