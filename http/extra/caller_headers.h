// SPDX-License-Identifier: MIT
// caller_headers.h: header lines that an application gave, without some of them. They are its own and go out as they
// are, until a redirect or a tunnel makes some of them wrong, or dangerous. One thread at a time per object.
#ifndef FETCHRIG_HTTP_EXTRA_CALLER_HEADERS_H
#define FETCHRIG_HTTP_EXTRA_CALLER_HEADERS_H

#include <string>
#include <string_view>

#include "http/http_message.h"

namespace fetchrig {

// Owns what is left of the lines; outlives the message.
class caller_headers {
 public:
  caller_headers() = default;
  ~caller_headers();
  caller_headers(const caller_headers&) = delete;
  caller_headers& operator=(const caller_headers&) = delete;

  // Takes out the lines whose name, in lower case, is one that is `unwanted`, with the lines that continue them.
  void drop(http_msg& message, bool (*unwanted)(std::string_view name));

 private:
  std::string kept_;
};

}  // namespace fetchrig
#endif
