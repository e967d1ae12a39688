// SPDX-License-Identifier: MIT
// ftp_data.h: the passive data connection of a session: EPSV (RFC 2428) when IPv6 is enabled, PASV (RFC 959)
// otherwise; never an active one. One thread at a time per session.
#ifndef FETCHRIG_FTP_FTP_DATA_H
#define FETCHRIG_FTP_FTP_DATA_H

#include "ftp/ftp_reply.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Asks for a passive endpoint and connects to it. Returns 0 with session.data_sock set, whatever it held
// before, -15 for an answer that refuses or cannot be used (it is then in `reply`), or the code of the
// exchange or the connection.
[[nodiscard]] int ftp_create_data_conn(dl_ftp_session& session, ftp_reply& reply, int timeout_s);

}  // namespace fetchrig
#endif
