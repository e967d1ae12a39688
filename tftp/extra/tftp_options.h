// SPDX-License-Identifier: MIT
// tftp_options.h: options beside the block size of the classic request, as bytes: what is asked for and what a server
// agrees to (RFC 2347, RFC 2348, RFC 2349, RFC 7440). Knows no sockets. Any thread.
#ifndef FETCHRIG_TFTP_EXTRA_TFTP_OPTIONS_H
#define FETCHRIG_TFTP_EXTRA_TFTP_OPTIONS_H

#include <stdint.h>

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "tftp/tftp_packet.h"

namespace fetchrig {

// What a request asks for; what is not there is not asked for.
struct tftp_wishes {
  std::optional<uint32_t> blksize;
  std::optional<uint32_t> window;
  std::optional<uint64_t> tsize;  // bytes of an upload; 0 asks for those of a download
  std::optional<uint32_t> timeout_s;
};

// What holds; the defaults where a server knows no options.
struct tftp_terms {
  uint32_t blksize = tftp_default_blksize;
  uint32_t window = 1;
  std::optional<uint64_t> tsize;
};

using tftp_request_buffer = std::array<char, 512>;  // requests are no longer (RFC 2347)

// Writes a request in octet mode. One leading slash of the name is left out. The name has at most 255 characters.
// Returns the packet.
[[nodiscard]] std::string_view tftp_build_wishes(tftp_opcode opcode, std::string_view remote_name,
                                                 const tftp_wishes& wishes, tftp_request_buffer& buffer);

// What an OACK's list agrees to. Nothing when it is malformed, grants more than was asked for, or something that was
// not asked for; names that are unknown are passed over.
[[nodiscard]] std::optional<tftp_terms> tftp_parse_terms(std::string_view options, const tftp_wishes& wishes);

}  // namespace fetchrig
#endif
