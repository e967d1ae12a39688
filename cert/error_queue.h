// SPDX-License-Identifier: MIT
// error_queue.h: reading OpenSSL's error queue of the thread and leaving it empty behind a call. A left-over entry
// would be taken for the reason of a later failure, a TLS read's above all.
#ifndef FETCHRIG_CERT_ERROR_QUEUE_H
#define FETCHRIG_CERT_ERROR_QUEUE_H

#include <openssl/err.h>

namespace fetchrig {

struct clean_error_queue {
  clean_error_queue() = default;
  ~clean_error_queue() { ERR_clear_error(); }
  clean_error_queue(const clean_error_queue&) = delete;
  clean_error_queue& operator=(const clean_error_queue&) = delete;
};

// Whether reading PEM failed for lack of memory rather than for the bytes it met. Empties OpenSSL's queue, which was
// empty before the read.
[[nodiscard]] bool ran_out_of_memory();

// Writes the queue to standard error, as ERR_print_errors() does, and empties it.
void print_error_queue();

}  // namespace fetchrig
#endif
