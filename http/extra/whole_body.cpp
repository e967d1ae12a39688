// SPDX-License-Identifier: MIT
// whole_body.cpp: reading bodies to their announced end.
#include "http/extra/whole_body.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <string_view>

#include "core/cause.h"
#include "core/config.h"
#include "core/result.h"
#include "core/text.h"
#include "http/http_connection.h"
#include "http/http_session.h"
#include "http/http_status.h"
#include "log/log.h"
#include "net/socket.h"

namespace fetchrig {
namespace {

using std::string_view;
using framing = whole_body::framing;

// A chunk-size line with its extensions, a trailer field.
constexpr std::size_t max_chunk_line_bytes = 4096;
constexpr int max_trailer_lines = 256;

// Calls `take` with the value of each header of that name.
template <typename Take>
void each_value(const char* block, string_view name, Take take) {
  for (const char* line = block; line && *line != '\0'; line += strlen(line) + 1) {
    const string_view text(line);
    if (text.starts_with(name) && text.substr(name.size()).starts_with(':'))
      take(trim_white_space(text.substr(name.size() + 1)));
  }
}

// A length may be repeated, but not contradicted (RFC 9110 section 8.6).
struct announced_length {
  bool present = false;
  bool sound = true;
  uint64_t bytes = 0;

  void take(string_view value) {
    for (bool more = true; more;) {
      const auto comma = value.find(',');
      take_one(trim_white_space(value.substr(0, comma)));
      more = comma != string_view::npos;
      if (more) value.remove_prefix(comma + 1);
    }
  }

 private:
  void take_one(string_view text) {
    const auto number = whole_number(text, INT64_MAX);  // what a file can have as its size
    sound = sound && number && (!present || *number == bytes);
    bytes = number.value_or(0);
    present = true;
  }
};

int head_failed(const char* why) {
  note_cause(DL_CAUSE_NOT_HTTP);
  return log_and_return(DL_LOG_HTTP, DL_ERR_READ, "%s\n", why);
}

// One read call at work.
class body_reader {
 public:
  body_reader(http_channel& channel, dl_result& result)
      : channel_(channel), body_(*channel.own->whole), result_(result) {}

  // The next bytes, none at the end: the count, or -1 with the result filled.
  int read(std::span<char> to);

 private:
  int read_length(std::span<char> to);
  int read_until_close(std::span<char> to);
  int read_chunks(std::span<char> to);
  int next_chunk();
  int read_trailer();
  int read_line(std::span<char> buffer);
  int receive(std::span<char> to);
  int cut_short(const char* why);
  int exceeded();
  int failed(int code);
  int end() {
    body_.ended = true;
    return 0;
  }

