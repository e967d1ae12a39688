// error_queue.h: reading OpenSSL's error queue of the thread and leaving it empty behind a call. A left-over
// entry would be taken for the reason of a later failure, a TLS read's above all.
#ifndef FETCHRIG_CERT_ERROR_QUEUE_H
#define FETCHRIG_CERT_ERROR_QUEUE_H

#include <openssl/bio.h>
#include <openssl/err.h>
#include <stdio.h>

#include <cstddef>

namespace fetchrig {

struct clean_error_queue {
  clean_error_queue() = default;
  ~clean_error_queue() { ERR_clear_error(); }
  clean_error_queue(const clean_error_queue&) = delete;
  clean_error_queue& operator=(const clean_error_queue&) = delete;
};

// Whether reading PEM failed for lack of memory rather than for the bytes it met. OpenSSL's queue, empty
// before the read, is empty again afterwards. For some allocations that fail OpenSSL leaves no reason at all,
// while bytes it refuses always leave one; other reasons it drops, so a small allocation is tried as well.
inline bool ran_out_of_memory() {
  bool found = ERR_peek_error() == 0;
  BIO_free(BIO_new(BIO_s_mem()));  // leaves a reason when it fails
  while (const unsigned long error = ERR_get_error()) {
    if (ERR_GET_REASON(error) == ERR_R_MALLOC_FAILURE) found = true;
  }
  return found;
}

// Writes the queue to standard error, as ERR_print_errors() does, and empties it. That function goes on for
// as long as printing adds new reasons, which without memory is for ever.
inline void print_error_queue() {
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
#endif
