// http_read.cpp: reading a response body.
#include "http/http_read.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "http/http_io.h"

namespace fetchrig {
namespace {

constexpr std::size_t line_end_bytes = 2;
constexpr uint32_t min_chunk_capacity = 512;

bool is_hex_digit(char c) {
  return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'f');
}

int log_failure(const char* message, int code, dl_result& result) {
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "%s", message);
  return fail(&result, code);
}

// The chunk buffer: decoded body bytes that the caller has not taken. Taken bytes at its front are dropped at
// once for a record without private state; with one they are skipped and dropped when room is needed.
class chunk_reader {
 public:
  // Of one chunk no more than `most` bytes are received: a caller with such a limit then gives up.
  chunk_reader(http_channel& channel, uint64_t most) : channel_(channel), most_(most) {}

  bool open() {
    if (!channel_.session.chunk) channel_.session.chunk = zeroed_record<http_chunk_buf>().release();
    return channel_.session.chunk != nullptr;
  }
  uint32_t held() const { return chunk().length; }
  bool finished() const { return chunk().finished != 0; }
  int deliver(std::span<char> to);
  // Reads the next chunk, or the end of the body.
  int fetch(dl_result& result);

 private:
  http_chunk_buf& chunk() const { return *channel_.session.chunk; }
  uint32_t begin() const { return channel_.own ? channel_.own->chunk_begin : 0; }
  void set_begin(uint32_t begin) {
    if (channel_.own) channel_.own->chunk_begin = begin;
  }
  void compact();
  bool make_room(uint64_t needed);
  int read_size_line(uint64_t& size, bool& has_digits, dl_result& result);
  int read_last_line(uint32_t how, dl_result& result);
  int read_data(uint64_t size, dl_result& result);

  http_channel& channel_;
  uint64_t most_;
};

int chunk_reader::deliver(std::span<char> to) {
  http_chunk_buf& buffer = chunk();
  const auto count = static_cast<uint32_t>(std::min<std::size_t>(to.size(), buffer.length));
  if (count > 0) memcpy(to.data(), buffer.data + begin(), count);
  buffer.length -= count;
  if (buffer.length == 0) {
    set_begin(0);
  } else if (channel_.own) {
    set_begin(begin() + count);
  } else {
    memmove(buffer.data, buffer.data + count, buffer.length);
  }
  return static_cast<int>(count);
}

void chunk_reader::compact() {
  if (begin() == 0) return;
  memmove(chunk().data, chunk().data + begin(), chunk().length);
  set_begin(0);
}

// Doubles the capacity, from 512 bytes on, when the buffer is full; `needed` is the most that will ever be
// asked of it.
bool chunk_reader::make_room(uint64_t needed) {
  http_chunk_buf& buffer = chunk();
  if (buffer.length < buffer.capacity) return true;
  const uint64_t doubled = uint64_t{std::max(buffer.capacity, min_chunk_capacity / 2)} * 2;
  const uint64_t capacity = std::min<uint64_t>(doubled, std::max<uint64_t>(needed, min_chunk_capacity));
  auto* grown = static_cast<char*>(::realloc(buffer.data, static_cast<std::size_t>(capacity)));
  if (!grown) return false;
  buffer.data = grown;
  buffer.capacity = static_cast<uint32_t>(capacity);
  return true;
}

int chunk_reader::read_size_line(uint64_t& size, bool& has_digits, dl_result& result) {
  std::array<char, 128> line = {};
  const int length = http_read_line(channel_, 128, 256, line);
  if (length < 0) {
    qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "read chunked len error\n");
    return log_failure("read chunked error\n", length, result);
  }
  const std::string_view text = skip_white_space({line.data(), static_cast<std::size_t>(length)});
  has_digits = !text.empty() && is_hex_digit(text.front());
  size = parse_chunk_size(text);
  return 0;
}

int chunk_reader::read_last_line(uint32_t how, dl_result& result) {
  chunk().finished = how;
  std::array<char, 128> line = {};
  const int length = http_read_line(channel_, 128, 256, line);
  if (length >= 0) return 0;
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "read last EOL error\n");
  return log_failure("read chunked error\n", length, result);
}

