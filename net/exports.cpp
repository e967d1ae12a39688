// SPDX-License-Identifier: MIT
// exports.cpp: the exported transport calls.
#include "core/boundary.h"
#include "include/fetchrig_openssl.h"
#include "net/address.h"
#include "net/connect.h"
#include "net/socket.h"
#include "net/tls.h"

using namespace fetchrig;

int dl_select(int sock, int mode, int seconds) {
  return guarded([&] { return wait_ready(sock, mode, seconds); }, [] { return -1; });
}

struct addrinfo* dl_look_up_host(const char* host, int ipv6, int socket_type) {
  const auto look_up = [&] { return look_up_host(host, ipv6, socket_type).release(); };
  return guarded(look_up, []() -> addrinfo* { return nullptr; });
}

int dl_connect(const char* host, int port, int ipv6, int seconds) {
  const auto connect = [&] { return connect_to_host(host, port, ipv6, seconds); };
  return guarded(connect, [] { return int{DL_ERR_CONNECT}; });
}

int dl_do_SSL_connect(int sock, const char* cert_file, const char* ca_dir, int method, int verify_peer,
                      int verify_host, const char* host, SSL** ssl, SSL_CTX** ctx) {
  if (!ssl || !ctx) return DL_ERR_CONNECT;
  const tls_request request = {sock, cert_file, ca_dir, method, verify_peer != 0, verify_host != 0, host};
  tls_connection made;
  if (const int rc = tls_connect(made, request); rc < 0) return rc;
  *ssl = made.ssl.release();
  *ctx = made.ctx.release();
  return 0;
}
