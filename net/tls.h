// SPDX-License-Identifier: MIT
// tls.h: a TLS client session over a connected socket: handshake, then the checks of chain and host name that the
// caller asks for. Reads and writes go through net/tls_stream.h. Needs no state between calls; any thread.
#ifndef FETCHRIG_NET_TLS_H
#define FETCHRIG_NET_TLS_H

#include "core/openssl_owners.h"

namespace fetchrig {

// Texts and the socket are borrowed for the call.
struct tls_request {
  int sock;
  const char* cert_file;  // client certificate and key in PEM; null, empty or missing: none
  const char* ca_dir;     // trusted CAs in a hashed directory
  int method;             // option 3
  bool verify_peer;       // the chain must be good
  bool verify_host;       // and the certificate name the host
  const char* host;       // the name or address that was dialled
  // A session with the same server, whose checks hold for the connection that goes on with it; null: none.
  SSL_SESSION* known = nullptr;
  unsigned wait_limit_s = 0;  // of each wait; 0: as dl_set_tls_wait_limit() says
};

// Released in the order that OpenSSL asks for: the connection before its context.
struct tls_connection {
  unique_ssl_ctx ctx;
  unique_ssl ssl;
};

// Makes the session. Returns 0 with both objects set, or -3, logged, with neither; without memory too.
[[nodiscard]] int tls_connect(tls_connection& connection, const tls_request& request);

}  // namespace fetchrig
#endif
