// SPDX-License-Identifier: MIT
// caller_headers.cpp: leaving out lines.
#include "http/extra/caller_headers.h"

#include "core/text.h"

namespace fetchrig {
namespace {

using std::string_view;

// With its line end, whichever it is: a server may take a line feed alone for one.
string_view first_line(string_view text) {
  const std::size_t end = text.find_first_of("\r\n");
  if (end == string_view::npos) return text;
  return text.substr(0, end + (text.substr(end).starts_with("\r\n") ? 2 : 1));
}

std::string lower_name(string_view line) {
  std::string name(trim_white_space(line.substr(0, line.find(':'))));
  lower_in_place(name);
  return name;
}

}  // namespace

caller_headers::~caller_headers() {
  wipe(kept_);
}

void caller_headers::drop(http_msg& message, bool (*unwanted)(string_view name)) {
  string_view rest = or_empty(message.extra_headers);
  std::string kept;
  kept.reserve(rest.size());
  for (bool keeps = true; !rest.empty();) {
    const string_view line = first_line(rest);
    const bool continues = line.front() == ' ' || line.front() == '\t';
    if (!continues) keeps = !unwanted(lower_name(line));
    if (keeps) kept += line;
    rest.remove_prefix(line.size());
  }
  kept_.swap(kept);
  wipe(kept);
  if (message.extra_headers) message.extra_headers = kept_.c_str();
}

}  // namespace fetchrig
