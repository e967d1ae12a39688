// SPDX-License-Identifier: MIT
// tftp_upload.cpp: sending a file.
#include "tftp/tftp_upload.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "core/cause.h"
#include "core/config.h"
#include "core/files.h"
#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "core/upload_file.h"
#include "log/log.h"
#include "log/printable.h"
#include "tftp/extra/tftp_windowed.h"

namespace fetchrig {
namespace {

constexpr int max_repeats = 5;  // of the request, and of each block

// A DATA packet being sent: the header's place and the payload.
struct data_packet {
  tftp_packet_buffer bytes;
  std::size_t length = 0;  // header and payload
};

// Sends the write request until the server accepts it. Returns 0 or a negative code; an OACK sets the sizes.
int request_accepted(dl_tftp_session& session, const char* remote_name, int timeout_s, dl_result* result) {
  for (int repeats = 0; repeats <= max_repeats; ++repeats) {
    if (const int code = tftp_send_request(session, tftp_opcode::wrq, remote_name); code < 0) return code;
    tftp_packet_buffer buffer;
    const ssize_t length = tftp_receive(session, timeout_s, buffer, result);
    if (length < 0) return DL_ERR_READ;
    const tftp_packet reply = tftp_parse_packet({buffer.data(), static_cast<std::size_t>(length)});
    if (reply.kind == tftp_kind::oack)
      return tftp_take_oack(session, reply.body, result) < 0 ? DL_ERR_READ : 0;
    if (reply.kind != tftp_kind::ack) continue;
    if (reply.block == 0) return 0;
    tftp_drain(session.sock);
  }
  return DL_ERR_READ;
}

// Sends the block until its ACK arrives; after the last repeat it counts as delivered whatever the answer.
// Returns 0 or -1 with the result filled.
int deliver_block(dl_tftp_session& session, const data_packet& packet, int timeout_s, dl_result* result) {
  for (int repeats = 0; repeats <= max_repeats; ++repeats) {
    if (tftp_send_packet(session, {packet.bytes.data(), packet.length}) !=
        static_cast<ssize_t>(packet.length)) {
      note_symptom(DL_CAUSE_BROKEN, errno);
      log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send DATA Error\n");
      return fail(result, DL_ERR_SEND);
    }
    tftp_packet_buffer buffer;
    const ssize_t length = tftp_receive(session, timeout_s, buffer, result);
    if (length < 0) return -1;
    const tftp_packet reply = tftp_parse_packet({buffer.data(), static_cast<std::size_t>(length)});
    if (reply.kind != tftp_kind::ack) continue;
    if (reply.block == static_cast<uint16_t>(session.block)) return 0;
    if (!session.done) tftp_drain(session.sock);
  }
  return 0;
}

// Reads the next block from the file; a short one is the last. Returns false when reading fails, which is logged.
bool read_block(dl_tftp_session& session, FILE* file, const char* local_path, data_packet& packet) {
  const std::span<char, tftp_packet_capacity> bytes(packet.bytes);
  const std::span<char> payload = bytes.subspan<tftp_header_len>();
  const auto wanted = static_cast<std::size_t>(std::clamp<int32_t>(session.blksize, 1, tftp_max_blksize));
  memset(payload.data(), 0, payload.size());
  const std::size_t count = fread(payload.data(), 1, wanted, file);
  if (count < wanted && ferror(file)) {
    log_unreadable(DL_LOG_TFTP, local_path, errno);
    return false;
  }
  if (count < wanted) session.done = 1;
  tftp_write_header(bytes.first<tftp_header_len>(), tftp_opcode::data, static_cast<uint16_t>(session.block));
  packet.length = tftp_header_len + count;
  return true;
}

// Sends the rest of the file. Returns the bytes sent or -1 with the result filled.
int send_blocks(dl_tftp_session& session, FILE* file, const char* local_path, int timeout_s,
                dl_result* result) {
  data_packet packet;
  int total = 0;
  while (!session.done) {
    if (!read_block(session, file, local_path, packet)) return fail(result, DL_ERR_READ);
    const int count = static_cast<int>(packet.length) - tftp_header_len;
    if (count > INT_MAX - total) {
      log_line(DL_LOG_TFTP, DL_LOG_ERROR, "File %s has 2 GiB or more\n", printable(local_path).c_str());
      return fail(result, DL_ERR_READ);
    }
    if (deliver_block(session, packet, timeout_s, result) < 0) return -1;
    total += count;
    session.block = static_cast<uint16_t>(session.block + 1);
  }
  return total;
}

// The file, when it can be sent; what is in the way is logged.
unique_file open_upload(const char* local_path, uint64_t limit) {
  const int64_t size = file_size(local_path);
  if (size != -1 && static_cast<uint64_t>(size) > limit) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "File %s size larger than maxsize %ld\n",
             printable(local_path).c_str(), static_cast<long>(limit));
    return nullptr;
  }
  if (!is_upload_file(DL_LOG_TFTP, local_path)) return nullptr;
  unique_file file(fopen(local_path, "rbe"));
  if (!file) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Can't open %s\n", printable(local_path).c_str());
    return nullptr;
  }
  // A file that opens has a size; one without has more bytes than 31 bits count.
  if (size == -1) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "File %s has 2 GiB or more\n", printable(local_path).c_str());
    return nullptr;
  }
  return file;
}

}  // namespace

