// SPDX-License-Identifier: MIT
// whole_body.h: responses that count only when they are whole, for sessions opened with DL_EXTRA_WHOLE_BODIES: a body
// that ends before its length, its last chunk or TLS's farewell fails; interim responses are passed over; statuses
// without a body have none; lengths have 64 bits (RFC 9110, RFC 9112 sections 6 to 8). Bytes go straight to the caller,
// nothing is held. One thread at a time per session.
#ifndef FETCHRIG_HTTP_EXTRA_WHOLE_BODY_H
#define FETCHRIG_HTTP_EXTRA_WHOLE_BODY_H

#include <stdint.h>

#include <span>

#include "core/extras.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

struct http_channel;
struct http_response_facts;

// Where a response's body stands.
struct whole_body {
  enum class framing { none, length, chunks, until_close };
  uint64_t limit = 0;  // bytes; of a body that nothing announces
  framing framed = framing::none;
  uint64_t left = 0;     // of the body, of the chunk, or up to the limit
  bool in_body = false;  // a chunk's line end comes before the next size
  bool ended = false;
  bool failed = false;
  bool too_long = false;  // why it failed
};

// How strictly a response's head is read.
struct head_rules {
  std::size_t max_line_bytes;  // a longer line comes in pieces, or fails where `is_whole`
  bool is_whole;               // interim responses are none, and a head that ends early fails
};

inline constexpr std::size_t max_whole_line_bytes = 16384;

#if FETCHRIG_EXTRAS

// Prepares the session for whole bodies when `extras` asks for them. Returns 0 or -7.
[[nodiscard]] int ask_for_whole_bodies(const http_channel& channel, const transfer_extras& extras);

// Prepares the connection for the next response and tells how to read its head; `classic` without whole bodies.
[[nodiscard]] head_rules rules_of_head(const http_channel& channel, const head_rules& classic);

// Whether a request that could not be sent to its end (`code`) may have been answered before: a server that refuses an
// upload says so, and then takes no more of it.
[[nodiscard]] bool may_have_answered(const http_channel& channel, int code);

// Finds out how the body is framed. Returns 0, or -8, logged, when the head contradicts itself.
[[nodiscard]] int begin_whole_body(http_channel& channel, http_response_facts& facts);

// As http_read(), up to `wanted` bytes of `to`: bytes that came before a failure are delivered, the next call fails.
[[nodiscard]] int read_whole_body(http_channel& channel, std::span<char> to, std::size_t wanted,
                                  dl_result& result);

[[nodiscard]] dl_body_end end_of_whole_body(const whole_body& body);

#else

inline int ask_for_whole_bodies(const http_channel& /*channel*/, const transfer_extras& /*extras*/) {
  return 0;
}
inline head_rules rules_of_head(const http_channel& /*channel*/, const head_rules& classic) {
  return classic;
}
inline bool may_have_answered(const http_channel& /*channel*/, int /*code*/) {
  return false;
}
inline int begin_whole_body(http_channel& /*channel*/, http_response_facts& /*facts*/) {
  return 0;
}
inline int read_whole_body(http_channel& /*channel*/, std::span<char> /*to*/, std::size_t /*wanted*/,
                           dl_result& /*result*/) {
  return -1;
}
inline dl_body_end end_of_whole_body(const whole_body& /*body*/) {
  return DL_BODY_OPEN;
}

#endif

}  // namespace fetchrig
#endif
