// SPDX-License-Identifier: MIT
// http_download.h: downloading a body into a local file, within the size limit of option 6. What was written of a
// failed download is removed. One thread at a time per call.
#ifndef FETCHRIG_HTTP_HTTP_DOWNLOAD_H
#define FETCHRIG_HTTP_HTTP_DOWNLOAD_H

#include "core/download_file.h"
#include "http/http_open.h"
#include "http/http_session.h"

namespace fetchrig {

// Opens the plan's URL and receives the body into `local_path`; when that is null, into the current directory under
// the last part of the URL's path. Returns 0, or -1 with the plan's result filled; a file that cannot be created
// leaves the result clear.
[[nodiscard]] int http_recv_to_file(const http_plan& plan, const char* local_path);

// The block size in which totals and the size limit of a file are judged.
inline constexpr uint32_t http_file_step = 512;
// Receives the body into the open file and finishes it. Returns 0, or -1 with the result filled.
[[nodiscard]] int http_copy_body(http_channel& channel, download_file& file, dl_result& result);

}  // namespace fetchrig
#endif
