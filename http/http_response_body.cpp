// SPDX-License-Identifier: MIT
// http_response_body.cpp: reading a response body.
#include "http/http_response_body.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "core/boundary.h"
#include "core/config.h"
#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "http/http_connection.h"
#include "http/http_status.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr uint32_t line_end_bytes = 2;
constexpr uint32_t min_chunk_capacity = 512;
// The most that is held of a body, beside what the caller was given.
constexpr uint32_t max_held_bytes = 65536;
constexpr uint32_t max_chunk_capacity = max_held_bytes + line_end_bytes;

bool is_hex_digit(char c) {
  return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'f');
}

// The size at the front of a chunk-size line, 0 without digits; UINT32_MAX when it does not fit 32 bits.
uint64_t parse_chunk_size(std::string_view line) {
  uint64_t size = 0;
  for (const char c : skip_white_space(line)) {
    const char digit = lower(c);
    if (!is_hex_digit(digit)) break;
    size = size * 16 + static_cast<uint64_t>(is_digit(digit) ? digit - '0' : digit - 'a' + 10);
    if (size > UINT32_MAX) return UINT32_MAX;
  }
  return size;
}

// A chunk-size line: what it says, and whether it is one, with digits and its CRLF.
struct size_line {
  uint64_t size = 0;
  bool whole = false;
};

// The chunk buffer: body bytes that the caller has not taken. Taken bytes at its front are dropped at once
// for a record without private state; with one they are skipped and dropped when room is needed.
//
// A chunk of at most max_held_bytes is held whole before its first byte is delivered. A larger one passes
// through in pieces: DL_HTTP_FLAG_IN_CHUNK is set meanwhile, the session's `remaining` counts what is still
// to come of the chunk and its line end, and the last two bytes held are kept back, for they pass for the
// line end when the stream ends there.
class chunk_reader {
 public:
  explicit chunk_reader(http_channel& channel) : channel_(channel) {}

  // Makes the buffer when there is none yet.
  int open();
  bool finished() const { return chunk().finished != 0; }
  std::size_t deliver(std::span<char> to);
  // Puts bytes that were delivered back to the front.
  void take_back(std::span<const char> delivered);
  // With everything delivered, reads the next chunk, or a piece of a large one, or the end of the body.
  // `held` bytes of the call are with the caller already. Returns 0 or a negative code.
  int fetch(std::size_t held);

 private:
  http_chunk_buf& chunk() const { return *channel_.session.chunk; }
  bool in_chunk() const { return (channel_.session.flags & DL_HTTP_FLAG_IN_CHUNK) != 0; }
  uint32_t begin() const { return channel_.own ? channel_.own->chunk_begin : 0; }
  void set_begin(uint32_t begin) {
    if (channel_.own) channel_.own->chunk_begin = begin;
  }
  void drop_line_end() { chunk().length -= std::min(line_end_bytes, chunk().length); }
  void compact();
  bool grow(uint64_t capacity);
  int receive(uint32_t wanted);
  int read_size_line(size_line& line);
  int read_last_line(uint32_t how);
  int read_whole(uint32_t size);
  void enter_large(uint32_t size);
  void leave_large();
  int read_piece();

  http_channel& channel_;
};

int chunk_reader::open() {
  if (!channel_.session.chunk) channel_.session.chunk = zeroed_record<http_chunk_buf>().release();
  return channel_.session.chunk ? 0 : log_and_return(DL_LOG_HTTP, DL_ERR_MEMORY, "Out of memory\n");
}

std::size_t chunk_reader::deliver(std::span<char> to) {
  http_chunk_buf& buffer = chunk();
  const uint32_t kept_back = in_chunk() ? std::min(line_end_bytes, buffer.length) : 0;
  const auto count = static_cast<uint32_t>(std::min<std::size_t>(to.size(), buffer.length - kept_back));
  if (count == 0) return 0;
  memcpy(to.data(), buffer.data + begin(), count);
  buffer.length -= count;
  if (buffer.length == 0) {
    set_begin(0);
  } else if (channel_.own) {
    set_begin(begin() + count);
  } else {
    memmove(buffer.data, buffer.data + count, buffer.length);
  }
  return count;
}

