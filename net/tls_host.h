// SPDX-License-Identifier: MIT
// tls_host.h: does a server's certificate name the host that was dialled (RFC 6125, with a common-name
// fall-back)? Knows certificates, not connections. Any thread.
#ifndef FETCHRIG_NET_TLS_HOST_H
#define FETCHRIG_NET_TLS_HOST_H

#include <openssl/x509.h>

namespace fetchrig {

// 0 when the certificate names the host (a name, an IPv4 address, or an IPv6 address with or without
// brackets), else -1. Logs a certificate without a common name.
[[nodiscard]] int ssl_check_host_name(X509* certificate, const char* host);

}  // namespace fetchrig
#endif
