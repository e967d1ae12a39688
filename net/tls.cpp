// SPDX-License-Identifier: MIT
// tls.cpp: a TLS client session over a connected socket: protocol method, trusted CAs, client certificate, handshake,
// and then the checks of chain and host name that the caller asks for. Every call makes its own context.
#include "net/tls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <string>

#include "cert/tls_context.h"
#include "core/boundary.h"
#include "core/ca_directory.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/small_file.h"
#include "core/text.h"
#include "log/log.h"
#include "net/tls_bio.h"
#include "net/tls_host.h"

namespace fetchrig {
namespace {

constexpr int max_chain_depth = 10;

int refuse(const char* message) {
  return log_and_return(DL_LOG_CMN, DL_ERR_CONNECT, "%s", message);
}

// The first reason in OpenSSL's queue, at notice level: the fixed messages name the step, this the reason.
void log_reason(const char* step) {
  const unsigned long error = ERR_peek_error();
  const char* reason = error ? ERR_reason_error_string(error) : nullptr;
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "%s: %s\n", step, reason ? reason : "no reason given");
}

int make_context(int method, unique_ssl_ctx& ctx) {
  if (!is_tls_method(method)) return refuse("wrong method\n");
  if (is_removed_method(method)) return refuse("SSL 2.0 and SSL 3.0 are not available\n");
  ctx = new_tls_context(TLS_client_method(), method);
  if (!ctx) return refuse("SSL_CTX_new Error\n");
  // A connection that ends without TLS's farewell has ended: every read behind it says so, like on a plain one.
  SSL_CTX_set_options(ctx.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return 0;
}

// No directories at all fail without a reason.
bool add_trusted_cas(SSL_CTX* ctx, const char* ca_dir) {
  X509_LOOKUP* lookup = ca_dir ? add_ca_lookup(SSL_CTX_get_cert_store(ctx)) : nullptr;
  return lookup && add_ca_directories(lookup, ca_dir);
}

int load_trusted_cas(SSL_CTX* ctx, const char* ca_dir) {
  ERR_clear_error();
  if (add_trusted_cas(ctx, ca_dir)) return 0;
  const unsigned long error = ERR_get_error();
  const char* reason = ERR_reason_error_string(error);
  note_cause(DL_CAUSE_TRUSTED_CAS, static_cast<int>(error), or_empty(reason));
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "loading CA certificate: %s\n", reason ? reason : "");
  return DL_ERR_CONNECT;
}

// Whether OpenSSL's last call failed for the security level, and for nothing else.
bool too_weak_for_level() {
  const unsigned long error = ERR_peek_last_error();
  if (ERR_GET_LIB(error) != ERR_LIB_SSL) return false;
  const int reason = ERR_GET_REASON(error);
  return reason == SSL_R_CA_MD_TOO_WEAK || reason == SSL_R_EE_KEY_TOO_SMALL ||
         reason == SSL_R_CA_KEY_TOO_SMALL;
}

// A certificate with an old signature or a short key does not load at the usual security level; the level of
// this one context is lowered for it.
bool load_certificate(SSL_CTX* ctx, const small_file& file) {
  ERR_clear_error();
  if (use_certificate(ctx, file)) return true;
  if (SSL_CTX_get_security_level(ctx) == 0 || !too_weak_for_level()) return false;
  const int level = SSL_CTX_get_security_level(ctx);
  SSL_CTX_set_security_level(ctx, 0);
  if (!use_certificate(ctx, file)) {
    SSL_CTX_set_security_level(ctx, level);
    return false;
  }
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "client certificate needs security level 0, lowered from %d\n", level);
  return true;
}

int load_client_certificate(SSL_CTX* ctx, const char* path) {
  if (::access(path, F_OK) != 0) {
    log_line(DL_LOG_CMN, DL_LOG_INFO, "Https ca serverfile file no exist\n");
    return 0;
  }
  const small_file file(path);
  if (file.error() != 0) {
    log_line(DL_LOG_CMN, DL_LOG_NOTICE, "client certificate: errno %d\n", file.error());
    note_cause(DL_CAUSE_CLIENT_CERT);
    return refuse("load publick key error\n");
  }
  if (!load_certificate(ctx, file)) {
    log_reason("client certificate");
    note_cause(DL_CAUSE_CLIENT_CERT);
    return refuse("load publick key error\n");
  }
  const unique_pkey key = read_key(file);
  if (!key) {
    log_reason("client key");
    note_cause(DL_CAUSE_CLIENT_KEY);
    return refuse("Can't load private key from CA_serverfile\n");
  }
  const X509* certificate = SSL_CTX_get0_certificate(ctx);
  const bool usable =
      X509_check_private_key(certificate, key.get()) == 1 && SSL_CTX_use_PrivateKey(ctx, key.get()) == 1;
  if (!usable) log_line(DL_LOG_CMN, DL_LOG_ERROR, "Private key not match\n");
  return 0;
}

int seed_random() {
  constexpr long seed_bytes = 1024;
  return RAND_load_file("/dev/urandom", seed_bytes) > 0 ? 0 : refuse("Couldn't load randomness\n");
}