int tftp_send_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result,
                   std::optional<uint64_t> size, const transfer_extras& extras) {
  if (tftp_check_open(handle, target, result) < 0) return -1;
  const net_options options = net_settings();
  if (tftp_start(handle, target, 0, {options.ipv6, extras.tftp_ports}, result) < 0) return -1;
  log_line(DL_LOG_TFTP, DL_LOG_INFO, "Send Request Packet\n");
  const tftp_beginning begins = {tftp_opcode::wrq, target.remote_name, size, options.net_timeout_s};
  const auto negotiated = tftp_windowed_open(**handle, begins, extras);
  const int code = negotiated ? *negotiated
                              : request_accepted(**handle, target.remote_name, options.net_timeout_s, result);
  if (code < 0) return tftp_abandon(handle, result, code);
  (*handle)->block = 1;
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "tftp open success\n");
  return 0;
}

int tftp_send(dl_tftp_session& session, const char* local_path, dl_result* result,
              const transfer_extras& extras) {
  const net_options options = net_settings();
  const unique_file file = open_upload(local_path, extras.max_file_size(options.max_file_size));
  if (!file) return fail(result, DL_ERR_READ);
  if (const auto count = tftp_windowed_send(session, fileno(file.get()), local_path, result)) return *count;
  return send_blocks(session, file.get(), local_path, options.net_timeout_s, result);
}

int tftp_send_file(const tftp_target& target, const char* local_path, dl_result* result) {
  clear_cause();
  // Before the request, with which the server may empty the remote file.
  if (!is_upload_file(DL_LOG_TFTP, local_path)) return fail(result, DL_ERR_READ);
  tftp_target named = target;
  if (!named.remote_name || !*named.remote_name) named.remote_name = base_name(local_path).data();
  const transfer_extras extras = current_extras();
  if (tftp_windowed_wanted(extras) && !open_upload(local_path, extras.max_file_size(max_file_size())))
    return fail(result, DL_ERR_READ);
  dl_tftp_session* opened = nullptr;
  const int32_t size = file_size(local_path);
  const auto told = size >= 0 ? std::optional<uint64_t>(size) : std::nullopt;
  if (tftp_send_open(&opened, named, result, told, extras) < 0) return -1;
  const unique_tftp session(opened);
  const int total = tftp_send(*session, local_path, result, extras);
  if (total < 0) return -1;
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "send: %d bytes\n", total);
  return 0;
}

}  // namespace fetchrig