// Without memory for them the body ends here: what follows it would not be what comes next.
void chunk_reader::take_back(std::span<const char> delivered) {
  if (delivered.empty()) return;
  http_chunk_buf& buffer = chunk();
  compact();
  const uint64_t total = buffer.length + uint64_t{delivered.size()};
  if (total > buffer.capacity && !grow(total)) {
    leave_large();
    buffer.length = 0;
    buffer.finished = DL_HTTP_CHUNKS_CUT;
    return;
  }
  memmove(buffer.data + delivered.size(), buffer.data, buffer.length);
  memcpy(buffer.data, delivered.data(), delivered.size());
  buffer.length = static_cast<uint32_t>(total);
}

void chunk_reader::compact() {
  if (begin() == 0) return;
  memmove(chunk().data, chunk().data + begin(), chunk().length);
  set_begin(0);
}

bool chunk_reader::grow(uint64_t capacity) {
  auto* grown = static_cast<char*>(realloc(chunk().data, static_cast<std::size_t>(capacity)));
  if (!grown) return false;
  chunk().data = grown;
  chunk().capacity = static_cast<uint32_t>(capacity);
  return true;
}

// One receive of at most `wanted` bytes behind what is held. A full buffer doubles first, from 512 bytes on:
// it grows as bytes arrive, whatever size the server claims.
int chunk_reader::receive(uint32_t wanted) {
  http_chunk_buf& buffer = chunk();
  const uint64_t doubled = std::max<uint64_t>(uint64_t{buffer.capacity} * 2, min_chunk_capacity);
  if (buffer.length >= buffer.capacity && !grow(std::min<uint64_t>(doubled, max_chunk_capacity)))
    return DL_ERR_MEMORY;
  const std::size_t room = std::min(wanted, buffer.capacity - buffer.length);
  // Nothing is received beyond a chunk, so that the buffer and the read-ahead are never full together.
  const int count = http_recv(channel_, {buffer.data + buffer.length, room}, read_ahead_use::drain);
  if (count > 0) buffer.length += static_cast<uint32_t>(count);
  return count;
}

int chunk_reader::read_size_line(size_line& line) {
  std::array<char, chunk_line_bytes> text = {};
  bool at_end = false;
  const int length = http_read_line(channel_, chunk_line_bytes, usual_line_bytes, text, &at_end);
  if (length < 0) return log_and_return(DL_LOG_HTTP, length, "read chunked len error\n");
  const std::string_view digits = skip_white_space({text.data(), static_cast<std::size_t>(length)});
  line.size = parse_chunk_size(digits);
  line.whole = !at_end && !digits.empty() && is_hex_digit(digits.front());
  return 0;
}

int chunk_reader::read_last_line(uint32_t how) {
  chunk().finished = how;
  std::array<char, chunk_line_bytes> line = {};
  const int length = http_read_line(channel_, chunk_line_bytes, usual_line_bytes, line);
  if (channel_.own) channel_.own->response.has_trailer = length > 0;
  return length < 0 ? log_and_return(DL_LOG_HTTP, length, "read last EOL error\n") : 0;
}

// The chunk's bytes and its line end, which is dropped. A stream that ends early ends the chunk.
int chunk_reader::read_whole(uint32_t size) {
  const uint32_t end = size + line_end_bytes;
  int count = 1;
  while (count > 0 && chunk().length < end) count = receive(end - chunk().length);
  if (count < 0) chunk().length = 0;
  drop_line_end();
  return std::min(count, 0);
}

void chunk_reader::enter_large(uint32_t size) {
  channel_.session.flags |= DL_HTTP_FLAG_IN_CHUNK;
  channel_.session.remaining = size + line_end_bytes;
}

void chunk_reader::leave_large() {
  if (!in_chunk()) return;
  channel_.session.flags &= ~DL_HTTP_FLAG_IN_CHUNK;
  channel_.session.remaining = 0;
  drop_line_end();
}

int chunk_reader::read_piece() {
  compact();
  http_chunk_buf& buffer = chunk();
  const int count = receive(std::min(channel_.session.remaining, max_held_bytes - buffer.length));
  if (count < 0) return count;
  channel_.session.remaining -= static_cast<uint32_t>(count);
  if (count == 0 || channel_.session.remaining == 0) leave_large();
  // A buffer that was filled at once is too small for the speed of the stream; without memory it stays.
  const bool filled = buffer.length == buffer.capacity && buffer.capacity < max_chunk_capacity;
  if (filled) static_cast<void>(grow(std::min<uint64_t>(uint64_t{buffer.capacity} * 2, max_chunk_capacity)));
  return 0;
}

