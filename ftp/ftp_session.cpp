// ftp_session.cpp: login, opening and closing.
#include "ftp/ftp_session.h"

#include <openssl/crypto.h>
#include <stddef.h>
#include <string.h>

#include "core/boundary.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/process_lock.h"
#include "core/result.h"
#include "core/text.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_data.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "net/connect.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

constexpr uint32_t default_port = 21;
constexpr uint32_t first_bad_port = 65536;
constexpr const char* anonymous_user = "anonymous";
constexpr unsigned max_message_len = 252;

enum reply_code : int {
  command_okay = 200,
  service_ready = 220,
  logged_in = 230,
  need_password = 331,
};

// A session as we allocate it. Callers may hold records of their own making, which end after the stated
// fields: what lies behind those is touched only once the record's address was found among the marked ones.
struct own_session {
  dl_ftp_session record;
  own_session* next_cut;
};
static_assert(offsetof(own_session, record) == 0);

// The sessions whose file cannot be counted to its end: a list through the sessions themselves, nearly always
// empty. Under process_lock.
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

int login(const dl_ftp_session& session, const char* user, const char* password, ftp_reply& reply) {
  if (const int rc = dl_recv_reply(session, reply, {service_ready}); rc < 0) return rc;

  const int answer = ftp_command(session, "USER", user && *user ? user : anonymous_user, reply);
  if (answer < 0) return answer;
  if (answer != logged_in && answer != need_password) return DL_ERR_FTP_USER;
  if (answer == need_password) {
    const auto argument = password ? std::optional<std::string_view>(password) : std::nullopt;
    const int rc = ftp_command(session, "PASS", argument, reply, {logged_in, DL_ERR_FTP_PASS});
    if (rc < 0) return rc;
  }
  const int rc = ftp_command(session, "TYPE", "I", reply, {command_okay});
  return rc < 0 ? rc : 0;
}

// Logs a failed opening step and passes its code on.
int failed_step(const char* message, int code) {
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "%s", message);
  return code;
}

// The opening steps on a fresh session. Returns 0 or a negative code.
int open_connections(dl_ftp_session& session, const ftp_login_data& data, const net_options& options,
                     ftp_reply& reply) {
  const uint32_t port = data.port ? data.port : default_port;
  copy_text(session.host, data.host);
  const int sock = connect_to_host(session.host, static_cast<int>(port), options.ipv6, options.net_timeout_s);
  if (sock <= 0) return failed_step("Connect Error\n", sock);
  session.ctrl_sock = sock;

  if (const int rc = login(session, data.user, data.password, reply); rc < 0) {
    return failed_step("ftp login error\n", rc);
  }
  const int rc = ftp_open_data(session, reply, options.net_timeout_s);
  return rc < 0 ? failed_step("Create data connection failed\n", rc) : 0;
}

}  // namespace

bool ftp_check_open(const ftp_outcome& out, const ftp_login_data& login, const char* name) {
  const bool good = out.handle && out.result && login.host && name && login.port < first_bad_port &&
                    strnlen(login.host, sizeof(dl_ftp_session::host)) < sizeof(dl_ftp_session::host) &&
                    !has_line_break(or_empty(login.user)) && !has_line_break(or_empty(login.password)) &&
                    !has_line_break(name);
  if (good) return true;
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "Invalid Parameter\n");
  if (out.handle) *out.handle = nullptr;
  fail(out.result, DL_ERR_PARAMETER);
  return false;
}

int ftp_session_open(const ftp_outcome& out, const ftp_login_data& login, const net_options& options,
                     ftp_reply& reply) {
  clear_result(*out.result);
  auto allocated = zeroed_record<own_session>();
  *out.handle = allocated ? &allocated->record : nullptr;
  if (!allocated) return fail(out.result, DL_ERR_MEMORY);
  dl_ftp_session& session = allocated.release()->record;
  session.magic = DL_FTP_MAGIC;
  const int rc = open_connections(session, login, options, reply);
  return rc < 0 ? ftp_fail(out, reply, rc) : 0;
}

int ftp_fail(const ftp_outcome& out, const ftp_reply& reply, int code) {
  if (code == DL_ERR_FTP_REPLY) {
    fail_with_text(out.result, code, reply.c_str(), max_message_len);
  } else {
    fail(out.result, code);
  }
  dl_ftp_close(*out.handle);
  *out.handle = nullptr;
  return -1;
}

bool ftp_usable(const dl_ftp_session* session) {
  return session && session->magic == DL_FTP_MAGIC && session->data_sock != 0;
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

}  // namespace fetchrig

void dl_ftp_close(dl_ftp_session* session) {
  using namespace fetchrig;
  if (!session || session->magic != DL_FTP_MAGIC) {
    log_line(DL_LOG_FTP, DL_LOG_ERROR, "ftp close with invalid parameter\n");
    return;
  }
  guarded([session] {
    const unique_malloc<dl_ftp_session> owner(session);
    cut.remove(*session);
    close_socket(session->ctrl_sock);
    close_socket(session->data_sock);
    OPENSSL_cleanse(session, sizeof *session);
  });
}
