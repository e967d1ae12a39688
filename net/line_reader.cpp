// SPDX-License-Identifier: MIT
// line_reader.cpp: reading a line by peeking.
#include "net/line_reader.h"

#include <algorithm>

namespace fetchrig {
namespace {

constexpr std::string_view line_end = "\r\n";

// A line on its way: what was taken of it, and what a peek has seen behind that.
class line_in_progress {
 public:
  line_in_progress(std::span<char> buffer, std::size_t initial) : buffer_(buffer), size_(initial) {}

  std::span<char> peek_room() { return buffer_.subspan(held_, size_ - 1 - held_); }
  bool is_full() const { return held_ == size_ - 1; }
  // Notes `count` peeked bytes and returns where those that belong to the line are, its line end included.
  std::span<char> belonging(std::size_t count) {
    const std::string_view seen(buffer_.data(), held_ + count);
    // The carriage return may have come, and been taken, before its line feed.
    length_ = seen.find(line_end, held_ > 0 ? held_ - 1 : 0);
    ended_ = length_ != std::string_view::npos;
    return buffer_.subspan(held_, ended_ ? length_ + line_end.size() - held_ : count);
  }
  void taken(std::size_t count) { held_ += count; }
  void grow_when_full() {
    if (is_full()) size_ = std::min(size_ * 2, buffer_.size());
  }
  std::size_t held() const { return held_; }
  bool is_complete() const { return ended_ && held_ == length_ + line_end.size(); }
  std::string_view line() const { return {buffer_.data(), length_}; }
  std::string_view all() const { return {buffer_.data(), held_}; }

 private:
  std::span<char> buffer_;
  std::size_t size_;
  std::size_t held_ = 0;
  std::size_t length_ = 0;
  bool ended_ = false;
};

}  // namespace

line_result read_line(stream& from, std::span<char> buffer, const line_limits& limits, int timeout_s) {
  line_in_progress line(buffer, limits.initial);
  for (;;) {
    // A full buffer asks for nothing more, but still waits for the peer like any other step.
    const io_result peeked = from.peek(line.peek_room(), timeout_s);
    if (peeked.count < 0) return {line_state::peek_failed, {}, peeked};
    const std::span<char> wanted = line.belonging(static_cast<std::size_t>(peeked.count));
    const io_result taken = wanted.empty() ? io_result{} : from.read(wanted, timeout_s);
    if (taken.count < 0) return {line_state::read_failed, {}, taken};
    line.taken(static_cast<std::size_t>(taken.count));
    if (line.held() + 1 >= limits.room) return {line_state::too_long};
    if (taken.count == 0) return {line.is_full() ? line_state::full : line_state::closed, line.all()};
    if (line.is_complete()) return {line_state::complete, line.line()};
    line.grow_when_full();
  }
}

}  // namespace fetchrig
