// SPDX-License-Identifier: MIT
// ftp_command.h: one command on the control connection and its reply. A word and an argument become one line in one
// send; that neither holds a line break is checked by the open calls. One thread at a time per session.
#ifndef FETCHRIG_FTP_FTP_COMMAND_H
#define FETCHRIG_FTP_FTP_COMMAND_H

#include <optional>
#include <string_view>

#include "ftp/ftp_reply.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Sends one command line and reads the reply. Returns what dl_recv_reply() does, -4, or -7. A
// password is never logged.
[[nodiscard]] int ftp_command(const dl_ftp_session& session, std::string_view word,
                              std::optional<std::string_view> argument, ftp_reply& reply,
                              ftp_expected expected = {});

}  // namespace fetchrig
#endif
