// SPDX-License-Identifier: MIT
// tls_stream.h: the stream over a TLS connection. One thread at a time per stream.
#ifndef FETCHRIG_NET_TLS_STREAM_H
#define FETCHRIG_NET_TLS_STREAM_H

#include <openssl/ssl.h>

#include "net/stream.h"

namespace fetchrig {

// A TLS connection, borrowed. OpenSSL's own buffering serves as the read-ahead, and the limit of its waits is the
// connection's own (net/tls_bio.h). Why OpenSSL gave up is logged at notice level.
class tls_stream final : public stream {
 public:
  explicit tls_stream(SSL* ssl) : ssl_(ssl) {}
  io_result read(std::span<char> to, int timeout_s) override;
  io_result peek(std::span<char> to, int timeout_s) override;
  int write_all(std::span<const char> from) override;

 private:
  SSL* ssl_;
};

}  // namespace fetchrig
#endif
