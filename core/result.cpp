// SPDX-License-Identifier: MIT
// result.cpp: the one table of result codes and their texts.
#include "core/result.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "core/text.h"

namespace fetchrig {
namespace {

struct code_text {
  int code;
  const char* text;
};

constexpr code_text code_texts[] = {
    {DL_ERR_HOST, "Wrong host"},
    {DL_ERR_SOCKET, "Create Socket Error"},
    {DL_ERR_CONNECT, "Connect Failed"},
    {DL_ERR_SEND, "Send Error"},
    {DL_ERR_INVALID_DATA, "Recv invalid data"},
    {DL_ERR_PARAMETER, "Invalid Parameter"},
    {DL_ERR_MEMORY, "Out of memory"},
    {DL_ERR_READ, "Read Error"},
    {DL_ERR_URL, "Wrong URL"},
    {DL_ERR_PORT, "Wrong port"},
    {DL_ERR_AUTH, "Auth Error"},
    {DL_ERR_REDIRECTS, "Redirect to many times"},
    {DL_ERR_IPV6_DISABLED, "Ipv6 is disable"},
    {DL_ERR_NOT_INITIALISED, "Config doesn't init"},
    {DL_ERR_NOT_TFTP, "Host is not a tftp server"},
    {200, "200 OK"},
    {201, "Resource create success"},
    {400, "Invaild query"},
    {403, "Forbidden"},
    {408, "request out of time"},
    {500, "Server error"},
    {501, "Server doesn't support method"},
};

// The message field is filled up to this many bytes, terminator included.
constexpr std::size_t message_limit = 252;

}  // namespace

const char* error_text(int code) {
  const auto* end = std::end(code_texts);
  const auto* found =
      std::find_if(code_texts, end, [code](const code_text& entry) { return entry.code == code; });
  return found == end ? "Unknown Error" : found->text;
}

void clear_result(dl_result& result) {
  memset(&result, 0, sizeof result);
}

int fail(dl_result* result, int code) {
  if (!result) return -1;
  result->code = code;
  copy_text({result->message, message_limit}, error_text(code));
  return -1;
}

int fail_with_code(dl_result* result, int code) {
  if (result) result->code = code;
  return -1;
}

int fail_with_text(dl_result* result, int code, const char* text, unsigned max_len) {
  if (!result) return -1;
  result->code = code;
  const auto room = std::min<std::size_t>(std::size_t{max_len} + 1, sizeof result->message);
  copy_text({result->message, room}, or_empty(text));
  return -1;
}

int fail_exceeded(dl_result* result, uint64_t max_file_size) {
  if (!result) return -1;
  const auto shown =
      max_file_size <= UINT32_MAX ? static_cast<int32_t>(max_file_size) : static_cast<int64_t>(max_file_size);
  result->code = DL_ERR_READ;
  snprintf(result->message, sizeof result->message, "exceed max size %" PRId64, shown);
  return -1;
}

}  // namespace fetchrig
