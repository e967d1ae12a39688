// check.h: the check of the fuzz targets. It holds in release builds too and stops the program where a fuzzer
// sees it.
#ifndef FETCHRIG_FUZZ_CHECK_H
#define FETCHRIG_FUZZ_CHECK_H

#include <stdio.h>
#include <stdlib.h>

namespace fetchrig::fuzz {

inline void check_at(bool holds, const char* what, const char* file, int line) {
  if (holds) return;
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  abort();
}

}  // namespace fetchrig::fuzz

#define FUZZ_CHECK(condition) fetchrig::fuzz::check_at((condition), #condition, __FILE__, __LINE__)

#endif
