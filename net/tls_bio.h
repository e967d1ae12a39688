// SPDX-License-Identifier: MIT
// tls_bio.h: the socket BIO under every TLS connection. It behaves like OpenSSL's own (descriptor, retry
// flags on a non-blocking socket) but never raises SIGPIPE, does not close the descriptor unless told to, and
// keeps the limit of dl_set_tls_wait_limit(): on a blocking socket a wait during which no byte moves ends
// with it. An operation that was started here ends after ten limits in any case, so that a peer that trickles
// bytes cannot hold it for ever. One thread at a time per connection.
#ifndef FETCHRIG_NET_TLS_BIO_H
#define FETCHRIG_NET_TLS_BIO_H

#include <openssl/bio.h>
#include <openssl/ssl.h>

namespace fetchrig {

// A BIO over `sock` with `limit_s` seconds for each wait (0: no limit); null without memory.
[[nodiscard]] BIO* new_tls_bio(int sock, unsigned limit_s);

// Starts the time of the next TLS operation on `ssl`. Does nothing for a connection over another kind of BIO.
void start_tls_operation(SSL* ssl);
// Ends it: until the next start only single waits are limited, for a caller who uses OpenSSL directly.
void end_tls_operation(SSL* ssl);

}  // namespace fetchrig
#endif
