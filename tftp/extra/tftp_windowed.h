// SPDX-License-Identifier: MIT
// tftp_windowed.h: transfers that negotiate more than the classic block size: windows of blocks (RFC 7440), larger
// blocks, the file's size and the server's time-out (RFC 2348, RFC 2349). Packets that are lost are sent again after a
// silence (tftp_pace.h), for five times option 7 at most; other ports of the server are told that they are strangers,
// datagrams of other hosts are passed over; an ERROR ends the transfer. A server that knows none of the options is
// served block by block. This is the seam: without the extras nothing here does anything. One thread at a time per
// session.
#ifndef FETCHRIG_TFTP_EXTRA_TFTP_WINDOWED_H
#define FETCHRIG_TFTP_EXTRA_TFTP_WINDOWED_H

#include <stdint.h>

#include <optional>
#include <span>

#include "core/extras.h"
#include "tftp/tftp_session.h"

namespace fetchrig {

// A transfer about to begin: RRQ or WRQ of a session that has its socket.
struct tftp_beginning {
  tftp_opcode opcode;
  const char* remote_name;
  std::optional<uint64_t> size;  // of the file that is sent, where it is known
  int timeout_s;
};

#if FETCHRIG_EXTRAS

// Whether a transfer with them is one of these; what is in its way locally is then told before the request.
[[nodiscard]] bool tftp_windowed_wanted(const transfer_extras& extras);

// Requests the file and takes the server's answer. Returns 0, or a negative code; nothing where `extras` ask for a
// classic transfer.
[[nodiscard]] std::optional<int> tftp_windowed_open(dl_tftp_session& session, const tftp_beginning& begins,
                                                    const transfer_extras& extras);

// What the calls of the same names return; nothing for a session that was not opened here.
[[nodiscard]] std::optional<int> tftp_windowed_read(dl_tftp_session& session, std::span<char> to,
                                                    dl_result* result);
[[nodiscard]] std::optional<int> tftp_windowed_send(dl_tftp_session& session, int file,
                                                    const char* local_path, dl_result* result);

// What the server has announced of a download.
[[nodiscard]] std::optional<uint64_t> tftp_windowed_size(const dl_tftp_session& session);

// Whether the server has announced a file above the limit; it is told, and the result filled.
[[nodiscard]] bool tftp_windowed_exceeds(dl_tftp_session& session, uint64_t limit, dl_result* result);

// Forgets the session.
void tftp_windowed_close(const dl_tftp_session& session);

#else

[[nodiscard]] constexpr bool tftp_windowed_wanted(const transfer_extras& /*extras*/) {
  return false;
}
[[nodiscard]] constexpr std::optional<int> tftp_windowed_open(dl_tftp_session& /*session*/,
                                                              const tftp_beginning& /*begins*/,
                                                              const transfer_extras& /*extras*/) {
  return {};
}
[[nodiscard]] constexpr std::optional<int> tftp_windowed_read(dl_tftp_session& /*session*/,
                                                              std::span<char> /*to*/, dl_result* /*result*/) {
  return {};
}
[[nodiscard]] constexpr std::optional<int> tftp_windowed_send(dl_tftp_session& /*session*/, int /*file*/,
                                                              const char* /*local_path*/,
                                                              dl_result* /*result*/) {
  return {};
}
[[nodiscard]] constexpr std::optional<uint64_t> tftp_windowed_size(const dl_tftp_session& /*session*/) {
  return {};
}
[[nodiscard]] constexpr bool tftp_windowed_exceeds(dl_tftp_session& /*session*/, uint64_t /*limit*/,
                                                   dl_result* /*result*/) {
  return false;
}
constexpr void tftp_windowed_close(const dl_tftp_session& /*session*/) {}

#endif

}  // namespace fetchrig
#endif
