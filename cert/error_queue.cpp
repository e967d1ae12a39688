// SPDX-License-Identifier: MIT
// error_queue.cpp: takes OpenSSL's reasons out of its queue.
#include "cert/error_queue.h"

#include <openssl/bio.h>
#include <stdio.h>

#include <cstddef>

namespace fetchrig {

// For some allocations that fail OpenSSL leaves no reason at all, while bytes it refuses always leave one; other
// reasons it drops, so a small allocation is tried as well.
bool ran_out_of_memory() {
  bool found = ERR_peek_error() == 0;
  BIO_free(BIO_new(BIO_s_mem()));  // leaves a reason when it fails
  while (const unsigned long error = ERR_get_error()) {
    if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) found = true;
  }
  return found;
}

// ERR_print_errors() goes on for as long as printing adds new reasons, which without memory is for ever.
void print_error_queue() {
  constexpr int max_lines = 16;  // what OpenSSL keeps for a thread
  int lines = 0;
  const auto print = [](const char* line, std::size_t length, void* printed) {
    fwrite(line, 1, length, stderr);
    return ++*static_cast<int*>(printed) < max_lines ? 1 : 0;
  };
  ERR_print_errors_cb(print, &lines);
  ERR_clear_error();
}

}  // namespace fetchrig
