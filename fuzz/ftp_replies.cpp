// ftp_replies.cpp: a server's reply line through every parser of the FTP client. Inside, views must lie
// within the line, numbers must be those the text shows, and an endpoint or size that is formatted again must
// parse back the same.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <string_view>

#include "ftp/ftp_parse.h"
#include "fuzz/support/check.h"

namespace {

using namespace fetchrig;

void check_code(std::string_view line) {
  const auto code = ftp_reply_code(line);
  if (!code) return;
  char expected[16];
  snprintf(expected, sizeof expected, "%03d ", *code);
  FUZZ_CHECK(line.starts_with(expected));
}

void check_endpoint(std::string_view text) {
  const auto endpoint = ftp_pasv_endpoint(text);
  if (!endpoint) return;
  const auto& ip = endpoint->address;
  char formatted[64];
  snprintf(formatted, sizeof formatted, "%u,%u,%u,%u,%u,%u", ip[0], ip[1], ip[2], ip[3],
           unsigned{endpoint->port} / 256, unsigned{endpoint->port} % 256);
  const auto again = ftp_pasv_endpoint(formatted);
  FUZZ_CHECK(again && again->address == ip && again->port == endpoint->port);
}

void check_port(std::string_view text) {
  const auto port = ftp_epsv_port(text);
  if (!port || *port == 0) return;
  FUZZ_CHECK(text.find(std::to_string(*port)) != text.npos);
  FUZZ_CHECK(ftp_epsv_port("|||" + std::to_string(*port) + "|") == port);
}

void check_parentheses(std::string_view line) {
  const auto text = ftp_parenthesised(line);
  if (!text) return;
  const auto begin = static_cast<size_t>(text->data() - line.data());
  FUZZ_CHECK(begin >= 1 && begin + text->size() < line.size());
  FUZZ_CHECK(line[begin - 1] == '(' && line[begin + text->size()] == ')');
  FUZZ_CHECK(text->find(')') == text->npos);
}

void check_size(std::string_view line) {
  const auto size = ftp_size_answer(line);
  if (!size) return;
  FUZZ_CHECK(*size == UINT64_MAX || line.find(std::to_string(*size)) != line.npos);
  FUZZ_CHECK(ftp_size_answer("213 " + std::to_string(*size)) == size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  check_code(line);
  check_parentheses(line);
  check_size(line);
  for (const std::string_view text : {line, ftp_parenthesised(line).value_or("")}) {
    check_endpoint(text);
    check_port(text);
  }
  return 0;
}
