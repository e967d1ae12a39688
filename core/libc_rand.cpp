// SPDX-License-Identifier: MIT
// libc_rand.cpp: glibc's generator on a state of one's own.
#include "core/libc_rand.h"

#include <stdint.h>

namespace fetchrig {

libc_rand::libc_rand(unsigned seed) {
  initstate_r(seed, memory_, sizeof memory_, &state_);
}

int libc_rand::next() {
  int32_t drawn = 0;
  random_r(&state_, &drawn);
  return drawn;
}

}  // namespace fetchrig
