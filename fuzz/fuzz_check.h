#pragma once

#include <cstdio>
#include <cstdlib>

namespace corvane::fuzz {

// An invariant the input broke: said on stderr, then the abort libFuzzer
// reports as a finding with the input that caused it.
inline void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "invariant broken: %s\n", what);
  std::abort();
}

}  // namespace corvane::fuzz
