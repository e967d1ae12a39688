// SPDX-License-Identifier: MIT
// cursor.h: reading untrusted bytes in order. Every read is bounded by what is left; a failed read yields
// nothing and consumes nothing. Knows bytes, not sockets. One thread at a time per cursor.
#ifndef FETCHRIG_CORE_CURSOR_H
#define FETCHRIG_CORE_CURSOR_H

#include <stdint.h>

#include <optional>
#include <string_view>

namespace fetchrig {

class cursor {
 public:
  explicit cursor(std::string_view bytes) : rest_(bytes) {}

  std::string_view rest() const { return rest_; }
  bool empty() const { return rest_.empty(); }

  // The next `count` bytes.
  std::optional<std::string_view> take(std::size_t count);
  // The bytes up to, not including, `end`, which is consumed too.
  std::optional<std::string_view> take_until(char end);
  // The bytes up to the terminator (RFC 1350 strings).
  std::optional<std::string_view> terminated() { return take_until('\0'); }
  // Consumes `prefix`.
  bool skip(std::string_view prefix);
  // Big-endian 16-bit number.
  std::optional<uint16_t> u16be();
  // Decimal digits, a value of at most `max`.
  std::optional<uint64_t> number(uint64_t max);

 private:
  std::string_view rest_;
};

}  // namespace fetchrig
#endif
