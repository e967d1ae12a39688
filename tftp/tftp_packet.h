// SPDX-License-Identifier: MIT
// tftp_packet.h: TFTP packets as bytes (RFC 1350 with the block-size option of RFC 2347 and RFC 2348):
// building what we send and taking apart what arrives. Knows no sockets and no sessions. A block has at most
// 1432 bytes, so that a datagram fits an Ethernet frame; every buffer that receives one has
// tftp_packet_capacity bytes. No state; any thread.
#ifndef FETCHRIG_TFTP_TFTP_PACKET_H
#define FETCHRIG_TFTP_TFTP_PACKET_H

#include <stdint.h>

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace fetchrig {

inline constexpr int tftp_header_len = 4;  // opcode and block number of DATA and ACK
inline constexpr int tftp_default_blksize = 512;
inline constexpr int tftp_min_blksize = 24;
inline constexpr int tftp_max_blksize = 1432;  // asked for, and the largest accepted
inline constexpr int tftp_packet_capacity = tftp_header_len + tftp_max_blksize;
inline constexpr std::size_t tftp_max_name_len = 255;
inline constexpr uint16_t tftp_error_options = 8;  // RFC 2347: the options are refused

enum class tftp_opcode : uint16_t { rrq = 1, wrq = 2, data = 3, ack = 4, error = 5, oack = 6 };

using tftp_packet_buffer = std::array<char, tftp_packet_capacity>;

// What a received datagram is. ERROR, requests, unknown opcodes and datagrams too short for their
// opcode are all `unexpected`.
enum class tftp_kind { unexpected, data, ack, oack };

struct tftp_packet {
  tftp_kind kind = tftp_kind::unexpected;
  uint16_t block = 0;     // DATA and ACK
  std::string_view body;  // DATA: the payload; OACK: the option list; borrowed from the datagram
};

[[nodiscard]] tftp_packet tftp_parse_packet(std::string_view datagram);

// Writes opcode and number, the start of DATA, ACK and ERROR.
void tftp_write_header(std::span<char, tftp_header_len> to, tftp_opcode opcode, uint16_t number);

// Writes a request (RRQ or WRQ) in octet mode that asks for blocks of 1432 bytes. One leading slash of the
// name is left out. Returns the packet's length, 0 when the name has more than 255 characters.
[[nodiscard]] std::size_t tftp_build_request(tftp_opcode opcode, std::string_view remote_name,
                                             tftp_packet_buffer& buffer);

// Writes an ERROR packet. Returns its length, 0 when the message does not fit.
[[nodiscard]] std::size_t tftp_build_error(uint16_t code, std::string_view message,
                                           tftp_packet_buffer& buffer);

// The value of the "blksize" option (any letter case) in an OACK's list of terminated names and values.
[[nodiscard]] std::optional<std::string_view> tftp_find_blksize(std::string_view options);

// The block size that `text` begins with (a sign is allowed) when it is in 24..max, else -1; logs which.
[[nodiscard]] int tftp_check_blksize(std::string_view text, int max);

}  // namespace fetchrig
#endif
