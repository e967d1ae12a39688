// SPDX-License-Identifier: MIT
// kept_connections.cpp: the connections that wait.
#include "http/extra/kept_connections.h"

#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <string>

#include "core/boundary.h"
#include "core/config.h"
#include "core/openssl_owners.h"
#include "core/owners.h"
#include "core/process_lock.h"
#include "core/text.h"
#include "http/extra/known_sessions.h"
#include "http/http_headers.h"
#include "http/http_response_body.h"
#include "http/http_session.h"
#include "http/http_status.h"
#include "log/clock.h"
#include "log/log.h"
#include "net/socket.h"
#include "net/tls_bio.h"

namespace fetchrig {
namespace {

constexpr std::size_t max_waiting = 64;
constexpr int64_t max_idle_ms = 30000;
// Reading so much of a body that nobody wants costs less than a new connection.
constexpr uint32_t max_drained_bytes = 16384;

// A connection that waits. TLS ends with a farewell, unless it is the parent's of a fork, who goes on with it.
struct waiting_connection {
  ~waiting_connection() {
    if (!ssl || process != ::getpid()) return;
    start_tls_operation(ssl.get());
    ERR_clear_error();
    SSL_shutdown(ssl.get());
    ERR_clear_error();
  }

  std::string origin;
  unique_fd sock;
  unique_ssl_ctx ctx;
  unique_ssl ssl;  // goes before its context and its socket
  int64_t since_ms = 0;
  pid_t process = 0;
};
using unique_waiting = std::unique_ptr<waiting_connection>;

// Null where none waits; in the order in which they came. Under process_lock. Nothing of it is freed when the
// library is unloaded or the process ends: OpenSSL may have gone before.
std::array<waiting_connection*, max_waiting> waiting;

void remove_at(std::size_t place) {
  std::move(waiting.begin() + static_cast<std::ptrdiff_t>(place) + 1, waiting.end(),
            waiting.begin() + static_cast<std::ptrdiff_t>(place));
  waiting.back() = nullptr;
}

// Takes the youngest one of that origin out, or any that has waited too long: null when there is none.
template <typename Wanted>
unique_waiting take_youngest(Wanted wanted) {
  const process_lock lock;
  for (std::size_t place = waiting.size(); place-- > 0;) {
    if (!waiting[place] || !wanted(*waiting[place])) continue;
    unique_waiting taken(waiting[place]);
    remove_at(place);
    return taken;
  }
  return nullptr;
}

// Takes the eldest out when as many wait already: null when there is room.
unique_waiting take_eldest_of(std::size_t most) {
  const process_lock lock;
  if (!waiting[most - 1]) return nullptr;
  unique_waiting eldest(waiting.front());
  remove_at(0);
  return eldest;
}

// Puts it behind all others, where there is room.
void add_youngest(unique_waiting connection) {
  const process_lock lock;
  auto* const end = std::find(waiting.begin(), waiting.end(), nullptr);
  if (end != waiting.end()) *end = connection.release();
}

void close_all() {
  forget_sessions();
  while (take_youngest([](const waiting_connection&) { return true; })) {
  }
}

bool is_stale(const waiting_connection& connection) {
  return now_ms() - connection.since_ms > max_idle_ms || connection.process != ::getpid();
}

// The server has closed it, or sent what nobody asked for.
bool is_dead(const waiting_connection& connection) {
  return wait_ready(connection.sock.get(), wait_readable, 0) != 0;
}

// When the file was last changed: false when that cannot be told.
bool add_time(std::string& origin, const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) return false;
  origin.append("\n").append(path).append(" ").append(std::to_string(status.st_mtim.tv_sec));
  origin.append(".").append(std::to_string(status.st_mtim.tv_nsec));
  return true;
}

bool add_tls(std::string& origin, const tls_options& tls) {
  const std::string certificate = tls.cert_file.data();
  origin.append("\ntls");
  for (const int64_t number : {int64_t{tls.method}, int64_t{tls.verify_peer}, int64_t{tls.verify_host},
                               int64_t{tls_wait_limit_seconds()}}) {
    origin.append(" ").append(std::to_string(number));
  }
  if (!certificate.empty() && !add_time(origin, certificate)) origin.append("\nno ").append(certificate);
  std::string_view directories = tls.ca_dir.data();
  while (!directories.empty()) {
    const auto colon = directories.find(':');
    if (!add_time(origin, std::string(directories.substr(0, colon)))) return false;
    directories.remove_prefix(
        std::min(directories.size(), colon == std::string_view::npos ? colon : colon + 1));
  }
  return true;
}

// Everything that decides who is at the other end, and how it was made sure of; empty when that cannot be told.
std::string origin_of(const http_channel& channel, const kept_connection& kept) {
  std::string origin = std::to_string(kept.port);
  origin.append(ipv6_enabled() ? "6 " : " ").append(kept.host);
  if (channel.is_tls() && !add_tls(origin, kept.tls)) return "";
  return origin;
}

void give_to(http_channel& channel, unique_waiting connection) {
  // As a new connection has it, until a session of whole bodies says otherwise.
  if (connection->ssl) SSL_set_options(connection->ssl.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  channel.session.sock = connection->sock.release();
  channel.session.ssl = connection->ssl.release();
  channel.session.ssl_ctx = connection->ctx.release();
}

bool contains_token(const char* line, std::string_view token) {
  for (std::string_view rest(line); rest.size() >= token.size(); rest.remove_prefix(1)) {
    if (equal_ignoring_case(rest.substr(0, token.size()), token)) return true;
  }
  return false;
}

// Reads what is left of the body, if it is there already: the next request waits for nobody.
bool has_drained(http_channel& channel) {
  const whole_body& body = *channel.own->whole;
  std::array<char, 4096> scratch;
  dl_result ignored = {};
  while (body.framed == whole_body::framing::length && body.left > 0 && body.left <= max_drained_bytes) {
    const bool is_there = channel.ssl() ? static_cast<uint64_t>(SSL_pending(channel.ssl())) >= body.left
                                        : !channel.own->ahead.held().empty() ||
                                              wait_ready(channel.session.sock, wait_readable, 0) > 0;
    if (!is_there || http_read_some(channel, scratch, ignored) <= 0) return false;
  }
  return body.ended && !body.failed && body.framed != whole_body::framing::until_close;
}

// Whether nothing of the last response is left on the way, and nothing else has come.
bool is_at_rest(http_channel& channel) {
  const http_private& own = *channel.own;
  if (!own.whole || own.response.status < 200 || own.response.header_cut || !has_drained(channel))
    return false;
  return own.ahead.held().empty() && (!channel.ssl() || SSL_has_pending(channel.ssl()) == 0);
}

unique_waiting taken_out(http_channel& channel) {
  unique_waiting connection(new (std::nothrow) waiting_connection);
  if (!connection) return nullptr;
  connection->origin = std::move(channel.own->kept->origin);
  connection->sock.reset(std::exchange(channel.session.sock, 0));
  connection->ssl.reset(static_cast<SSL*>(std::exchange(channel.session.ssl, nullptr)));
  connection->ctx.reset(static_cast<SSL_CTX*>(std::exchange(channel.session.ssl_ctx, nullptr)));
  connection->since_ms = now_ms();
  connection->process = channel.own->kept->process;
  return connection;
}

}  // namespace

int ask_for_kept(const http_channel& channel, const transfer_extras& extras, int32_t method) {
  if (extras.kept_connections == 0) return 0;
  channel.own->kept.reset(new (std::nothrow) kept_connection);
  if (!channel.own->kept) return DL_ERR_MEMORY;
  channel.own->kept->most = extras.kept_connections;
  channel.own->kept->takes_kept = method != DL_METHOD_POST;
  at_library_end(close_all);
  return 0;
}

bool take_kept(http_channel& channel, const char* host, uint32_t port, bool may_be_kept) {
  kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  if (!kept) return false;
  kept->is_kept = kept->persists = false;
  kept->host = host;
  kept->port = port;
  kept->process = ::getpid();
  kept->checked_ms = now_ms();
  kept->tls = https_options();
  kept->origin = may_be_kept ? origin_of(channel, *kept) : "";
  if (!kept->takes_kept || kept->origin.empty()) return false;
  for (;;) {
    unique_waiting found =
        take_youngest([&](const auto& one) { return is_stale(one) || one.origin == kept->origin; });
    if (!found) return false;
    if (is_stale(*found) || is_dead(*found)) continue;
    log_line(DL_LOG_HTTP, DL_LOG_INFO, "on a kept connection\n");
    give_to(channel, std::move(found));
    return kept->is_kept = true;
  }
}

const kept_connection* kept_before(const http_channel& channel) {
  const kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  return kept && kept->is_kept ? kept : nullptr;
}

void note_persistence(http_channel& channel, std::string_view status_line) {
  kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  if (!kept) return;
  const char* const line = http_find_header(channel.session.headers, "connection");
  const bool is_old = status_line.starts_with("HTTP/1.0");
  kept->persists =
      is_old ? line && contains_token(line, "keep-alive") : !line || !contains_token(line, "close");
}

void never_keep(const http_channel& channel) {
  if (channel.own && channel.own->kept) channel.own->kept->origin.clear();
}

void keep_connection(http_channel& channel) {
  kept_connection* const kept = channel.own ? channel.own->kept.get() : nullptr;
  if (!kept || kept->origin.empty() || channel.session.sock <= 0 || kept->process != ::getpid()) return;
  remember_session(channel);
  const bool wanted = kept->persists && current_extras().kept_connections > 0;
  kept->persists = false;
  if (!wanted || !is_at_rest(channel)) return;
  if (unique_waiting connection = taken_out(channel)) {
    while (take_eldest_of(kept->most)) {
    }
    add_youngest(std::move(connection));
  }
}

}  // namespace fetchrig
