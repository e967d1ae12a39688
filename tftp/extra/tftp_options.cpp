// SPDX-License-Identifier: MIT
// tftp_options.cpp: requests with options and the server's answer to them.
#include "tftp/extra/tftp_options.h"

#include <stdio.h>

#include "core/cursor.h"
#include "core/text.h"

namespace fetchrig {
namespace {

constexpr uint32_t min_blksize = 8;
constexpr uint64_t max_tsize = INT64_MAX;

// Appends terminated texts; what does not fit is left out.
class request_writer {
 public:
  explicit request_writer(tftp_request_buffer& to) : to_(to) {}

  void text(std::string_view value) {
    if (value.size() >= to_.size() - length_) return;
    value.copy(to_.data() + length_, value.size());
    length_ += value.size();
    to_[length_++] = '\0';
  }
  void option(const char* name, std::optional<uint64_t> value) {
    if (!value) return;
    text(name);
    text(std::to_string(*value));
  }
  void opcode(tftp_opcode value) {
    to_[length_++] = 0;
    to_[length_++] = static_cast<char>(value);
  }
  std::string_view packet() const { return {to_.data(), length_}; }

 private:
  tftp_request_buffer& to_;
  std::size_t length_ = 0;
};

// One option of the list. False when its value cannot be taken.
bool take_option(tftp_terms& terms, const tftp_wishes& wishes, std::string_view name,
                 std::string_view value) {
  const auto within = [value](uint64_t min, std::optional<uint64_t> max) {
    const auto number = max ? whole_number(value, *max) : std::nullopt;
    return number && *number >= min ? number : std::nullopt;
  };
  const auto take = [](uint32_t& to, std::optional<uint64_t> number) {
    if (number) to = static_cast<uint32_t>(*number);
    return number.has_value();
  };
  if (equal_ignoring_case(name, "blksize")) return take(terms.blksize, within(min_blksize, wishes.blksize));
  if (equal_ignoring_case(name, "windowsize")) return take(terms.window, within(1, wishes.window));
  if (equal_ignoring_case(name, "timeout"))
    return within(wishes.timeout_s.value_or(0), wishes.timeout_s).has_value();
  if (!equal_ignoring_case(name, "tsize")) return true;
  terms.tsize = wishes.tsize ? whole_number(value, max_tsize) : std::nullopt;
  return terms.tsize.has_value();
}

}  // namespace

std::string_view tftp_build_wishes(tftp_opcode opcode, std::string_view remote_name,
                                   const tftp_wishes& wishes, tftp_request_buffer& buffer) {
  if (remote_name.starts_with('/')) remote_name.remove_prefix(1);
  request_writer out(buffer);
  out.opcode(opcode);
  out.text(remote_name);
  out.text("octet");
  out.option("blksize", wishes.blksize);
  out.option("windowsize", wishes.window);
  out.option("tsize", wishes.tsize);
  out.option("timeout", wishes.timeout_s);
  return out.packet();
}

std::optional<tftp_terms> tftp_parse_terms(std::string_view options, const tftp_wishes& wishes) {
  tftp_terms terms;
  for (cursor in(options); !in.empty();) {
    const auto name = in.terminated();
    const auto value = name ? in.terminated() : std::nullopt;
    if (!value || !take_option(terms, wishes, *name, *value)) return std::nullopt;
  }
  return terms;
}

}  // namespace fetchrig
