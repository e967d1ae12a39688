// SPDX-License-Identifier: MIT
// ftp_data.cpp: opening the passive data connection.
#include "ftp/ftp_data.h"

#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <array>

#include "core/config.h"
#include "ftp/extra/ftp_extras.h"
#include "ftp/ftp_codes.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_parse.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/connect.h"

namespace fetchrig {
namespace {

// A host text and a port to connect to.
struct data_target {
  std::array<char, sizeof(dl_ftp_session::host)> host = {};
  uint16_t port = 0;
  int ipv6 = 0;
};

// A server behind address translation, or one that bounces the transfer elsewhere.
void warn_if_elsewhere(const dl_ftp_session& session, const ftp_endpoint& endpoint, const char* address) {
  sockaddr_storage peer = {};
  socklen_t length = sizeof peer;
  if (::getpeername(session.ctrl_sock, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return;
  const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(&peer);
  const bool same = peer.ss_family == AF_INET &&
                    memcmp(&ipv4->sin_addr, endpoint.address.data(), endpoint.address.size()) == 0;
  if (same) return;
  log_line(DL_LOG_FTP, DL_LOG_WARNING, "PASV address %s is not the control connection's\n", address);
}

int passive_target(const dl_ftp_session& session, std::string_view text, data_target& target) {
  const auto endpoint = ftp_pasv_endpoint(text);
  if (!endpoint) return DL_ERR_FTP_REPLY;
  const auto& ip = endpoint->address;
  snprintf(target.host.data(), target.host.size(), "%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]);
  target.port = endpoint->port;
  target.ipv6 = 0;
  warn_if_elsewhere(session, *endpoint, target.host.data());
  if (ftp_extras_host(session, target.host, target.ipv6)) {
    log_line(DL_LOG_FTP, DL_LOG_INFO, "data connection to %s\n", target.host.data());
  }
  return 0;
}

int extended_target(const dl_ftp_session& session, std::string_view text, data_target& target) {
  const auto port = ftp_epsv_port(text);
  if (!port) return DL_ERR_FTP_REPLY;
  memcpy(target.host.data(), session.host, sizeof session.host);
  target.port = *port;
  target.ipv6 = 1;
  // A name may have several addresses, and the port is of one of them (RFC 2428 section 3).
  static_cast<void>(ftp_extras_host(session, target.host, target.ipv6));
  return 0;
}

bool means_pasv(const dl_ftp_session& session, std::string_view refusal) {
  return refusal.find(ftp_protocol_not_supported) != std::string_view::npos ||
         ftp_extras_falls_back(session, refusal);
}

// Sends EPSV or PASV; turns `extended` off when the server had to be asked with PASV after all.
int request_endpoint(const dl_ftp_session& session, ftp_reply& reply, bool& extended) {
  if (extended) {
    const int rc = ftp_command(session, "EPSV", {}, reply, {ftp_extended_passive});
    if (rc != DL_ERR_FTP_REPLY || !means_pasv(session, reply.line())) return rc;
    log_line(DL_LOG_FTP, DL_LOG_WARNING, "DL_ERRFTP:[%s], Try use PASV\n", printable(reply.line()).c_str());
    extended = false;
  }
  return ftp_command(session, "PASV", {}, reply, {ftp_passive});
}

}  // namespace

int ftp_create_data_conn(dl_ftp_session& session, ftp_reply& reply, int timeout_s) {
  bool extended = ipv6_enabled() != 0;
  if (const int rc = request_endpoint(session, reply, extended); rc < 0) return rc;
  const auto text = ftp_parenthesised(reply.line());
  if (!text) return log_and_return(DL_LOG_FTP, DL_ERR_FTP_REPLY, "Passive mode string format error\n");
  data_target target;
  const int rc = extended ? extended_target(session, *text, target) : passive_target(session, *text, target);
  if (rc < 0) return rc;

  const int sock = connect_to_host(target.host.data(), target.port, target.ipv6, timeout_s);
  if (sock < 0) return sock;
  session.data_sock = sock;
  return 0;
}

}  // namespace fetchrig