// The chunk's bytes and its line end, behind what is held; the line end is dropped. The buffer grows as bytes
// arrive, whatever size the server claims. A stream that ends early ends the chunk.
int chunk_reader::read_data(uint64_t size, dl_result& result) {
  http_chunk_buf& buffer = chunk();
  compact();
  const uint32_t before = buffer.length;
  if (before + size + line_end_bytes > UINT32_MAX)
    return log_failure("read chunked error\n", DL_ERR_MEMORY, result);
  const uint64_t end = before + std::min(size, most_) + line_end_bytes;
  int count = 1;
  while (count > 0 && buffer.length < end) {
    const bool has_room = make_room(end);
    const auto room = std::min<uint64_t>(end, buffer.capacity) - buffer.length;
    count = has_room ? http_recv(channel_, {buffer.data + buffer.length, static_cast<std::size_t>(room)})
                     : int{DL_ERR_MEMORY};
    if (count > 0) buffer.length += static_cast<uint32_t>(count);
  }
  const uint32_t read = buffer.length - before;
  buffer.length = count < 0 ? before : before + read - std::min<uint32_t>(read, line_end_bytes);
  return count < 0 ? log_failure("read chunked error\n", count, result) : 0;
}

int chunk_reader::fetch(dl_result& result) {
  uint64_t size = 0;
  bool has_digits = false;
  if (const int rc = read_size_line(size, has_digits, result); rc < 0) return rc;
  if (size > 0) return read_data(size, result);
  // Where the stream ends too early, an empty line is read instead of the last chunk's.
  return read_last_line(has_digits ? DL_HTTP_CHUNKS_ALL : DL_HTTP_CHUNKS_CUT, result);
}

int open_chunks(chunk_reader& chunks, dl_result& result) {
  if (chunks.open()) return 0;
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "Out of memory\n");
  return log_failure("read chunked error\n", DL_ERR_MEMORY, result);
}

// Reads chunks until `wanted` bytes are held or the body has ended, then delivers.
int read_chunked(http_channel& channel, std::span<char> to, std::size_t wanted, uint64_t most,
                 dl_result& result) {
  chunk_reader chunks(channel, most);
  if (const int rc = open_chunks(chunks, result); rc < 0) return rc;
  while (chunks.held() < wanted && !chunks.finished()) {
    if (const int rc = chunks.fetch(result); rc < 0) return rc;
  }
  return chunks.deliver(to);
}

// The part of `to` that the body can still fill.
std::span<char> cut_to_remaining(const http_channel& channel, std::span<char> to) {
  return to.first(std::min<std::size_t>(to.size(), channel.session.remaining));
}

}  // namespace

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

int http_read_full(http_channel& channel, std::span<char> to, dl_result& result) {
  if (channel.is_chunked()) return read_chunked(channel, to, to.size(), UINT32_MAX, result);
  to = cut_to_remaining(channel, to);
  std::size_t placed = 0;
  while (placed < to.size()) {
    const int count = http_recv(channel, to.subspan(placed));
    if (count < 0) return log_failure("read error\n", count, result);
    if (count == 0) break;
    placed += static_cast<std::size_t>(count);
  }
  channel.session.remaining -= static_cast<uint32_t>(placed);
  return static_cast<int>(placed);
}

int http_read_some(http_channel& channel, std::span<char> to, uint64_t most, dl_result& result) {
  if (channel.is_chunked()) return read_chunked(channel, to, 1, most, result);
  to = cut_to_remaining(channel, to);
  if (to.empty()) return 0;
  const int count = http_recv(channel, to);
  if (count < 0) return log_failure("read error\n", count, result);
  channel.session.remaining -= static_cast<uint32_t>(count);
  return count;
}

bool http_drain(http_channel& channel, uint32_t limit) {
  std::array<char, 4096> scratch;
  dl_result ignored = {};
  uint64_t total = 0;
  for (;;) {
    const int count = http_read_some(channel, scratch, uint64_t{limit} + 1, ignored);
    if (count <= 0) return true;
    total += static_cast<uint64_t>(count);
    if (total > limit) return false;
  }
}

}  // namespace fetchrig

using namespace fetchrig;

int dl_http_read(dl_http_session* session, char* buffer, int32_t size, dl_result* result) {
  const bool usable =
      session && buffer && result && size >= 0 && is_http_session(session) && session->sock != 0;
  if (!usable) {
    qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "http read with invalid parameter\n");
    return fail(result, DL_ERR_PARAMETER);
  }
  http_channel channel(*session);
  return http_read_full(channel, {buffer, static_cast<std::size_t>(size)}, *result);
}

void dl_http_close(dl_http_session* session) {
  if (is_http_session(session)) http_session_closer()(session);
}
