// tls_server.h: connections that are plain or TLS, as the benchmarks' servers and bare clients use them.
#ifndef FETCHRIG_BENCH_TLS_SERVER_H
#define FETCHRIG_BENCH_TLS_SERVER_H

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

#include "bench/bench_support.h"

namespace bench {

struct connection {
  int sock;
  SSL* ssl;  // null: plain
  ssize_t read(char* to, std::size_t size) const {
    return ssl ? SSL_read(ssl, to, static_cast<int>(size)) : recv(sock, to, size, 0);
  }
  ssize_t write(const char* from, std::size_t size) const {
    return ssl ? SSL_write(ssl, from, static_cast<int>(size)) : send(sock, from, size, MSG_NOSIGNAL);
  }
  void close() const {
    SSL_free(ssl);
    ::close(sock);
  }
};

// A server's context with a new self-signed certificate.
inline SSL_CTX* new_server_context() {
  SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* certificate = X509_new();
  if (!ctx || !key || !certificate) die("certificate");
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
  X509_set_pubkey(certificate, key);
  X509_sign(certificate, key, EVP_sha256());
  SSL_CTX_use_certificate(ctx, certificate);
  SSL_CTX_use_PrivateKey(ctx, key);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return ctx;
}

// The next connection, hand-shaken with a context.
inline connection accept_from(int listening, SSL_CTX* ctx) {
  connection peer = {accept(listening, nullptr, nullptr), ctx ? SSL_new(ctx) : nullptr};
  if (peer.sock < 0) die("accept");
  if (!ctx) return peer;
  SSL_set_fd(peer.ssl, peer.sock);
  if (SSL_accept(peer.ssl) != 1) fprintf(stderr, "no TLS handshake\n");
  return peer;
}

}  // namespace bench
#endif
