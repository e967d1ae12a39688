// SPDX-License-Identifier: MIT
// tftp_download.cpp: fetching a file.
#include "tftp/tftp_download.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "core/config.h"
#include "core/download_file.h"
#include "core/owners.h"
#include "core/result.h"
#include "log/log.h"
#include "net/socket.h"
#include "tftp/extra/tftp_windowed.h"

namespace fetchrig {
namespace {

constexpr int min_answer_wait_s = 3;
constexpr int unexpected_budget = 6;  // packets that one read call puts up with

// One read call on its way. `sizes_open` says that neither an OACK nor DATA has been taken in this session
// yet, so that an OACK may still set the block size; any later one is only answered.
struct read_call {
  dl_tftp_session& session;
  std::span<char> rest;  // of the caller's buffer
  dl_result* result;
  int timeout_s;
  bool sizes_open;
  int budget = unexpected_budget;
};

// Gives the caller what earlier blocks left over.
void deliver_carried(read_call& call) {
  dl_tftp_session& session = call.session;
  const auto held = static_cast<std::size_t>(std::clamp<int32_t>(session.carry_len, 0, tftp_max_blksize));
  const std::size_t count = std::min(call.rest.size(), held);
  memcpy(call.rest.data(), session.carry, count);
  memmove(session.carry, session.carry + count, held - count);
  session.carry_len = static_cast<int32_t>(held - count);
  call.rest = call.rest.subspan(count);
}

int acknowledge(read_call& call, uint16_t block) {
  if (tftp_send_ack(call.session, block) == 0) return 0;
  log_line(DL_LOG_TFTP, DL_LOG_ERROR, "Send Ack Error\n");
  return fail(call.result, DL_ERR_SEND);
}

int take_oack(read_call& call, std::string_view options) {
  --call.budget;
  if (!call.sizes_open) {
    log_line(DL_LOG_TFTP, DL_LOG_INFO, "recv OACK\n");
  } else if (tftp_take_oack(call.session, options, call.result) < 0) {
    return -1;
  }
  call.sizes_open = false;
  tftp_send_ack(call.session, 0);
  return 0;
}

int refuse_block(read_call& call, uint16_t block) {
  tftp_drain(call.session.sock);
  --call.budget;
  const auto previous = static_cast<uint16_t>(call.session.block - 1);
  return block == previous ? acknowledge(call, block) : 0;
}

// Takes the block that is due. Its ACK goes out before the session changes, so that a failure leaves it as it was.
int take_block(read_call& call, const tftp_packet& packet) {
  if (acknowledge(call, packet.block) < 0) return -1;
  dl_tftp_session& session = call.session;
  const std::size_t count = std::min(call.rest.size(), packet.body.size());
  const std::string_view left_over = packet.body.substr(count);
  memcpy(call.rest.data(), packet.body.data(), count);
  memcpy(session.carry, left_over.data(), left_over.size());
  session.carry_len = static_cast<int32_t>(left_over.size());
  call.rest = call.rest.subspan(count);
  call.sizes_open = false;
  session.block = static_cast<uint16_t>(session.block + 1);
  session.done = packet.body.size() + tftp_header_len < tftp_receive_size(session);
  return 0;
}

// Takes one datagram. Returns 0, or -1 with the result filled.
int take_datagram(read_call& call) {
  tftp_packet_buffer buffer;
  const ssize_t length = tftp_receive(call.session, call.timeout_s, buffer, call.result);
  if (length < 0) return -1;
  const tftp_packet packet = tftp_parse_packet({buffer.data(), static_cast<std::size_t>(length)});
  switch (packet.kind) {
    case tftp_kind::oack:
      return take_oack(call, packet.body);
    case tftp_kind::data:
      if (packet.block == static_cast<uint16_t>(call.session.block)) return take_block(call, packet);
      return refuse_block(call, packet.block);
    case tftp_kind::ack:
    case tftp_kind::unexpected:
      break;
  }
  --call.budget;
  return 0;
}

// Fills the caller's buffer. Returns 0 or -1.
int fill(read_call& call) {
  deliver_carried(call);
  while (!call.session.done && !call.rest.empty() && call.budget > 0) {
    if (take_datagram(call) < 0) return -1;
  }
  return call.budget > 0 ? 0 : fail(call.result, DL_ERR_READ);
}

// Waits for the server's first answer, which the first read takes. A wait that fails is left for the read to report.
bool answered(const dl_tftp_session& session, int timeout_s) {
  return wait_ready(session.sock, wait_readable, std::max(timeout_s, min_answer_wait_s)) != 0;
}

// Returns 0 or a negative code.
int request_file(const dl_tftp_session& session, const char* remote_name, int timeout_s) {
  if (const int code = tftp_send_request(session, tftp_opcode::rrq, remote_name); code < 0) return code;
  return answered(session, timeout_s) ? 0 : DL_ERR_NOT_TFTP;
}

// Reads into the file until the end. Returns 0 or -1 with the result filled.
int copy_to_file(dl_tftp_session& session, download_file& file, dl_result* result) {
  for (;;) {
    const std::span<char> room = file.room();
    const auto size = std::min<std::size_t>(room.size(), tftp_max_blksize);
    const int count = tftp_read(session, room.first(size), result);
    if (count < 0) return -1;
    if (count == 0) return file.finish(result);
    if (file.accept(static_cast<uint32_t>(count), result) < 0) return -1;
  }
}

}  // namespace

int tftp_open(dl_tftp_session** handle, const tftp_target& target, dl_result* result,
              const transfer_extras& extras) {
  if (tftp_check_open(handle, target, result) < 0) return -1;
  if (!config_initialised()) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "config doesn't init\n");
    *handle = nullptr;
    return fail(result, DL_ERR_NOT_INITIALISED);
  }
  const net_options options = net_settings();
  if (tftp_start(handle, target, 1, {options.ipv6, extras.tftp_ports}, result) < 0) return -1;
  log_line(DL_LOG_TFTP, DL_LOG_INFO, "Send Request Packet\n");
  const tftp_beginning begins = {tftp_opcode::rrq, target.remote_name, {}, options.net_timeout_s};
  const auto negotiated = tftp_windowed_open(**handle, begins, extras);
  const int code =
      negotiated ? *negotiated : request_file(**handle, target.remote_name, options.net_timeout_s);
  if (code < 0) return tftp_abandon(handle, result, code);
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "tftp open success\n");
  return 0;
}

