// SPDX-License-Identifier: MIT
// ftp_codes.h: the numbers of the protocol: the reply codes that the client knows (RFC 959, RFC 2428), and how much
// of a reply it holds.
#ifndef FETCHRIG_FTP_FTP_CODES_H
#define FETCHRIG_FTP_FTP_CODES_H

#include <array>
#include <string_view>

namespace fetchrig {

enum ftp_code : int {
  ftp_data_connection_open = 125,
  ftp_about_to_open_data = 150,
  ftp_command_okay = 200,
  ftp_size_known = 213,
  ftp_service_ready = 220,
  ftp_goodbye = 221,
  ftp_transfer_complete = 226,
  ftp_passive = 227,
  ftp_extended_passive = 229,
  ftp_logged_in = 230,
  ftp_auth_accepted = 234,
  ftp_need_password = 331,
  ftp_restart_accepted = 350,
  ftp_file_not_found = 550,
};

// Part of the answer of a server that cannot do EPSV for this network protocol.
inline constexpr std::string_view ftp_protocol_not_supported = "522";

// The buffers for a reply line: of the open calls' exchanges, and of an upload's final reply.
using ftp_reply_bytes = std::array<char, 512>;
using ftp_final_reply_bytes = std::array<char, 8192>;
// A reply of more lines is given up.
inline constexpr int ftp_max_reply_lines = 10000;
// As much of a reply line is told as the message of a failure.
inline constexpr unsigned ftp_max_message_len = 252;

}  // namespace fetchrig
#endif
