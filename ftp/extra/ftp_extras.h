// SPDX-License-Identifier: MIT
// ftp_extras.h: what a session does differently where extras ask for it: a control and a data connection under TLS (RFC
// 4217), another way to the data connection, sizes of 64 bits. The classic way asks here wherever one of them has a
// say; for a session without extras, and for a record of the caller's own, each answer is the classic one. What holds
// is settled when the session begins. One thread at a time per session.
#ifndef FETCHRIG_FTP_EXTRA_FTP_EXTRAS_H
#define FETCHRIG_FTP_EXTRA_FTP_EXTRAS_H

#include <limits.h>
#include <stdint.h>

#include <algorithm>
#include <optional>
#include <span>

#include "core/extras.h"
#include "core/files.h"
#include "ftp/ftp_reply.h"
#include "include/fetchrig_types.h"
#include "net/send_file.h"
#include "net/stream.h"

namespace fetchrig {

#if FETCHRIG_EXTRAS

// The begin and the end of a session. The end comes before its sockets are closed.
void ftp_extras_begin(const dl_ftp_session& session, const transfer_extras& extras);
void ftp_extras_end(const dl_ftp_session& session);

// Secures the control connection behind the greeting, and the data connection once the server has accepted the
// transfer. Return 0 or a negative code, logged: -3 for a server that refuses and for a failed handshake.
[[nodiscard]] int ftp_extras_secure(const dl_ftp_session& session, ftp_reply& reply);
[[nodiscard]] int ftp_extras_secure_data(const dl_ftp_session& session);
// Null: the connection is plain.
[[nodiscard]] stream* ftp_extras_control(const dl_ftp_session& session);
[[nodiscard]] stream* ftp_extras_data(const dl_ftp_session& session);

// The password to send; null: none.
[[nodiscard]] const char* ftp_extras_password(const dl_ftp_session& session, const char* user,
                                              const char* password);
// Whether PASV is asked for after this refusal of EPSV; nothing: as in the classic way.
[[nodiscard]] bool ftp_extras_falls_back(const dl_ftp_session& session, std::string_view refusal);
// Where a data connection goes whatever address PASV told. Returns false where that one holds.
[[nodiscard]] bool ftp_extras_host(const dl_ftp_session& session, std::span<char> host, int& ipv6);

// Sizes: the limit where option 6 says `option`; the size of the local file, -1 when it is none to send; what the
// server says of the remote file, as far as it counts.
[[nodiscard]] uint64_t ftp_extras_limit(const dl_ftp_session& session, uint32_t option);
[[nodiscard]] int64_t ftp_extras_local_size(const dl_ftp_session& session, const char* path);
[[nodiscard]] uint64_t ftp_extras_remote_size(const dl_ftp_session& session, uint64_t size);
// The largest file of an upload whose count nobody is told.
[[nodiscard]] int64_t ftp_extras_max_upload(const dl_ftp_session& session);

// A download of `left` bytes, more than `remaining` counts: whether the rest is counted here, for `remaining` to be
// filled up from it before each read.
[[nodiscard]] bool ftp_extras_count(dl_ftp_session& session, uint64_t left);
void ftp_extras_fill_up(dl_ftp_session& session);
// For a download that may go on: all bytes that are still to come, nothing when it may not or they cannot be counted;
// and how many there are behind those that are held.
[[nodiscard]] std::optional<uint64_t> ftp_extras_left(const dl_ftp_session& session);
void ftp_extras_set_left(dl_ftp_session& session, uint64_t left);
// All bytes were read: 0, or -1 with the result filled when the data connection does not end as it must.
[[nodiscard]] int ftp_extras_end_download(const dl_ftp_session& session, dl_result* result);

// The file through a secured data connection, and its end; nothing, and true: plain.
[[nodiscard]] std::optional<send_result> ftp_extras_send(const dl_ftp_session& session, int file,
                                                         int64_t max_bytes);
[[nodiscard]] bool ftp_extras_end_upload(const dl_ftp_session& session);

#else

constexpr void ftp_extras_begin(const dl_ftp_session& /*session*/, const transfer_extras& /*extras*/) {}
constexpr void ftp_extras_end(const dl_ftp_session& /*session*/) {}
[[nodiscard]] constexpr int ftp_extras_secure(const dl_ftp_session& /*session*/, ftp_reply& /*reply*/) {
  return 0;
}
[[nodiscard]] constexpr int ftp_extras_secure_data(const dl_ftp_session& /*session*/) {
  return 0;
}
[[nodiscard]] constexpr stream* ftp_extras_control(const dl_ftp_session& /*session*/) {
  return nullptr;
}
[[nodiscard]] constexpr stream* ftp_extras_data(const dl_ftp_session& /*session*/) {
  return nullptr;
}
[[nodiscard]] constexpr const char* ftp_extras_password(const dl_ftp_session& /*session*/,
                                                        const char* /*user*/, const char* password) {
  return password;
}
[[nodiscard]] constexpr bool ftp_extras_falls_back(const dl_ftp_session& /*session*/,
                                                   std::string_view /*refusal*/) {
  return false;
}
[[nodiscard]] constexpr bool ftp_extras_host(const dl_ftp_session& /*session*/, std::span<char> /*host*/,
                                             int& /*ipv6*/) {
  return false;
}
[[nodiscard]] constexpr uint64_t ftp_extras_limit(const dl_ftp_session& /*session*/, uint32_t option) {
  return option;
}
[[nodiscard]] inline int64_t ftp_extras_local_size(const dl_ftp_session& /*session*/, const char* path) {
  return file_size(path);
}
[[nodiscard]] constexpr uint64_t ftp_extras_remote_size(const dl_ftp_session& /*session*/, uint64_t size) {
  return std::min<uint64_t>(size, UINT32_MAX);
}
[[nodiscard]] constexpr int64_t ftp_extras_max_upload(const dl_ftp_session& /*session*/) {
  return INT_MAX;
}
[[nodiscard]] constexpr bool ftp_extras_count(dl_ftp_session& /*session*/, uint64_t /*left*/) {
  return false;
}
constexpr void ftp_extras_fill_up(dl_ftp_session& /*session*/) {}
[[nodiscard]] constexpr int ftp_extras_end_download(const dl_ftp_session& /*session*/,
                                                    dl_result* /*result*/) {
  return 0;
}
[[nodiscard]] constexpr std::optional<send_result> ftp_extras_send(const dl_ftp_session& /*session*/,
                                                                   int /*file*/, int64_t /*max_bytes*/) {
  return {};
}
[[nodiscard]] constexpr bool ftp_extras_end_upload(const dl_ftp_session& /*session*/) {
  return true;
}

#endif

}  // namespace fetchrig
#endif
