// SPDX-License-Identifier: MIT
// ftp_session.h: what download and upload share: checking arguments, login, the opening steps, their failure
// path and closing. One thread at a time per session.
#ifndef FETCHRIG_FTP_FTP_SESSION_H
#define FETCHRIG_FTP_FTP_SESSION_H

#include <stdint.h>

#include <memory>
#include <string_view>

#include "core/config.h"
#include "ftp/ftp_reply.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Whom an open call talks to, and as whom. Texts are borrowed; user and password may be null.
struct ftp_server {
  const char* host;
  uint32_t port;  // 0: the default port
  const char* user;
  const char* password;
};

// Where an open call publishes its session and stores its outcome.
struct ftp_outcome {
  dl_ftp_session** handle;
  dl_result* result;
};

// Closes both connections, without a QUIT, and releases the session. Null and what is no live session are logged.
void ftp_close(dl_ftp_session* session);

struct ftp_closer {
  void operator()(dl_ftp_session* session) const { ftp_close(session); }
};
using unique_ftp = std::unique_ptr<dl_ftp_session, ftp_closer>;

// True when the open call's arguments can be used; `name` is the remote file, as sent and not null. Otherwise
// logs, fills the result and empties the handle.
[[nodiscard]] bool ftp_check_open(const ftp_outcome& out, const ftp_server& server, const char* name);

// Allocates and publishes a session, connects, logs in and opens the data connection. Returns 0, or -1 after
// ftp_fail().
[[nodiscard]] int ftp_session_open(const ftp_outcome& out, const ftp_server& server,
                                   const net_options& options, ftp_reply& reply);

// Fills the result for `code` (for -15 with the text in `reply`), closes the session, empties the handle. Returns -1.
int ftp_fail(const ftp_outcome& out, const ftp_reply& reply, int code);

// True for a live session.
[[nodiscard]] bool is_ftp_session(const dl_ftp_session* session);
// True for one with a data connection.
[[nodiscard]] bool ftp_usable(const dl_ftp_session* session);

// Marks a session whose file has more bytes than `remaining` can count, 4 GiB or more, until it is closed.
void ftp_mark_cut(dl_ftp_session& session);
// Whether that was done; a record that a caller made is never marked.
[[nodiscard]] bool ftp_is_cut(const dl_ftp_session& session);

// The name as it goes on the wire: without one leading "/".
[[nodiscard]] std::string_view ftp_wire_name(std::string_view name);

}  // namespace fetchrig
#endif