bool is_address(const std::string& host) {
  in_addr address = {};
  return ::inet_aton(host.c_str(), &address) != 0 || host.find(':') != std::string::npos;
}

// Servers with several names need to be told which one is meant; an address is never sent (RFC 6066 section 3).
void name_server(SSL* ssl, const char* host) {
  const std::string name(or_empty(host));
  if (!name.empty() && !is_address(name)) SSL_set_tlsext_host_name(ssl, name.c_str());
}

// OpenSSL's check, which says so when it could not run: its own result stays at "verified" then.
int verify_chain(X509_STORE_CTX* chain, void*) {
  const int verdict = X509_verify_cert(chain);
  if (verdict <= 0 && X509_STORE_CTX_get_error(chain) == X509_V_OK) {
    X509_STORE_CTX_set_error(chain, X509_V_ERR_UNSPECIFIED);
  }
  return verdict;
}

// The verdict on the chain of a session that is gone on with.
long offer_session(SSL* ssl, SSL_SESSION* known) {
  return known && SSL_set_session(ssl, known) == 1 ? SSL_get_verify_result(ssl) : X509_V_ERR_UNSPECIFIED;
}

// The error of the system that ended the handshake; 0 where OpenSSL saw a reason of its own, as the end of the stream,
// and errno tells of another call.
int system_error(const SSL* ssl, int rc, int error) {
  switch (SSL_get_error(ssl, rc)) {
    case SSL_ERROR_SYSCALL:
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return error;
    default:
      return 0;
  }
}

int hand_shake(const tls_request& request, SSL_CTX* ctx, unique_ssl& ssl) {
  ssl.reset(SSL_new(ctx));
  const unsigned limit_s = request.wait_limit_s != 0 ? request.wait_limit_s : tls_wait_limit_seconds();
  BIO* bio = ssl ? new_tls_bio(request.sock, limit_s) : nullptr;
  if (!bio) return refuse("Create ssl error\n");
  SSL_set_bio(ssl.get(), bio, bio);
  const long known_verdict = offer_session(ssl.get(), request.known);
  // OpenSSL starts with "verified" and stays there when it cannot even begin the check; here only a check
  // that ran may say so.
  SSL_set_verify_result(ssl.get(), X509_V_ERR_UNSPECIFIED);
  name_server(ssl.get(), request.host);
  start_tls_operation(ssl.get());
  ERR_clear_error();
  const int rc = SSL_connect(ssl.get());
  if (rc > 0) {
    end_tls_operation(ssl.get());
    if (SSL_session_reused(ssl.get())) SSL_set_verify_result(ssl.get(), known_verdict);
    ERR_clear_error();  // of CA files that were passed over: a read would take it for its own
    return 0;
  }
  const int error = system_error(ssl.get(), rc, errno);
  note_tls_error(ERR_peek_error());
  note_symptom(DL_CAUSE_HANDSHAKE_ENDED, error);
  log_reason("TLS handshake");
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "TLS handshake errno %d\n", error);
  return refuse("SSL Connect error\n");
}

int distrust(const char* reason) {
  if (reason) log_line(DL_LOG_CMN, DL_LOG_ERROR, "%s", reason);
  return refuse("trust check error\n");
}

int check_server(SSL* ssl, const char* host, bool check_host) {
  const unique_x509 certificate(SSL_get1_peer_certificate(ssl));
  if (!certificate) return distrust("get peer error\n");
  const long verdict = SSL_get_verify_result(ssl);
  if (verdict != X509_V_OK) {
    note_cause(DL_CAUSE_CHAIN, static_cast<int>(verdict));
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Certificate doesn't verify and error is %ld\n", verdict);
    return distrust(nullptr);
  }
  if (!check_host || ssl_check_host_name(certificate.get(), host) == 0) return 0;
  note_cause(DL_CAUSE_SERVER_NAME);
  return distrust("Common name and subject alt name doesn't match host name\n");
}

int set_up(const char* cert_file, const char* ca_dir, int method, unique_ssl_ctx& ctx) {
  if (const int rc = make_context(method, ctx); rc < 0) return rc;
  if (const int rc = load_trusted_cas(ctx.get(), ca_dir); rc < 0) return rc;
  set_pass_phrase(ctx.get());
  if (const int rc = load_client_certificate(ctx.get(), cert_file ? cert_file : ""); rc < 0) return rc;
  SSL_CTX_set_verify_depth(ctx.get(), max_chain_depth);
  SSL_CTX_set_cert_verify_callback(ctx.get(), verify_chain, nullptr);
  return seed_random();
}

}  // namespace

int tls_connect(tls_connection& connection, const tls_request& request) {
  const auto work = [&]() -> int {
    tls_connection made;
    int rc = set_up(request.cert_file, request.ca_dir, request.method, made.ctx);
    if (rc < 0) return rc;
    if (rc = hand_shake(request, made.ctx.get(), made.ssl); rc < 0) return rc;
    if (request.verify_peer) rc = check_server(made.ssl.get(), request.host, request.verify_host);
    if (rc < 0) return rc;
    connection = std::move(made);
    return 0;
  };
  return guarded(work, [] { return int{DL_ERR_CONNECT}; });
}

}  // namespace fetchrig