std::optional<uint64_t> tftp_announced_size(const dl_tftp_session& session) {
  return tftp_windowed_size(session);
}

int tftp_read(dl_tftp_session& session, std::span<char> to, dl_result* result) {
  if (const auto count = tftp_windowed_read(session, to, result)) return *count;
  // The carry buffer marks a session that has begun: it stays only once a packet that settles the sizes was
  // taken. The block number alone would not tell, as it wraps.
  const bool fresh = !session.carry;
  if (fresh) session.carry = static_cast<char*>(malloc(tftp_max_blksize));
  if (!session.carry) return fail(result, DL_ERR_MEMORY);
  if (fresh) session.carry_len = 0;

  read_call call{session, to, result, net_timeout_seconds(), fresh && session.block == 1};
  const int rc = fill(call);
  if (call.sizes_open) unique_text(std::exchange(session.carry, nullptr)).reset();
  return rc < 0 ? -1 : static_cast<int>(to.size() - call.rest.size());
}

int tftp_recv_to_file(const tftp_target& target, const char* local_path, dl_result* result) {
  const transfer_extras extras = current_extras();
  dl_tftp_session* opened = nullptr;
  if (tftp_open(&opened, target, result, extras) < 0) return -1;
  const unique_tftp session(opened);
  const uint64_t limit = extras.max_file_size(max_file_size());
  if (tftp_windowed_exceeds(*session, limit, result)) return -1;
  download_file file(DL_LOG_TFTP, tftp_max_blksize, limit);
  if (!file.open(local_path ? local_path : target.remote_name)) return -1;
  if (copy_to_file(*session, file, result) < 0) return -1;
  log_line(DL_LOG_TFTP, DL_LOG_NOTICE, "recv: %lld bytes\n", static_cast<long long>(file.total()));
  return 0;
}

}  // namespace fetchrig
