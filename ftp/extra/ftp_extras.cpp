// SPDX-License-Identifier: MIT
// ftp_extras.cpp: what holds for one session, kept beside its record.
#include "ftp/extra/ftp_extras.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "core/cause.h"
#include "core/config.h"
#include "core/extra/beside.h"
#include "core/result.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_session.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/socket.h"
#include "net/tls.h"
#include "net/tls_stream.h"

namespace fetchrig {
namespace {

constexpr const char* anonymous_password = "anonymous@";
constexpr int max_late_records = 64;  // of a server that has nothing to say on an upload's connection
constexpr std::size_t piece_bytes = 65536;

// A connection under TLS, as a stream.
struct secured_connection {
  tls_connection tls;
  std::optional<tls_stream> stream;

  [[nodiscard]] int secure(const dl_ftp_session& session, int sock, SSL_SESSION* known) {
    const tls_options options = https_options();
    const unsigned limit_s = tls_wait_limit_seconds();
    const tls_request request = {
        .sock = sock,
        .cert_file = options.cert_file.data(),
        .ca_dir = options.ca_dir.data(),
        .method = options.method,
        .verify_peer = options.verify_peer != 0,
        .verify_host = options.verify_host != 0,
        .host = session.host,
        .known = known,
        .wait_limit_s = limit_s != 0 ? limit_s : static_cast<unsigned>(net_timeout_seconds())};
    if (const int rc = tls_connect(tls, request); rc < 0) return rc;
    stream.emplace(tls.ssl.get());
    return 0;
  }
};

class session_extras : public beside<session_extras> {
 public:
  explicit session_extras(const transfer_extras& extras) : on(extras) {}
  const transfer_extras on;
  secured_connection control, data;
  uint64_t beyond = 0;  // bytes of a download that `remaining` does not count yet
  bool ended = false;   // the data connection, as it must
};

session_extras* extras_of(const dl_ftp_session& session) {
  return session_extras::of(&session);
}

int refuse(const char* word, int code, const ftp_reply& reply) {
  note_cause(DL_CAUSE_TLS, code, reply.line());
  return log_and_return(DL_LOG_FTP, DL_ERR_CONNECT, "%s refused: %s\n", word,
                        printable(reply.line()).c_str());
}

// One step towards TLS. Returns 0, or a negative code: -3 for another answer than `wanted`.
int agree(const dl_ftp_session& session, ftp_reply& reply, const char* word, const char* argument,
          int wanted) {
  const int rc = ftp_command(session, word, argument, reply);
  if (rc < 0) return rc;
  return rc == wanted ? 0 : refuse(word, rc, reply);
}

// After the farewell to the server, what it may still have to say is read: closing with that unread would be a reset,
// by which it may lose the end of the file.
void await_end(SSL* ssl, int sock, stream& from) {
  ::shutdown(sock, SHUT_WR);
  char unused[256];
  for (int i = 0; i < max_late_records && !(SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN); ++i) {
    if (from.read(unused, 0).count <= 0) return;
  }
}

// What comes behind the last byte is the server's farewell, or more of a file that has grown since its size was told.
bool ends_whole(SSL* ssl, stream& from) {
  char more = 0;
  return from.read({&more, 1}, 0).count > 0 || SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN;
}

// As the bytes go through OpenSSL: read and sent.
send_result send_pieces(stream& to, int file, int64_t max_bytes) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(piece_bytes);
  send_result sent = {send_end::whole};
  for (;;) {
    const ssize_t count = ::read(file, buffer.get(), piece_bytes);
    if (count == 0) return sent;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {send_end::read_failed, errno, sent.total};
    if (count > max_bytes - sent.total) return {send_end::too_large, 0, sent.total};
    if (to.write_all({buffer.get(), static_cast<std::size_t>(count)}) < 0)
      return {send_end::send_failed, errno, sent.total};
    sent.total += count;
  }
}

}  // namespace

void ftp_extras_begin(const dl_ftp_session& session, const transfer_extras& extras) {
  if (!extras.ftp_fallbacks && !extras.ftp_tls && !extras.whole_bodies && !extras.resume) return;
  session_extras::keep(&session, std::make_unique<session_extras>(extras));
}

void ftp_extras_end(const dl_ftp_session& session) {
  session_extras::take(&session);
}

int ftp_extras_secure(const dl_ftp_session& session, ftp_reply& reply) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->on.ftp_tls) return 0;
  if (const int rc = agree(session, reply, "AUTH", "TLS", ftp_auth_accepted); rc < 0) return rc;
  if (const int rc = extras->control.secure(session, session.ctrl_sock, nullptr); rc < 0) return rc;
  if (const int rc = agree(session, reply, "PBSZ", "0", ftp_command_okay); rc < 0) return rc;
  return agree(session, reply, "PROT", "P", ftp_command_okay);
}

