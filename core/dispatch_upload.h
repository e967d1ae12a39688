// SPDX-License-Identifier: MIT
// dispatch_upload.h: uploads over whatever protocol the URL names; failures as in dispatch.h. Any thread.
#ifndef FETCHRIG_CORE_DISPATCH_UPLOAD_H
#define FETCHRIG_CORE_DISPATCH_UPLOAD_H

#include <stdint.h>

#include "include/fetchrig_types.h"

namespace fetchrig {

// What dl_upload() was asked for.
struct upload_job {
  const dl_request& request;
  const char* local_path;
  const char* remote_name;  // FTP and TFTP
  char* redirect;           // HTTP, as are the headers
  dl_result* result;
  const char* headers;
  int32_t mode;         // enum dl_upload_mode or dl_ftp_post_mode
  uint32_t limit_mode;  // enum dl_ftp_limit_mode
};

// Returns 0 or -1.
[[nodiscard]] int upload(const upload_job& job);

}  // namespace fetchrig
#endif
