// SPDX-License-Identifier: MIT
// ftp_stream.h: the control or the data connection of a session as a stream, plain or secured. One thread at a time per
// session.
#ifndef FETCHRIG_FTP_FTP_STREAM_H
#define FETCHRIG_FTP_FTP_STREAM_H

#include "ftp/extra/ftp_extras.h"
#include "net/tcp_stream.h"

namespace fetchrig {

class ftp_stream {
 public:
  static ftp_stream control(const dl_ftp_session& session) {
    return {ftp_extras_control(session), tcp_stream(session.ctrl_sock)};
  }
  static ftp_stream data(const dl_ftp_session& session) {
    return {ftp_extras_data(session), tcp_stream(session.data_sock, first_step::receive)};
  }
  stream& operator*() {
    if (secured_) return *secured_;
    return plain_;
  }
  stream* operator->() { return &**this; }

 private:
  ftp_stream(stream* secured, const tcp_stream& plain) : secured_(secured), plain_(plain) {}
  stream* secured_;
  tcp_stream plain_;
};

}  // namespace fetchrig
#endif
