// SPDX-License-Identifier: MIT
// http_connection.cpp: connecting, sending whole requests, reading bytes and lines.
#include "http/http_connection.h"

#include <errno.h>
#include <string.h>

#include <array>

#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/text.h"
#include "http/extra/known_sessions.h"
#include "log/log.h"
#include "net/connect.h"
#include "net/line_reader.h"
#include "net/socket.h"
#include "net/tls.h"
#include "net/tls_stream.h"

namespace fetchrig {
namespace {

// A request whose body is larger goes out in two pieces, so that the body is not copied.
constexpr std::size_t max_joined_body_bytes = 65536;

// Several records per receive instead of a header, then its record: nobody else waits for this connection's
// bytes. The buffer is made anew, as its size is chosen when it is made.
void read_tls_ahead(SSL* ssl) {
  constexpr std::size_t read_buffer_bytes = 32768;
  SSL_set_read_ahead(ssl, 1);
  SSL_set_default_read_buffer_len(ssl, read_buffer_bytes);
  SSL_free_buffers(ssl);
}

// Calls `work` with the session's stream: TLS when its TLS bit is set, else plain.
template <typename Work>
auto with_stream(http_channel& channel, Work work, read_ahead_use use = read_ahead_use::fill) {
  if (channel.is_tls()) {
    tls_stream tls(channel.ssl());
    return work(static_cast<stream&>(tls));
  }
  tcp_stream tcp(channel.session.sock, channel.own ? &channel.own->ahead : nullptr, use);
  return work(static_cast<stream&>(tcp));
}

int connect_fresh(http_channel& channel, const char* host, uint32_t port, tls_use tls) {
  const int timeout_s = net_timeout_seconds();
  const int sock = connect_to_host(host, static_cast<int>(port), ipv6_enabled(), timeout_s);
  if (sock < 1) return sock;
  channel.session.sock = sock;
  return tls == tls_use::allowed && channel.is_tls() ? http_start_tls(channel, host) : 0;
}

int send_message(http_channel& channel, const http_msg& message) {
  const std::string_view body = message.body.buffer ? *message.body.buffer : std::string_view();
  const std::size_t joined = body.size() <= max_joined_body_bytes ? body.size() : 0;
  std::string head = http_serialise_head(message, joined);
  head.append(body.substr(0, joined));
  const std::span<const char> rest = body.substr(joined);
  const int rc = with_stream(channel, [&](stream& to) {
    int sent = to.write_all(head) == 0 && to.write_all(rest) == 0 ? 0 : DL_ERR_SEND;
    if (sent == 0 && message.body.streamed) sent = send_streamed(*message.body.streamed, to);
    if (sent != DL_ERR_SEND) return sent;
    note_symptom(DL_CAUSE_SEND, errno);
    return log_and_return(DL_LOG_HTTP, DL_ERR_SEND, "write error, errno %d\n", errno);
  });
  wipe(head);
  return rc;
}

int send_guarded(http_channel& channel, const http_msg& message) {
  return guarded([&] { return send_message(channel, message); },
                 [] { return log_and_return(DL_LOG_HTTP, DL_ERR_MEMORY, "Out of memory\n"); });
}

// Whether the server answers on a connection that served before, or may yet: it may have closed it meanwhile.
bool still_answers(http_channel& channel) {
  const int timeout_s = net_timeout_seconds();
  char first = 0;
  const io_result seen = with_stream(channel, [&](stream& from) {
    return from.peek({&first, 1}, timeout_s);
  });
  return seen.count > 0 || seen.wait_failed || seen.error == ETIMEDOUT;
}

// A connection in the middle of a request takes no other.
int sent(const http_channel& channel, int code) {
  if (code < 0) never_keep(channel);
  return code;
}

// The session's origin again, on a connection that nothing was sent on.
int connect_anew(http_channel& channel, const kept_connection& kept) {
  const std::string host = kept.host;
  const uint32_t port = kept.port;
  const uint32_t tls = channel.session.flags & DL_HTTP_FLAG_TLS;
  http_session_reset(channel);
  channel.session.flags |= tls;
  channel.own->kept->is_kept = false;
  clear_cause();
  return connect_fresh(channel, host.c_str(), port, tls_use::allowed);
}

// What a failed read met; nothing is known of one that was not made.
void log_failed_read(const io_result& outcome) {
  if (outcome.wait_failed) {
    note_symptom(DL_CAUSE_WAIT, outcome.error);
    log_line(DL_LOG_HTTP, DL_LOG_ERROR, "Select error! errno %d\n", outcome.error);
  } else if (outcome.count < 0) {
    note_symptom(DL_CAUSE_BROKEN, outcome.error);
    log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "read failed, errno %d\n", outcome.error);
  }
}

int peek_failed(const io_result& outcome) {
  log_failed_read(outcome);
  return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "Peek error!\n");
}

