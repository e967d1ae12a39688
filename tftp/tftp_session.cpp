// SPDX-License-Identifier: MIT
// tftp_session.cpp: opening, receiving, negotiating and closing, for both directions.
#include "tftp/tftp_session.h"

#include <errno.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>

#include "core/cause.h"
#include "core/cursor.h"
#include "core/owners.h"
#include "core/ports.h"
#include "core/result.h"
#include "log/log.h"
#include "log/printable.h"
#include "net/address.h"
#include "net/socket.h"
#include "tftp/extra/tftp_windowed.h"
#include "tftp/tftp_port.h"

namespace fetchrig {
namespace {

constexpr int bind_attempts = 30;
// More than a receive queue holds; a peer that sends as fast as we discard must not keep us here.
constexpr int max_drained = 65536;

static_assert(sizeof(dl_tftp_session::server) == 28);
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28);
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
static_assert(offsetof(dl_tftp_session, block) == 8);
static_assert(sizeof(void*) != 4 ||
              (offsetof(dl_tftp_session, server) == 24 && sizeof(dl_tftp_session) == 60));

sa_family_t server_family(const dl_tftp_session& session) {
  sa_family_t family;
  memcpy(&family, session.server, sizeof family);
  return family;
}

socklen_t server_length(const dl_tftp_session& session) {
  return server_family(session) == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

// Of the port, in network byte order: the same for both families.
constexpr std::size_t port_offset = offsetof(sockaddr_in, sin_port);

bool bind_port(int sock, int family, in_port_t port) {
  sockaddr_in any4 = {};
  sockaddr_in6 any6 = {};  // the wildcard address is all zeros
  any4.sin_family = AF_INET;
  any6.sin6_family = AF_INET6;
  any4.sin_port = any6.sin6_port = htons(port);
  if (family == AF_INET) return ::bind(sock, reinterpret_cast<const sockaddr*>(&any4), sizeof any4) == 0;
  return ::bind(sock, reinterpret_cast<const sockaddr*>(&any6), sizeof any6) == 0;
}

bool bind_random_port(int sock, int family) {
  tftp_ports ports(static_cast<unsigned>(time(nullptr)));
  for (int attempt = 0; attempt < bind_attempts; ++attempt) {
    if (bind_port(sock, family, ports.next())) return true;
  }
  return false;
}

bool bind_local(int sock, int family, const tftp_socket_choice& choice) {
  return choice.systems_port ? bind_port(sock, family, 0) : bind_random_port(sock, family);
}

}  // namespace

int tftp_check_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result) {
  clear_cause();
  const bool good = handle && target.host && target.remote_name && target.port <= max_port && result &&
                    strnlen(target.remote_name, tftp_max_name_len + 1) <= tftp_max_name_len;
  if (good) {
    clear_result(*result);
    return 0;
  }
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "tftp open with invalid parmeter\n");
  if (handle) *handle = nullptr;
  return fail(result, DL_ERR_PARAMETER);
}

int tftp_start(dl_tftp_session** handle, const tftp_target& target, uint16_t first_block,
               const tftp_socket_choice& choice, dl_result* result) {
  auto session = zeroed_record<dl_tftp_session>();
  if (!session) {
    *handle = nullptr;
    return fail(result, DL_ERR_MEMORY);
  }
  const auto port = static_cast<uint16_t>(target.port == 0 ? tftp_port : target.port);
  session->magic = DL_TFTP_MAGIC;
  session->block = first_block;
  session->blksize = tftp_default_blksize;
  session->recv_size = tftp_default_blksize + tftp_header_len;
  *handle = session.release();
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "tftp open begin, host: %s, port:%d, remote_name:%s\n",
           printable(target.host).c_str(), port, printable(target.remote_name).c_str());
  if (const int code = tftp_setup_socket(**handle, target.host, port, choice); code < 0) {
    return tftp_abandon(handle, result, code);
  }
  return 0;
}

int tftp_abandon(dl_tftp_session** handle, dl_result* result, int code) {
  tftp_close(*handle);
  *handle = nullptr;
  return fail(result, code);
}

bool tftp_usable(const dl_tftp_session* session) {
  return session && session->magic == DL_TFTP_MAGIC && session->sock != 0;
}

int tftp_setup_socket(dl_tftp_session& session, const char* host, uint16_t port,
                      const tftp_socket_choice& choice) {
  const address_list answers = look_up_host(host, choice.ipv6, SOCK_DGRAM);
  if (!answers) return DL_ERR_HOST;
  const addrinfo* chosen = first_usable(answers.get(), choice.ipv6);
  if (!chosen) return DL_ERR_SOCKET;
  unique_fd sock = open_socket(chosen->ai_family, SOCK_DGRAM);
  if (!sock || !bind_local(sock.get(), chosen->ai_family, choice)) return DL_ERR_SOCKET;

  memcpy(session.server, chosen->ai_addr, std::min<std::size_t>(chosen->ai_addrlen, sizeof session.server));
  tftp_set_server_port(session, htons(port));
  session.sock = sock.release();
  return 0;
}

uint16_t tftp_server_port(const dl_tftp_session& session) {
  uint16_t port;
  memcpy(&port, reinterpret_cast<const char*>(session.server) + port_offset, sizeof port);
  return port;
}

void tftp_set_server_port(dl_tftp_session& session, uint16_t port) {
  memcpy(reinterpret_cast<char*>(session.server) + port_offset, &port, sizeof port);
}

