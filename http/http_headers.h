// SPDX-License-Identifier: MIT
// http_headers.h: the status line and header block of a response as bytes: parsing the values the client acts
// on, and looking a header up. A block holds terminated lines, names in lower case, and ends with an empty
// line. At most 256 KiB per block. Knows bytes, not sockets. Any thread.
#ifndef FETCHRIG_HTTP_HTTP_HEADERS_H
#define FETCHRIG_HTTP_HTTP_HEADERS_H

#include <stdint.h>

#include <optional>
#include <span>
#include <string_view>

#include "core/owners.h"

namespace fetchrig {

// The status of "HTTP/1.x NNN ..." (up to three characters, a sign allowed); nothing for another line.
[[nodiscard]] std::optional<int> parse_status_line(std::string_view line);

// The length of a "content-length: N" line; nothing when it is negative, above 32 bits or no number.
[[nodiscard]] std::optional<uint32_t> parse_content_length(std::string_view line);
// Whether the line's value begins with a digit: then only its size can be why there is nothing above.
[[nodiscard]] bool announces_number(std::string_view line);

// The value of a stored line whose name has `name_len` characters: it begins two behind the name.
[[nodiscard]] const char* header_value(const char* line, std::size_t name_len);

// The first line of the block that begins with `name` (lower case) and ":"; null when there is none.
[[nodiscard]] const char* http_find_header(const char* block, std::string_view name);

// The same for a name in any letter case, of which 127 characters count. An empty name is not found.
[[nodiscard]] const char* http_find_header_by_name(const char* block, std::string_view name);

// The header block of a response while its lines arrive.
class header_block {
 public:
  // The block starts with `size` bytes of room; false without memory.
  [[nodiscard]] bool start(std::size_t size);
  // Room for the next line, at least so many bytes, or an empty span: without memory, or beyond 256 KiB.
  [[nodiscard]] std::span<char> room(std::size_t least);
  // Takes the line of `length` characters that was read into room().
  void take_line(std::size_t length);
  // Bytes used by the lines.
  std::size_t used() const { return used_; }
  // Room of the whole block, kept for the next response.
  std::size_t size() const { return size_; }
  // Hands the block over.
  char* release() { return block_.release(); }

 private:
  unique_text block_;
  std::size_t size_ = 0;
  std::size_t used_ = 0;
};

}  // namespace fetchrig
#endif
