// SPDX-License-Identifier: MIT
// exports.cpp: the exported FTP calls.
#include <string.h>

#include "core/boundary.h"
#include "ftp/ftp_data.h"
#include "ftp/ftp_download.h"
#include "ftp/ftp_upload.h"
#include "include/fetchrig.h"
#include "log/log.h"

using namespace fetchrig;

namespace {

int refuse(dl_result* result) {
  return fail(result, log_and_return(DL_LOG_FTP, DL_ERR_PARAMETER, "ftp read with invalid parameter\n"));
}

}  // namespace

int dl_ftp_open(dl_ftp_session** session, const char* host, uint32_t port, const char* user,
                const char* password, const char* path, dl_result* result) {
  return guarded_transfer(result, [&] {
    return ftp_open({session, result}, {host, port, user, password}, path);
  });
}

int dl_ftp_read(dl_ftp_session* session, char* buffer, int32_t size, dl_result* result) {
  if (!buffer || !result || size < 0 || !ftp_usable(session)) return refuse(result);
  return guarded_transfer(result, [&] {
    return ftp_read(*session, {buffer, static_cast<std::size_t>(size)}, result);
  });
}

void dl_ftp_close(dl_ftp_session* session) {
  guarded([&] { ftp_close(session); });
}

int dl_ftp_recv_to_file(const char* host, uint32_t port, const char* user, const char* password,
                        const char* path, const char* local_path, dl_result* result) {
  return guarded_transfer(result, [&] {
    return ftp_recv_to_file({host, port, user, password}, path, local_path, result);
  });
}

int dl_ftp_send_open(dl_ftp_session** session, const char* host, uint32_t port, const char* user,
                     const char* password, const char* local_path, const char* remote_name, int32_t post_mode,
                     uint32_t limit_mode, dl_result* result) {
  return guarded_transfer(result, [&] {
    return ftp_send_open({session, result}, {host, port, user, password},
                         {local_path, remote_name, post_mode, limit_mode});
  });
}

int dl_ftp_send(dl_ftp_session* session, const char* local_path, dl_result* result) {
  if (!result || !ftp_usable(session)) return refuse(result);
  return guarded_transfer(result, [&] { return static_cast<int>(ftp_send(*session, {local_path}, result)); });
}

int dl_ftp_send_file(const char* host, uint32_t port, const char* user, const char* password,
                     const char* remote_name, const char* local_path, int32_t post_mode, uint32_t limit_mode,
                     dl_result* result) {
  return guarded_transfer(result, [&] {
    return ftp_send_file({host, port, user, password}, {local_path, remote_name, post_mode, limit_mode},
                         result);
  });
}

int dl_ftp_create_data_conn(dl_ftp_session* session, char* reply, int32_t reply_size, int32_t timeout_s) {
  const bool good = is_ftp_session(session) && reply && reply_size > 0 &&
                    strnlen(session->host, sizeof session->host) < sizeof session->host;
  if (!good)
    return log_and_return(DL_LOG_FTP, DL_ERR_PARAMETER, "ftp data connection with invalid parameter\n");
  const auto create = [&] {
    ftp_reply line({reply, static_cast<std::size_t>(reply_size)});
    return ftp_create_data_conn(*session, line, timeout_s);
  };
  return guarded(create, [] { return int{DL_ERR_MEMORY}; });
}
