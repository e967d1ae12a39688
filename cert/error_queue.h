// error_queue.h: leaving OpenSSL's error queue of the thread empty behind a call. A left-over entry would be
// taken for the reason of a later failure, a TLS read's above all.
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

}  // namespace fetchrig
#endif
