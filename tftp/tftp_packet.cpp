// SPDX-License-Identifier: MIT
// tftp_packet.cpp: building TFTP packets and taking them apart.
#include "tftp/tftp_packet.h"

#include <string.h>

#include "core/cursor.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::string_view octet_mode = "octet";
constexpr std::string_view blksize_option = "blksize";
constexpr std::string_view blksize_wanted = "1432";

// Appends to a packet; whoever uses it has checked that everything fits.
class packet_writer {
 public:
  explicit packet_writer(std::span<char> to) : to_(to) {}

  void number(uint16_t value) {
    to_[length_++] = static_cast<char>(value >> 8);
    to_[length_++] = static_cast<char>(value & 0xff);
  }
  void text(std::string_view value) {
    if (!value.empty()) memcpy(to_.subspan(length_).data(), value.data(), value.size());
    length_ += value.size();
    to_[length_++] = '\0';
  }
  std::size_t length() const { return length_; }

 private:
  std::span<char> to_;
  std::size_t length_ = 0;
};

}  // namespace

tftp_packet tftp_parse_packet(std::string_view datagram) {
  cursor in(datagram);
  const auto opcode = in.u16be();
  if (!opcode) return {};
  if (*opcode == static_cast<uint16_t>(tftp_opcode::oack)) return {tftp_kind::oack, 0, in.rest()};

  const bool is_data = *opcode == static_cast<uint16_t>(tftp_opcode::data);
  if (!is_data && *opcode != static_cast<uint16_t>(tftp_opcode::ack)) return {};
  const auto block = in.u16be();
  if (!block) return {};
  if (is_data) return {tftp_kind::data, *block, in.rest()};
  return {tftp_kind::ack, *block, {}};
}

void tftp_write_header(std::span<char, tftp_header_len> to, tftp_opcode opcode, uint16_t number) {
  packet_writer out(to);
  out.number(static_cast<uint16_t>(opcode));
  out.number(number);
}

std::size_t tftp_build_request(tftp_opcode opcode, std::string_view remote_name, tftp_packet_buffer& buffer) {
  if (remote_name.size() > tftp_max_name_len) return 0;
  if (remote_name.starts_with('/')) remote_name.remove_prefix(1);
  packet_writer out(buffer);
  out.number(static_cast<uint16_t>(opcode));
  for (const std::string_view piece : {remote_name, octet_mode, blksize_option, blksize_wanted})
    out.text(piece);
  return out.length();
}

std::size_t tftp_build_error(uint16_t code, std::string_view message, tftp_packet_buffer& buffer) {
  if (message.size() >= buffer.size() - tftp_header_len) return 0;
  packet_writer out(buffer);
  out.number(static_cast<uint16_t>(tftp_opcode::error));
  out.number(code);
  out.text(message);
  return out.length();
}

std::optional<std::string_view> tftp_find_blksize(std::string_view options) {
  cursor in(options);
  while (const auto name = in.terminated()) {
    const auto value = in.terminated();
    if (!value) return std::nullopt;
    if (equal_ignoring_case(*name, blksize_option)) return value;
  }
  return std::nullopt;
}

int tftp_check_blksize(std::string_view text, int max) {
  std::string_view digits = text;
  // No negative number is in the range, so a minus is left in place and fails as no digit.
  if (digits.starts_with('+')) digits.remove_prefix(1);
  const auto size = leading_number(digits, static_cast<uint64_t>(max));
  if (!size || *size < tftp_min_blksize) {
    log_line(DL_LOG_TFTP, DL_LOG_ERROR, "bad blocksize '%s'\n", printable(text).c_str());
    return -1;
  }
  log_line(DL_LOG_TFTP, DL_LOG_INFO, "using blksize %u\n", static_cast<unsigned>(*size));
  return static_cast<int>(*size);
}

}  // namespace fetchrig
