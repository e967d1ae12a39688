// SPDX-License-Identifier: MIT
// ftp_reply.h: reading the server's replies from the control connection. Lines end in CR LF; a text
// that does not leave room for four more bytes in its buffer, and a reply of more than 10,000 lines, fail. Nothing
// beyond a line is taken (net/line_reader.h), and no state is kept between replies. One thread at a time per session.
#ifndef FETCHRIG_FTP_FTP_REPLY_H
#define FETCHRIG_FTP_FTP_REPLY_H

#include <cstddef>
#include <span>
#include <string_view>

#include "include/fetchrig_types.h"

namespace fetchrig {

// A caller's buffer for reply lines, always terminated. Starts empty; its length is counted, so a NUL from
// the server ends nothing.
class ftp_reply {
 public:
  // `buffer` has at least one byte and outlives the object.
  explicit ftp_reply(std::span<char> buffer) : buffer_(buffer) { set_length(0); }

  std::string_view line() const { return {buffer_.data(), length_}; }
  const char* c_str() const { return buffer_.data(); }
  // Cut when it does not fit.
  void assign(std::string_view text);

  // For the reader: the whole buffer, and how much of it holds the line.
  std::span<char> buffer() const { return buffer_; }
  void set_length(std::size_t length) {
    length_ = length;
    buffer_[length] = '\0';
  }

 private:
  std::span<char> buffer_;
  std::size_t length_ = 0;
};

// What an exchange wants to see: any code when `code` is 0; else any other code ends in `mismatch`.
struct ftp_expected {
  int code = 0;
  int mismatch = DL_ERR_FTP_REPLY;
};

// Reads one reply to its final line, which is left in `reply` without its line end. Returns the reply's code,
// expected.mismatch, -8 (a wait or a read failed, the peer closed, too many lines) or -1 (the line does not
// fit). Each wait blocks for at most option 7.
[[nodiscard]] int dl_recv_reply(const dl_ftp_session& session, ftp_reply& reply, ftp_expected expected);

}  // namespace fetchrig
#endif
