// tls_bio.h: the socket BIO under every TLS connection. Unlike OpenSSL's own it never raises SIGPIPE, and it
// keeps the limit of dl_set_tls_wait_limit(): a deadline that each TLS operation sets anew, so that a peer
// that trickles bytes cannot stretch it. It does not close the descriptor. One thread at a time per
// connection.
#ifndef FETCHRIG_NET_TLS_BIO_H
#define FETCHRIG_NET_TLS_BIO_H

#include <openssl/bio.h>
#include <openssl/ssl.h>

namespace fetchrig {

// A BIO over `sock` with `limit_s` seconds per operation (0: none); null without memory.
[[nodiscard]] BIO* new_tls_bio(int sock, unsigned limit_s);

// Starts the limit of the next TLS operation on `ssl`. Does nothing for a connection over another kind of
// BIO.
void start_tls_operation(SSL* ssl);
// Ends it: until the next start each single wait has the whole limit, for a caller who uses OpenSSL directly.
void end_tls_operation(SSL* ssl);

}  // namespace fetchrig
#endif