// The control connection's TLS session is gone on with: servers take that as the proof that it is the same client.
// Tickets of TLS 1.3 arrive with the replies, so that the latest one is asked for late.
int ftp_extras_secure_data(const dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->on.ftp_tls) return 0;
  const unique_ssl_session known(SSL_get1_session(extras->control.tls.ssl.get()));
  if (const int rc = extras->data.secure(session, session.data_sock, known.get()); rc < 0) return rc;
  SSL* const ssl = extras->data.tls.ssl.get();
  if (extras->on.whole_bodies) SSL_clear_options(ssl, SSL_OP_IGNORE_UNEXPECTED_EOF);
  log_line(DL_LOG_FTP, DL_LOG_INFO, "data connection %s\n",
           SSL_session_reused(ssl) ? "goes on with the TLS session" : "has a TLS session of its own");
  return 0;
}

stream* ftp_extras_control(const dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  return extras && extras->control.stream ? &*extras->control.stream : nullptr;
}

stream* ftp_extras_data(const dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  return extras && extras->data.stream ? &*extras->data.stream : nullptr;
}

const char* ftp_extras_password(const dl_ftp_session& session, const char* user, const char* password) {
  const auto* const extras = extras_of(session);
  const bool anonymous = extras && extras->on.ftp_fallbacks && !(user && *user) && !password;
  return anonymous ? anonymous_password : password;
}

bool ftp_extras_falls_back(const dl_ftp_session& session, std::string_view refusal) {
  const auto* const extras = extras_of(session);
  return extras && extras->on.ftp_fallbacks && refusal.starts_with('5');
}

bool ftp_extras_host(const dl_ftp_session& session, std::span<char> host, int& ipv6) {
  const auto* const extras = extras_of(session);
  if (!extras || !extras->on.ftp_fallbacks) return false;
  sockaddr_storage peer = {};
  socklen_t length = sizeof peer;
  if (::getpeername(session.ctrl_sock, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return false;
  // With the scope of a link-local address.
  if (::getnameinfo(reinterpret_cast<const sockaddr*>(&peer), length, host.data(),
                    static_cast<socklen_t>(host.size()), nullptr, 0, NI_NUMERICHOST) != 0)
    return false;
  ipv6 = peer.ss_family == AF_INET ? 0 : 1;
  return true;
}

uint64_t ftp_extras_limit(const dl_ftp_session& session, uint32_t option) {
  const auto* const extras = extras_of(session);
  return extras ? extras->on.max_file_size(option) : option;
}

int64_t ftp_extras_local_size(const dl_ftp_session& session, const char* path) {
  struct stat status = {};
  if (ftp_extras_max_upload(session) == INT_MAX) return file_size(path);
  return ::stat(path, &status) == 0 ? int64_t{status.st_size} : -1;
}

uint64_t ftp_extras_remote_size(const dl_ftp_session& session, uint64_t size) {
  const uint64_t most = ftp_extras_max_upload(session) == INT_MAX ? UINT32_MAX : INT64_MAX;
  return std::min(size, most);
}

int64_t ftp_extras_max_upload(const dl_ftp_session& session) {
  const auto* const extras = extras_of(session);
  return extras && extras->on.whole_bodies ? INT64_MAX : INT_MAX;
}

bool ftp_extras_count(dl_ftp_session& session, uint64_t left) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->on.whole_bodies) return false;
  ftp_extras_set_left(session, left);
  return true;
}

std::optional<uint64_t> ftp_extras_left(const dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->on.resume || ftp_is_cut(session)) return {};
  return session.remaining + extras->beyond;
}

void ftp_extras_set_left(dl_ftp_session& session, uint64_t left) {
  session.remaining = 0;
  extras_of(session)->beyond = left;
  ftp_extras_fill_up(session);
}

void ftp_extras_fill_up(dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  if (!extras) return;
  const uint64_t moved = std::min<uint64_t>(extras->beyond, UINT32_MAX - session.remaining);
  session.remaining += static_cast<uint32_t>(moved);
  extras->beyond -= moved;
}

int ftp_extras_end_download(const dl_ftp_session& session, dl_result* result) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->data.stream || extras->ended) return 0;
  SSL* const ssl = extras->data.tls.ssl.get();
  if (extras->on.whole_bodies && !ends_whole(ssl, *extras->data.stream)) {
    note_cause(DL_CAUSE_FILE_CUT);
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "data connection ends without TLS's farewell\n");
    return fail(result, DL_ERR_READ);
  }
  extras->ended = true;
  SSL_shutdown(ssl);  // the server may wait for it
  return 0;
}

std::optional<send_result> ftp_extras_send(const dl_ftp_session& session, int file, int64_t max_bytes) {
  stream* const data = ftp_extras_data(session);
  return data ? std::optional(send_pieces(*data, file, max_bytes)) : std::nullopt;
}

bool ftp_extras_end_upload(const dl_ftp_session& session) {
  auto* const extras = extras_of(session);
  if (!extras || !extras->data.stream) return true;
  SSL* const ssl = extras->data.tls.ssl.get();
  if (SSL_shutdown(ssl) < 0) return false;
  await_end(ssl, session.data_sock, *extras->data.stream);
  return true;
}

}  // namespace fetchrig
