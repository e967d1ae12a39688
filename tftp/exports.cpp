// SPDX-License-Identifier: MIT
// exports.cpp: the exported TFTP calls.
#include "core/boundary.h"
#include "core/ports.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "tftp/tftp_download.h"
#include "tftp/tftp_upload.h"

using namespace fetchrig;

namespace {

int refuse(dl_result* result) {
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Tftp read with invalid parameter\n");
  return fail(result, DL_ERR_PARAMETER);
}

}  // namespace

int dl_tftp_open(dl_tftp_session** session, const char* host, uint32_t port, const char* remote_name,
                 dl_result* result) {
  return guarded_transfer(result, [&] { return tftp_open(session, {host, port, remote_name}, result); });
}

int dl_tftp_read(dl_tftp_session* session, char* buffer, int32_t size, dl_result* result) {
  if (!buffer || !result || size < 0 || !tftp_usable(session)) return refuse(result);
  return guarded_transfer(result, [&] {
    return tftp_read(*session, {buffer, static_cast<std::size_t>(size)}, result);
  });
}

int dl_tftp_get_size(const dl_tftp_session* session, uint64_t* size) {
  const bool is_usable = session && session->magic == DL_TFTP_MAGIC && size;
  const auto announced = is_usable ? tftp_announced_size(*session) : std::nullopt;
  if (!announced) return -1;
  *size = *announced;
  return 0;
}

void dl_tftp_close(dl_tftp_session* session) {
  guarded([&] { tftp_close(session); });
}

int dl_tftp_recv_to_file(const char* host, uint32_t port, const char* remote_name, const char* local_path,
                         dl_result* result) {
  return guarded_transfer(result, [&] {
    return tftp_recv_to_file({host, port, remote_name}, local_path, result);
  });
}

int dl_tftp_send_open(dl_tftp_session** session, const char* host, uint32_t port, const char* remote_name,
                      dl_result* result) {
  return guarded_transfer(result, [&] { return tftp_send_open(session, {host, port, remote_name}, result); });
}

int dl_tftp_send(dl_tftp_session* session, const char* local_path, dl_result* result) {
  if (!local_path || !result || !tftp_usable(session)) return refuse(result);
  return guarded_transfer(result, [&] { return tftp_send(*session, local_path, result); });
}

int dl_tftp_send_file(const char* host, uint32_t port, const char* remote_name, const char* local_path,
                      dl_result* result) {
  if (!local_path || !*local_path || port > max_port || !result || !host)
    return fail(result, DL_ERR_PARAMETER);
  return guarded_transfer(result, [&] {
    return tftp_send_file({host, port, remote_name}, local_path, result);
  });
}
