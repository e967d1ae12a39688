// SPDX-License-Identifier: MIT
// ftp_download.h: fetching a file. SIZE tells how many bytes there are, and exactly those are read from the
// data connection; how the server ends it does not matter. One thread at a time per session.
#ifndef FETCHRIG_FTP_FTP_DOWNLOAD_H
#define FETCHRIG_FTP_FTP_DOWNLOAD_H

#include <span>

#include "ftp/extra/ftp_resume.h"
#include "ftp/ftp_session.h"

namespace fetchrig {

// Logs in and requests `path`, or what `resume` lacks of it. Returns 0 with the session published, or -1 with the
// result filled.
[[nodiscard]] int ftp_open(const ftp_outcome& out, const ftp_server& server, const char* path,
                           ftp_resume* resume = nullptr);

// Fills `to`, or as much of it as the file still has. Returns the count, 0 at the end, or -1 with the result filled.
[[nodiscard]] int ftp_read(dl_ftp_session& session, std::span<char> to, dl_result* result);

// Downloads `path` into `local_path`; null: the last part of `path`, in the current directory. Returns 0 or -1
// with the result filled.
[[nodiscard]] int ftp_recv_to_file(const ftp_server& server, const char* path, const char* local_path,
                                   dl_result* result);

}  // namespace fetchrig
#endif
