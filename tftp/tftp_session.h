// SPDX-License-Identifier: MIT
// tftp_session.h: what TFTP download and upload share: the UDP socket, sending and receiving one packet,
// taking an OACK, and opening a session. No retransmission on silence: a time-out ends the transfer. The
// sizes and lengths of a session record are bounded before use, as a caller may hold or make one. One thread
// at a time per session.
#ifndef FETCHRIG_TFTP_TFTP_SESSION_H
#define FETCHRIG_TFTP_TFTP_SESSION_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string_view>

#include "core/extras.h"
#include "include/fetchrig_types.h"
#include "tftp/tftp_packet.h"

namespace fetchrig {

// Ends a session of either direction and releases it. Null and what is no live session are logged.
void tftp_close(dl_tftp_session* session);

struct tftp_closer {
  void operator()(dl_tftp_session* session) const { tftp_close(session); }
};
using unique_tftp = std::unique_ptr<dl_tftp_session, tftp_closer>;

// What an open call is asked for.
struct tftp_target {
  const char* host;
  uint32_t port;  // 0: the default, 69
  const char* remote_name;
};

// Checks the arguments of an open call. Returns 0 with `result` cleared, or -1, logged and filled in as far
// as there is a place for it.
[[nodiscard]] int tftp_check_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result);

// How the socket of a session is made.
struct tftp_socket_choice {
  int ipv6;           // not 0: for IPv6 as well
  bool systems_port;  // the local port is drawn by the system
};

// Makes a session whose first block is `first_block`, publishes it in `handle` and sets up its socket. Returns 0, or
// -1 with `result` filled and no session left.
[[nodiscard]] int tftp_start(dl_tftp_session** handle, const tftp_target& target, uint16_t first_block,
                             const tftp_socket_choice& choice, dl_result* result);

// Closes the session of a failed open, stores none, fills `result` and returns -1.
int tftp_abandon(dl_tftp_session** handle, dl_result* result, int code);

// Whether a call may use the session: not null, live, with a socket.
[[nodiscard]] bool tftp_usable(const dl_tftp_session* session);

// Resolves the server and binds a UDP socket to a random port. Returns 0 with `sock` and `server` set, -1
// when the name does not resolve, or -2.
[[nodiscard]] int tftp_setup_socket(dl_tftp_session& session, const char* host, uint16_t port,
                                    const tftp_socket_choice& choice);

// The port that packets go to, in network byte order.
[[nodiscard]] uint16_t tftp_server_port(const dl_tftp_session& session);
void tftp_set_server_port(dl_tftp_session& session, uint16_t port);

// Sends one packet to the server. Returns what sendto() does; an empty packet, one that did not fit when it
// was built, fails with EMSGSIZE.
ssize_t tftp_send_packet(const dl_tftp_session& session, std::string_view packet);

// Builds and sends the RRQ or WRQ. Returns 0 or the code -4, logged.
[[nodiscard]] int tftp_send_request(const dl_tftp_session& session, tftp_opcode opcode,
                                    const char* remote_name);

// Send an ACK and an ERROR. Return 0, or -1, logged.
int tftp_send_ack(const dl_tftp_session& session, uint16_t block);
int tftp_send_error(const dl_tftp_session& session, uint16_t code, std::string_view message);

// Applies an OACK's option list to the session's sizes. Returns 0; or -1 with `result` filled when the block
// size is refused, which the server is told.
[[nodiscard]] int tftp_take_oack(dl_tftp_session& session, std::string_view options, dl_result* result);

// Largest datagram that the session accepts.
[[nodiscard]] std::size_t tftp_receive_size(const dl_tftp_session& session);

// Waits for and reads one datagram; its sender's port is the server's from then on. Returns its length (0 is
// an empty datagram), or -1 with `result` filled and logged.
[[nodiscard]] ssize_t tftp_receive(dl_tftp_session& session, int timeout_s, tftp_packet_buffer& packet,
                                   dl_result* result);

// The code of an ERROR, which is logged with what the server says and noted as the cause; nothing for another datagram.
std::optional<uint16_t> tftp_note_server_error(std::string_view datagram);

// Discards every datagram already queued.
void tftp_drain(int sock);

}  // namespace fetchrig
#endif
