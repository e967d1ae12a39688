// SPDX-License-Identifier: MIT
// ftp_session.cpp: login, opening and closing.
#include "ftp/ftp_session.h"

#include <openssl/crypto.h>
#include <stddef.h>
#include <string.h>

#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/ports.h"
#include "core/process_lock.h"
#include "core/result.h"
#include "core/text.h"
#include "ftp/extra/ftp_extras.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_data.h"
#include "log/log.h"
#include "net/connect.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

constexpr const char* anonymous_user = "anonymous";

// A session as we allocate it. Callers may hold records of their own making, which end after the stated
// fields: what lies behind those is touched only once the record's address was found among the marked ones.
struct own_session {
  dl_ftp_session record;
  own_session* next_cut;
};
static_assert(offsetof(own_session, record) == 0);

// The sessions whose file cannot be counted to its end: a list through the sessions themselves, nearly
// always empty. Under process_lock.
class cut_sessions {
 public:
  void add(own_session& session) {
    const process_lock lock;
    session.next_cut = first_;
    first_ = &session;
  }
  bool contains(const dl_ftp_session& session) {
    const process_lock lock;
    return *place_of(session) != nullptr;
  }
  void remove(const dl_ftp_session& session) {
    const process_lock lock;
    own_session** const place = place_of(session);
    if (*place) *place = (*place)->next_cut;
  }

 private:
  // The link that leads to the session, or the last one, which is null.
  own_session** place_of(const dl_ftp_session& session) {
    own_session** place = &first_;
    while (*place && &(*place)->record != &session) place = &(*place)->next_cut;
    return place;
  }

  own_session* first_ = nullptr;
};

constinit cut_sessions cut;

static_assert(offsetof(dl_ftp_session, host) == 16 && sizeof(dl_ftp_session) == 528);

// Returns 0 or a negative code.
int ftp_login(const dl_ftp_session& session, const char* user, const char* password, ftp_reply& reply) {
  if (const int rc = dl_recv_reply(session, reply, {ftp_service_ready}); rc < 0) return rc;
  if (const int rc = ftp_extras_secure(session, reply); rc < 0) return rc;

  const int answer = ftp_command(session, "USER", user && *user ? user : anonymous_user, reply);
  if (answer < 0) return answer;
  if (answer != ftp_logged_in && answer != ftp_need_password) return DL_ERR_FTP_USER;
  if (answer == ftp_need_password) {
    const char* const given = ftp_extras_password(session, user, password);
    const auto argument = given ? std::optional<std::string_view>(given) : std::nullopt;
    const int rc = ftp_command(session, "PASS", argument, reply, {ftp_logged_in, DL_ERR_FTP_PASS});
    if (rc < 0) return rc;
  }
  const int rc = ftp_command(session, "TYPE", "I", reply, {ftp_command_okay});
  return rc < 0 ? rc : 0;
}

// The opening steps on a fresh session. Returns 0 or a negative code.
int open_connections(dl_ftp_session& session, const ftp_server& server, const net_options& options,
                     ftp_reply& reply) {
  const uint32_t port = server.port ? server.port : ftp_port;
  copy_text(session.host, server.host);
  const int sock = connect_to_host(session.host, static_cast<int>(port), options.ipv6, options.net_timeout_s);
  if (sock <= 0) return log_and_return(DL_LOG_FTP, sock, "Connect Error\n");
  session.ctrl_sock = sock;
  ftp_extras_begin(session, current_extras());

  if (const int rc = ftp_login(session, server.user, server.password, reply); rc < 0) {
    return log_and_return(DL_LOG_FTP, rc, "ftp login error\n");
  }
  const int rc = ftp_create_data_conn(session, reply, options.net_timeout_s);
  return rc < 0 ? log_and_return(DL_LOG_FTP, rc, "Create data connection failed\n") : 0;
}

}  // namespace

bool ftp_check_open(const ftp_outcome& out, const ftp_server& server, const char* name) {
  clear_cause();
  const bool good = out.handle && out.result && server.host && name && server.port <= max_port &&
                    strnlen(server.host, sizeof(dl_ftp_session::host)) < sizeof(dl_ftp_session::host) &&
                    !has_line_break(or_empty(server.user)) && !has_line_break(or_empty(server.password)) &&
                    !has_line_break(name);
  if (good) return true;
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "Invalid Parameter\n");
  if (out.handle) *out.handle = nullptr;
  fail(out.result, DL_ERR_PARAMETER);
  return false;
}

int ftp_session_open(const ftp_outcome& out, const ftp_server& server, const net_options& options,
                     ftp_reply& reply) {
  clear_result(*out.result);
  auto allocated = zeroed_record<own_session>();
  *out.handle = allocated ? &allocated->record : nullptr;
  if (!allocated) return fail(out.result, DL_ERR_MEMORY);
  dl_ftp_session& session = allocated.release()->record;
  session.magic = DL_FTP_MAGIC;
  const int rc = guarded_step([&] { return open_connections(session, server, options, reply); });
  return rc < 0 ? ftp_fail(out, reply, rc) : 0;
}

int ftp_fail(const ftp_outcome& out, const ftp_reply& reply, int code) {
  if (code == DL_ERR_FTP_REPLY) {
    fail_with_text(out.result, code, reply.c_str(), ftp_max_message_len);
  } else {
    fail(out.result, code);
  }
  ftp_close(*out.handle);
  *out.handle = nullptr;
  return -1;
}

bool is_ftp_session(const dl_ftp_session* session) {
  return session && session->magic == DL_FTP_MAGIC;
}

bool ftp_usable(const dl_ftp_session* session) {
  return is_ftp_session(session) && session->data_sock != 0;
}

void ftp_mark_cut(dl_ftp_session& session) {
  cut.add(reinterpret_cast<own_session&>(session));
}

bool ftp_is_cut(const dl_ftp_session& session) {
  return cut.contains(session);
}

std::string_view ftp_wire_name(std::string_view name) {
  if (name.starts_with('/')) name.remove_prefix(1);
  return name;
}

void ftp_close(dl_ftp_session* session) {
  if (!is_ftp_session(session)) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "ftp close with invalid parameter\n");
    return;
  }
  const unique_malloc<dl_ftp_session> owner(session);
  cut.remove(*session);
  ftp_extras_end(*session);
  close_socket(session->ctrl_sock);
  close_socket(session->data_sock);
  OPENSSL_cleanse(session, sizeof *session);
}

}  // namespace fetchrig