  http_channel& channel_;
  whole_body& body_;
  dl_result& result_;
};

int body_reader::read(std::span<char> to) {
  if (body_.failed) return body_.too_long ? exceeded() : failed(DL_ERR_READ);
  if (body_.ended) return 0;
  switch (body_.framed) {
    case framing::length:
      return read_length(to);
    case framing::chunks:
      return read_chunks(to);
    case framing::until_close:
      return read_until_close(to);
    case framing::none:
      break;
  }
  return end();
}

int body_reader::read_length(std::span<char> to) {
  if (body_.left == 0) return end();
  const int count = receive(to.first(static_cast<std::size_t>(std::min<uint64_t>(to.size(), body_.left))));
  if (count == 0) return cut_short("the body ends before its length");
  if (count > 0) body_.left -= static_cast<uint64_t>(count);
  if (body_.left == 0) body_.ended = true;
  return count;
}

// The byte behind the limit tells a body that is too long from one that ends there.
int body_reader::read_until_close(std::span<char> to) {
  char behind = 0;
  const auto room = static_cast<std::size_t>(std::min<uint64_t>(to.size(), body_.left));
  const int count = receive(room > 0 ? to.first(room) : std::span(&behind, 1));
  if (count < 0) return count;
  if (count == 0) return end();
  if (room == 0) {
    log_line(DL_LOG_HTTP, DL_LOG_ERROR, "exceed max size\n");
    return exceeded();
  }
  body_.left -= static_cast<uint64_t>(count);
  return count;
}

int body_reader::read_chunks(std::span<char> to) {
  if (body_.left == 0) {
    if (const int rc = next_chunk(); rc < 0 || body_.ended) return rc;
  }
  const int count = receive(to.first(static_cast<std::size_t>(std::min<uint64_t>(to.size(), body_.left))));
  if (count == 0) return cut_short("the body ends inside a chunk");
  if (count > 0) body_.left -= static_cast<uint64_t>(count);
  return count;
}

// The line end of the last chunk, the size of the next one, and behind the last one the trailer.
int body_reader::next_chunk() {
  std::array<char, max_chunk_line_bytes> buffer;
  if (body_.in_body) {
    if (const int length = read_line(buffer); length != 0)
      return length < 0 ? length : cut_short("a chunk without its line end");
  }
  const int length = read_line(buffer);
  if (length < 0) return length;
  const string_view line(buffer.data(), static_cast<std::size_t>(length));
  uint64_t size = 0;
  std::size_t digits = 0;
  for (; digits < line.size(); ++digits) {
    const char digit = lower(line[digits]);
    const bool is_letter = digit >= 'a' && digit <= 'f';
    if (!is_letter && !is_digit(digit)) break;
    if (size > (INT64_MAX >> 4)) return cut_short("a chunk beyond all sizes");
    size = size * 16 + static_cast<uint64_t>(is_letter ? digit - 'a' + 10 : digit - '0');
  }
  const string_view extension = skip_white_space(line.substr(digits));
  if (digits == 0 || !(extension.empty() || extension.starts_with(';'))) return cut_short("no chunk size");
  if (size == 0) return read_trailer();
  body_.in_body = true;
  body_.left = size;
  return 0;
}

int body_reader::read_trailer() {
  std::array<char, max_chunk_line_bytes> buffer;
  for (int lines = 0; lines < max_trailer_lines; ++lines) {
    const int length = read_line(buffer);
    if (length <= 0) return length < 0 ? length : end();
  }
  return cut_short("an endless trailer");
}

// A whole line of the framing: its length, or -1.
int body_reader::read_line(std::span<char> buffer) {
  bool at_end = false;
  const int length = http_read_line(channel_, chunk_line_bytes, buffer.size(), buffer, &at_end);
  if (length < 0) return failed(length);
  return at_end ? cut_short("the body ends before its last chunk") : length;
}

int body_reader::receive(std::span<char> to) {
  const int count = http_recv(channel_, to);
  if (count < 0) return failed(DL_ERR_READ);
  // TLS that was cut, or ended by an alert, reads like an end; only the peer's farewell is one.
  const bool is_end =
      count > 0 || !channel_.ssl() || SSL_get_error(channel_.ssl(), count) == SSL_ERROR_ZERO_RETURN;
  return is_end ? count : cut_short("TLS ends without a farewell");
}

int body_reader::cut_short(const char* why) {
  note_symptom(DL_CAUSE_FILE_CUT);
  log_line(DL_LOG_HTTP, DL_LOG_ERROR, "%s\n", why);
  return failed(DL_ERR_READ);
}

int body_reader::exceeded() {
  body_.failed = body_.too_long = true;
  return fail_exceeded(&result_, body_.limit);
}

int body_reader::failed(int code) {
  body_.failed = true;
  return fail(&result_, code);
}

}  // namespace

int ask_for_whole_bodies(const http_channel& channel, const transfer_extras& extras) {
  if (!extras.whole_bodies && !extras.resume && extras.kept_connections == 0) return 0;
  channel.own->whole.reset(new (std::nothrow) whole_body);
  if (!channel.own->whole) return DL_ERR_MEMORY;
  channel.own->whole->limit = extras.max_file_size(max_file_size());
  return 0;
}

head_rules rules_of_head(const http_channel& channel, const head_rules& classic) {
  if (!channel.own || !channel.own->whole) return classic;
  // Without its farewell, TLS does not tell the peer's end from anybody else's.
  if (channel.ssl()) SSL_clear_options(channel.ssl(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return {max_whole_line_bytes, true};
}

bool may_have_answered(const http_channel& channel, int code) {
  if (!channel.own->whole || code != DL_ERR_SEND) return false;
  return wait_ready(channel.session.sock, wait_readable, net_timeout_seconds()) > 0;
}

int begin_whole_body(http_channel& channel, http_response_facts& facts) {
  whole_body& body = *channel.own->whole;
  const char* const headers = channel.session.headers;
  body = {.limit = body.limit};
  bool encoded = false;
  bool chunked = false;
  each_value(headers, "transfer-encoding", [&](string_view value) {
    constexpr string_view last = "chunked";
    encoded = true;
    chunked =
        value.size() >= last.size() && equal_ignoring_case(value.substr(value.size() - last.size()), last);
  });
  announced_length length;
  each_value(headers, "content-length", [&](string_view value) { length.take(value); });
  if (has_no_body(facts.status)) {
    body.ended = true;
  } else if (chunked) {
    body.framed = framing::chunks;
    channel.session.flags |= DL_HTTP_FLAG_CHUNKED;
  } else if (length.present && !encoded) {
    if (!length.sound) return head_failed("no sound Content-Length");
    body.framed = framing::length;
    body.left = length.bytes;
    body.ended = length.bytes == 0;
    facts.has_length = true;
  } else {
    body.framed = framing::until_close;
    body.left = body.limit;
  }
  channel.session.remaining = static_cast<uint32_t>(std::min<uint64_t>(body.left, UINT32_MAX));
  return 0;
}

int read_whole_body(http_channel& channel, std::span<char> to, std::size_t wanted, dl_result& result) {
  body_reader reader(channel, result);
  std::size_t placed = 0;
  while (placed < wanted) {
    const int count = reader.read(to.subspan(placed));
    if (count < 0 && placed == 0) return -1;
    if (count <= 0) break;
    placed += static_cast<std::size_t>(count);
  }
  const whole_body& body = *channel.own->whole;
  channel.session.remaining = static_cast<uint32_t>(std::min<uint64_t>(body.left, UINT32_MAX));
  return static_cast<int>(placed);
}

dl_body_end end_of_whole_body(const whole_body& body) {
  if (body.failed) return DL_BODY_CUT;
  if (!body.ended) return DL_BODY_OPEN;
  return body.framed == framing::until_close ? DL_BODY_UNMARKED : DL_BODY_WHOLE;
}

}  // namespace fetchrig