std::optional<uint16_t> tftp_note_server_error(std::string_view datagram) {
  cursor in(datagram);
  const auto opcode = in.u16be();
  const auto code = in.u16be();
  if (!code || *opcode != static_cast<uint16_t>(tftp_opcode::error)) return {};
  const std::string_view message = in.rest().substr(0, in.rest().find('\0'));
  note_cause(DL_CAUSE_TFTP_ERROR, *code, message);
  log_line(DL_LOG_TFTP, DL_LOG_WARNING, "server error %d: %s\n", *code, printable(message).c_str());
  return code;
}

ssize_t tftp_send_packet(const dl_tftp_session& session, std::string_view packet) {
  if (packet.empty()) {  // it did not fit; an empty datagram would go out instead
    errno = EMSGSIZE;
    return -1;
  }
  ssize_t sent;
  do {
    sent = ::sendto(session.sock, packet.data(), packet.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(session.server), server_length(session));
  } while (sent < 0 && errno == EINTR);
  return sent;
}

int tftp_send_request(const dl_tftp_session& session, tftp_opcode opcode, const char* remote_name) {
  tftp_packet_buffer packet;
  const std::size_t length = tftp_build_request(opcode, remote_name, packet);
  const ssize_t sent = tftp_send_packet(session, {packet.data(), length});
  if (sent == static_cast<ssize_t>(length)) return 0;
  note_symptom(DL_CAUSE_SEND, errno);
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send Error error! errno = %d ret = %d send_size = %d\n", errno,
           static_cast<int>(sent), static_cast<int>(length));
  return DL_ERR_SEND;
}

int tftp_send_ack(const dl_tftp_session& session, uint16_t block) {
  std::array<char, tftp_header_len> packet;
  tftp_write_header(packet, tftp_opcode::ack, block);
  if (tftp_send_packet(session, {packet.data(), packet.size()}) == tftp_header_len) return 0;
  note_symptom(DL_CAUSE_BROKEN, errno);
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send %d ack error! errno\n", block);
  return -1;
}

int tftp_send_error(const dl_tftp_session& session, uint16_t code, std::string_view message) {
  tftp_packet_buffer packet;
  const std::size_t length = tftp_build_error(code, message, packet);
  if (tftp_send_packet(session, {packet.data(), length}) == static_cast<ssize_t>(length)) return 0;
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send %d err error! errno\n", code);
  return -1;
}

int tftp_take_oack(dl_tftp_session& session, std::string_view options, dl_result* result) {
  log_line(DL_LOG_TFTP, DL_LOG_INFO, "recv OACK\n");
  int size = tftp_default_blksize;
  if (const auto value = tftp_find_blksize(options)) {
    size = tftp_check_blksize(*value, tftp_max_blksize);
  } else {
    log_line(DL_LOG_TFTP, DL_LOG_INFO, "server only supports blocksize of %d\n", size);
  }
  if (size < 0) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "err blksize\n");
    tftp_send_error(session, tftp_error_options, "err blksize");
    return fail(result, DL_ERR_READ);
  }
  session.blksize = size;
  session.recv_size = size + tftp_header_len;
  return 0;
}

std::size_t tftp_receive_size(const dl_tftp_session& session) {
  return static_cast<std::size_t>(std::clamp<int32_t>(session.recv_size, 0, tftp_packet_capacity));
}

ssize_t tftp_receive(dl_tftp_session& session, int timeout_s, tftp_packet_buffer& packet, dl_result* result) {
  sockaddr_in6 sender = {};
  ssize_t length;
  // The wait is repeated when a signal came in between, or when the datagram it saw was dropped (a bad checksum).
  do {
    if (const int ready = wait_ready(session.sock, wait_readable, timeout_s); ready <= 0) {
      const int error = ready < 0 ? errno : 0;  // a time-out sets none
      note_symptom(DL_CAUSE_WAIT, error);
      log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Error Select! errno %d\n", error);
      return fail(result, DL_ERR_READ);
    }
    socklen_t sender_len = sizeof sender;
    length = ::recvfrom(session.sock, packet.data(), tftp_receive_size(session), MSG_DONTWAIT,
                        reinterpret_cast<sockaddr*>(&sender), &sender_len);
  } while (length < 0 && (errno == EINTR || errno == EAGAIN));
  if (length < 0) {
    note_symptom(DL_CAUSE_BROKEN, errno);
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Recvfrom error! errno %d\n", errno);
    return fail(result, DL_ERR_READ);
  }
  // Servers answer from a port of their own for each transfer (RFC 1350, section 4).
  const sa_family_t family = server_family(session);
  if (family == AF_INET || family == AF_INET6) tftp_set_server_port(session, sender.sin6_port);
  // An ERROR does not end an exchange at once; the log keeps what the server said.
  tftp_note_server_error({packet.data(), static_cast<std::size_t>(length)});
  return length;
}

void tftp_drain(int sock) {
  tftp_packet_buffer packet;
  int num_discarded = 0;
  while (num_discarded < max_drained) {
    if (::recv(sock, packet.data(), packet.size(), MSG_DONTWAIT) >= 0) {
      ++num_discarded;
    } else if (errno != EINTR) {
      break;
    }
  }
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "tftp syn err\n");
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "discarded %d packets\n", num_discarded);
}

void tftp_close(dl_tftp_session* session) {
  if (!session || session->magic != DL_TFTP_MAGIC) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "tftp close with invalid parameter\n");
    return;
  }
  tftp_windowed_close(*session);
  // The record is the caller's handle until here, so it is held in the owners for plain memory only now.
  const unique_malloc<dl_tftp_session> record(session);
  const unique_text carry(session->carry);
  close_socket(session->sock);
  OPENSSL_cleanse(session, sizeof *session);
}

}  // namespace fetchrig
