// SPDX-License-Identifier: MIT
// tftp_upload.h: sending a file, one block at a time, each waiting for its ACK. One thread at a time per session.
#ifndef FETCHRIG_TFTP_TFTP_UPLOAD_H
#define FETCHRIG_TFTP_TFTP_UPLOAD_H

#include <optional>

#include "core/extras.h"
#include "tftp/tftp_session.h"

namespace fetchrig {

// Sends the write request until the server accepts it; `size` is the file's where it is known. Returns 0 with the
// session in `handle`, or -1 with the result filled.
[[nodiscard]] int tftp_send_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result,
                                 std::optional<uint64_t> size = {},
                                 const transfer_extras& extras = current_extras());

// Sends the file. Returns the bytes sent, or -1 with the result filled.
[[nodiscard]] int tftp_send(dl_tftp_session& session, const char* local_path, dl_result* result,
                            const transfer_extras& extras = current_extras());

// Open, send and close; a remote name that is null or empty stands for the local file's. Returns 0 or -1
// with the result filled.
[[nodiscard]] int tftp_send_file(const tftp_target& target, const char* local_path, dl_result* result);

}  // namespace fetchrig
#endif