int give(std::string_view text, std::span<char> line) {
  memmove(line.data(), text.data(), text.size());  // it may have been read there
  line[text.size()] = '\0';
  return static_cast<int>(text.size());
}

}  // namespace

int http_start_tls(http_channel& channel, const char* host) {
  // Whoever the connection is kept for is told the options that it was made with.
  const kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  const tls_options options = kept && !kept->origin.empty() ? kept->tls : https_options();
  dl_http_session& session = channel.session;
  const unique_ssl_session known = known_session(channel);
  tls_connection made;
  const int rc = tls_connect(made, {.sock = session.sock,
                                    .cert_file = options.cert_file.data(),
                                    .ca_dir = options.ca_dir.data(),
                                    .method = options.method,
                                    .verify_peer = options.verify_peer != 0,
                                    .verify_host = options.verify_host != 0,
                                    .host = host,
                                    .known = known.get()});
  if (rc < 0) {
    close_socket(session.sock);
    return rc;
  }
  if (known && SSL_session_reused(made.ssl.get()))
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "goes on with a TLS session\n");
  read_tls_ahead(made.ssl.get());
  session.ssl = made.ssl.release();
  session.ssl_ctx = made.ctx.release();
  return 0;
}

int http_connect(http_channel& channel, const char* host, uint32_t port, tls_use tls) {
  if (take_kept(channel, host, port, tls == tls_use::allowed)) return 0;
  return connect_fresh(channel, host, port, tls);
}

int http_send_request(http_channel& channel, const http_msg& message) {
  if (channel.is_tls() && !channel.session.ssl) return DL_ERR_SEND;
  const int rc = send_guarded(channel, message);
  const kept_connection* const kept = kept_before(channel);
  if (!kept || (rc < 0 && rc != DL_ERR_SEND) || (rc == 0 && still_answers(channel))) return sent(channel, rc);
  log_line(DL_LOG_HTTP, DL_LOG_INFO, "the kept connection is dead\n");
  return sent(channel, connect_anew(channel, *kept) == 0 ? send_guarded(channel, message) : DL_ERR_SEND);
}

int http_recv(http_channel& channel, std::span<char> to, read_ahead_use use) {
  if (!to.data()) return -1;
  if (channel.is_tls() && !channel.session.ssl) {
    return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "context ssl is null\n");
  }
  const int timeout_s = net_timeout_seconds();
  const auto read = [&](stream& from) { return from.read(to, timeout_s); };
  const io_result outcome = with_stream(channel, read, use);
  if (channel.own && outcome.count == 0 && !to.empty()) channel.own->response.stream_ended = true;
  log_failed_read(outcome);
  return outcome.wait_failed ? DL_ERR_READ : static_cast<int>(outcome.count);
}

int http_read_line(http_channel& channel, std::size_t initial, std::size_t maximum, std::span<char> line,
                   bool* at_end) {
  if (channel.is_tls() && !channel.session.ssl) return peek_failed({});
  std::array<char, max_line_bytes> bytes;
  const std::span<char> buffer =
      maximum > bytes.size() ? line.first(maximum) : std::span(bytes).first(maximum);
  const int timeout_s = net_timeout_seconds();
  const line_result read = with_stream(channel, [&](stream& from) {
    return read_line(from, buffer, {initial, line.size()}, timeout_s);
  });
  if (at_end) *at_end = read.state == line_state::closed;
  switch (read.state) {
    case line_state::complete:
    case line_state::full:
    case line_state::closed:
      return give(read.text, line);
    case line_state::peek_failed:
      return peek_failed(read.io);
    case line_state::read_failed:
      log_failed_read(read.io);
      return DL_ERR_READ;
    case line_state::too_long:
      break;
  }
  return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "Buffer not enough! buffer len %d\n",
                        static_cast<int>(line.size()));
}

}  // namespace fetchrig
