// SPDX-License-Identifier: MIT
// tls_stream.cpp: reading, peeking and writing on TLS connections.
#include "net/tls_stream.h"

#include <errno.h>
#include <limits.h>
#include <openssl/err.h>

#include <algorithm>

#include "core/cause.h"
#include "log/log.h"
#include "net/tls_bio.h"

namespace fetchrig {
namespace {

int bounded(std::size_t size) {
  return static_cast<int>(std::min<std::size_t>(size, INT_MAX));
}

bool interrupted(SSL* ssl, int count) {
  return count == -1 && SSL_get_error(ssl, count) == SSL_ERROR_SYSCALL && errno == EINTR;
}

// Runs one OpenSSL call, again while a signal interrupts it. The error queue is emptied first, because
// SSL_get_error() looks at it.
template <typename Call>
int run(SSL* ssl, Call call) {
  start_tls_operation(ssl);
  for (;;) {
    ERR_clear_error();
    const int count = call();
    if (!interrupted(ssl, count)) return count;
  }
}

// Why OpenSSL gave up, such as an alert of the peer; callers learn only that the connection failed. Leaves errno alone.
void log_tls_reason(const char* operation) {
  const int error = errno;
  note_tls_error(ERR_peek_error());
  const char* reason = ERR_reason_error_string(ERR_peek_error());
  if (reason) log_line(DL_LOG_CMN, DL_LOG_NOTICE, "%s: %s\n", operation, reason);
  errno = error;
}

// A peer that refuses sends an alert and closes. A write may fail for the closed connection alone, with the alert still
// unread; it is there then, so nothing is waited for. Leaves errno alone.
void log_refusal(SSL* ssl) {
  const int error = errno;
  if (ERR_peek_error() == 0 && (error == EPIPE || error == ECONNRESET)) {
    char unused = 0;
    SSL_peek(ssl, &unused, 1);
  }
  errno = error;
  log_tls_reason("TLS write");
}

// An alert that ends the session reads like the end of the stream, with a reason.
io_result as_result(int count) {
  if (count <= 0) log_tls_reason("TLS read");
  return {count, false, count < 0 ? errno : 0};
}

}  // namespace

io_result tls_stream::read(std::span<char> to, int) {
  return as_result(run(ssl_, [&] { return SSL_read(ssl_, to.data(), bounded(to.size())); }));
}

io_result tls_stream::peek(std::span<char> to, int) {
  if (to.empty()) return {};
  return as_result(run(ssl_, [&] { return SSL_peek(ssl_, to.data(), bounded(to.size())); }));
}

// A record at a time, as OpenSSL sends it anyway, so that each is an operation with a time of its own.
int tls_stream::write_all(std::span<const char> from) {
  while (!from.empty()) {
    const auto record = from.first(std::min<std::size_t>(from.size(), SSL3_RT_MAX_PLAIN_LENGTH));
    const int sent = run(ssl_, [&] { return SSL_write(ssl_, record.data(), bounded(record.size())); });
    if (sent <= 0) {
      log_refusal(ssl_);
      return -1;
    }
    from = from.subspan(static_cast<std::size_t>(sent));
  }
  return 0;
}

}  // namespace fetchrig
