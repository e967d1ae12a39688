// SPDX-License-Identifier: MIT
// ftp_upload.h: sending a file. The remote file's size and the caller's two modes choose between APPE and STOR; the
// data connection is closed to end the file, and the server's final reply tells the outcome. One thread at a time per
// session.
#ifndef FETCHRIG_FTP_FTP_UPLOAD_H
#define FETCHRIG_FTP_FTP_UPLOAD_H

#include <limits.h>

#include "ftp/ftp_session.h"

namespace fetchrig {

// What is uploaded under which name, and how.
struct ftp_upload_request {
  const char* local_path;
  const char* remote_name;  // null or empty: the local file's name
  int32_t post_mode;        // enum dl_ftp_post_mode
  uint32_t limit_mode;      // enum dl_ftp_limit_mode
  bool is_counted = true;   // the caller is told the bytes sent, in 31 bits
};

// Logs in and has the server accept the file. Returns 0 with the session published, or -1 with the result filled.
[[nodiscard]] int ftp_send_open(const ftp_outcome& out, const ftp_server& server,
                                const ftp_upload_request& request);

// The local file, and the most that is sent of it.
struct ftp_upload_source {
  const char* path;
  int64_t max_bytes = INT_MAX;
};

// Sends the file, reads the server's verdict and takes leave. Returns the bytes sent, or -1 with the result filled.
[[nodiscard]] int64_t ftp_send(dl_ftp_session& session, const ftp_upload_source& source, dl_result* result);

// Open, send and close. Returns 0 or -1 with the result filled.
[[nodiscard]] int ftp_send_file(const ftp_server& server, const ftp_upload_request& request,
                                dl_result* result);

}  // namespace fetchrig
#endif
