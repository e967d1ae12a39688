// SPDX-License-Identifier: MIT
// tftp_download.h: fetching a file. The open call sends the request; each read acknowledges the blocks it takes and
// keeps in `carry` what does not fit. One thread at a time per session.
#ifndef FETCHRIG_TFTP_TFTP_DOWNLOAD_H
#define FETCHRIG_TFTP_TFTP_DOWNLOAD_H

#include <optional>
#include <span>

#include "core/extras.h"
#include "tftp/tftp_session.h"

namespace fetchrig {

// Requests the file and waits for the server's first answer. Returns 0 with the session in `handle`, or -1
// with the result filled.
[[nodiscard]] int tftp_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result,
                            const transfer_extras& extras = current_extras());

// The size of the file, where the server has told it.
[[nodiscard]] std::optional<uint64_t> tftp_announced_size(const dl_tftp_session& session);

// Fills `to`; less only at the end of the file. Returns the count, 0 at the end, or -1 with the result filled.
[[nodiscard]] int tftp_read(dl_tftp_session& session, std::span<char> to, dl_result* result);

// Downloads the file into `local_path`; null: the remote name. Returns 0 or -1 with the result filled.
[[nodiscard]] int tftp_recv_to_file(const tftp_target& target, const char* local_path, dl_result* result);

}  // namespace fetchrig
#endif
