// SPDX-License-Identifier: MIT
// ftp_parse.h: the texts of an FTP server's answers (RFC 959, RFC 2428) taken apart. Knows lines without
// their line end, not sockets. Nothing here allocates; results borrow from the line. Any thread.
#ifndef FETCHRIG_FTP_FTP_PARSE_H
#define FETCHRIG_FTP_FTP_PARSE_H

#include <stdint.h>

#include <array>
#include <optional>
#include <string_view>

namespace fetchrig {

// Where a PASV answer sends the data connection.
struct ftp_endpoint {
  std::array<uint8_t, 4> address = {};
  uint16_t port = 0;
};

// The code of a final reply line (three digits and a space); nothing for a continuation line or other text.
[[nodiscard]] std::optional<int> ftp_reply_code(std::string_view line);

// What stands between the first "(" and the first ")"; nothing when either is missing or they are reversed.
[[nodiscard]] std::optional<std::string_view> ftp_parenthesised(std::string_view line);

// The port of an EPSV answer's parenthesised text: its first number, which something other than a digit must
// precede. 0 without such a number, nothing when it is no port.
[[nodiscard]] std::optional<uint16_t> ftp_epsv_port(std::string_view text);

// The endpoint of a PASV answer's parenthesised text "h1,h2,h3,h4,p1,p2". Nothing when it has another form or
// a number is above 255; what follows the digits of a port number is ignored.
[[nodiscard]] std::optional<ftp_endpoint> ftp_pasv_endpoint(std::string_view text);

// The number after the code of a SIZE answer, the largest there is when it does not fit; nothing when there is none.
[[nodiscard]] std::optional<uint64_t> ftp_size_answer(std::string_view line);

}  // namespace fetchrig
#endif
