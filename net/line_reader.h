// SPDX-License-Identifier: MIT
// line_reader.h: one line of a text protocol, up to its CR LF. Bytes are peeked at first, so that nothing behind a
// line is taken and no state is kept between lines. Knows neither what a line says nor what to log. One thread at
// a time per stream.
#ifndef FETCHRIG_NET_LINE_READER_H
#define FETCHRIG_NET_LINE_READER_H

#include <string_view>

#include "net/stream.h"

namespace fetchrig {

enum class line_state {
  complete,     // without its line end
  full,         // the buffer is; what is behind comes with the next call
  closed,       // the stream ended: what had arrived
  too_long,     // for `room`
  peek_failed,  // as `io` tells
  read_failed,
};

struct line_result {
  line_state state;
  std::string_view text = {};  // in the caller's buffer
  io_result io = {};
};

// How far a line may reach. A peek sees no more than fits: at first `initial` bytes, doubled up to the buffer's size
// whenever they are full, one left free. A line that leaves less than one byte of `room`, its line end counted, fails
// once so much of it was taken.
struct line_limits {
  std::size_t initial;
  std::size_t room;
};

// Reads one line through `buffer`. Each wait takes at most timeout_s seconds.
[[nodiscard]] line_result read_line(stream& from, std::span<char> buffer, const line_limits& limits,
                                    int timeout_s);

}  // namespace fetchrig
#endif