int chunk_reader::fetch(std::size_t held) {
  if (in_chunk()) return read_piece();
  size_line line;
  if (const int rc = read_size_line(line); rc < 0) return rc;
  // Where the stream ends too early, an empty line is read instead of the last chunk's.
  if (line.size == 0) return read_last_line(line.whole ? DL_HTTP_CHUNKS_ALL : DL_HTTP_CHUNKS_CUT);
  if (held + line.size + line_end_bytes > UINT32_MAX) return DL_ERR_MEMORY;
  const auto size = static_cast<uint32_t>(line.size);
  if (size <= max_held_bytes) return read_whole(size);
  enter_large(size);
  return 0;
}

int chunks_failed(int code, dl_result& result) {
  return fail(&result, log_and_return(DL_LOG_HTTP, code, "read chunked error\n"));
}

// Delivers until `wanted` bytes are there or the body has ended. The next call gets what a failed one had.
int read_chunked(http_channel& channel, std::span<char> to, std::size_t wanted, dl_result& result) {
  chunk_reader chunks(channel);
  if (const int rc = chunks.open(); rc < 0) return chunks_failed(rc, result);
  std::size_t placed = chunks.deliver(to);
  while (placed < wanted && !chunks.finished()) {
    if (const int rc = chunks.fetch(placed); rc < 0) {
      chunks.take_back(to.first(placed));
      return chunks_failed(rc, result);
    }
    placed += chunks.deliver(to.subspan(placed));
  }
  return static_cast<int>(placed);
}

// Whether a read meets, instead of the end, the place where option 6 cut a body of 4 GiB or more.
bool is_cut_off(const http_channel& channel, std::span<char> to) {
  return !to.empty() && channel.session.remaining == 0 && channel.own && channel.own->response.is_too_long;
}

// As read_chunked(), up to the length of the body; what a failed call has delivered is lost.
int read_by_length(http_channel& channel, std::span<char> to, std::size_t wanted, dl_result& result) {
  if (is_cut_off(channel, to)) {
    log_line(DL_LOG_HTTP, DL_LOG_ERROR, "exceed max size\n");
    return fail_exceeded(&result, max_file_size());
  }
  to = to.first(std::min<std::size_t>(to.size(), channel.session.remaining));
  wanted = std::min(wanted, to.size());
  std::size_t placed = 0;
  while (placed < wanted) {
    const int count = http_recv(channel, to.subspan(placed));
    if (count < 0) return fail(&result, log_and_return(DL_LOG_HTTP, count, "read error\n"));
    if (count == 0) break;
    placed += static_cast<std::size_t>(count);
  }
  channel.session.remaining -= static_cast<uint32_t>(placed);
  return static_cast<int>(placed);
}

int read_body(http_channel& channel, std::span<char> to, std::size_t wanted, dl_result& result) {
  if (channel.own && channel.own->whole) return read_whole_body(channel, to, wanted, result);
  return channel.is_chunked() ? read_chunked(channel, to, wanted, result)
                              : read_by_length(channel, to, wanted, result);
}

}  // namespace

int http_read(dl_http_session* session, char* buffer, int32_t size, dl_result* result) {
  const bool usable = buffer && result && size >= 0 && is_http_session(session) && session->sock != 0;
  if (!usable) {
    return fail(result, log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "http read with invalid parameter\n"));
  }
  return guarded_transfer(result, [&] {
    http_channel channel(*session);
    const auto wanted = static_cast<std::size_t>(size);
    return read_body(channel, {buffer, wanted}, wanted, *result);
  });
}

int http_read_some(http_channel& channel, std::span<char> to, dl_result& result) {
  return read_body(channel, to, 1, result);
}

http_drained http_drain(http_channel& channel, uint32_t limit) {
  std::array<char, 4096> scratch;
  dl_result ignored = {};
  uint64_t total = 0;
  for (;;) {
    const int count = http_read_some(channel, scratch, ignored);
    if (count < 0) return http_drained::incomplete;
    if (count == 0) break;
    total += static_cast<uint64_t>(count);
    if (total > limit) return http_drained::too_long;
  }
  const bool whole = http_body_end(&channel.session) == DL_BODY_WHOLE && !channel.own->response.has_trailer;
  return whole ? http_drained::whole : http_drained::incomplete;
}

}  // namespace fetchrig
