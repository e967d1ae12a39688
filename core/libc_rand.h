// SPDX-License-Identifier: MIT
// libc_rand.h: the values that libc's rand() would give after srand(), from a state of one's own: the program's rand()
// goes on as it was, and no other thread can disturb them. One thread at a time per object.
#ifndef FETCHRIG_CORE_LIBC_RAND_H
#define FETCHRIG_CORE_LIBC_RAND_H

#include <stdlib.h>

namespace fetchrig {

class libc_rand {
 public:
  explicit libc_rand(unsigned seed);
  libc_rand(const libc_rand&) = delete;
  libc_rand& operator=(const libc_rand&) = delete;

  [[nodiscard]] int next();

 private:
  char memory_[128] = {};  // the size of the state behind rand()
  random_data state_ = {};
};

}  // namespace fetchrig
#endif
