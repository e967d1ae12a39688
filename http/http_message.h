// SPDX-License-Identifier: MIT
// http_message.h: an HTTP request as an editable message (RFC 9112): request line, headers in order, body. It
// is changed by redirects and challenges and sent again. Knows bytes, not sockets. One thread at a time per
// message, which belongs to one call.
#ifndef FETCHRIG_HTTP_HTTP_MESSAGE_H
#define FETCHRIG_HTTP_HTTP_MESSAGE_H

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "http/extra/streamed_body.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

enum class http_auth_type : uint32_t { ordinary = 0, credential_list = 1, broadworks_xsi = 2 };

struct http_header {
  std::string name;
  std::string value;
};

struct http_body {
  const char* text = nullptr;       // borrowed: the request's body field
  const char* file_path = nullptr;  // borrowed: the local file to send
  std::optional<std::string>
      buffer;                  // the final body bytes; none: the request has no body, or a streamed one
  bool streams_files = false;  // files are sent while they are read
  std::unique_ptr<streamed_body> streamed;

  // Nothing without a body.
  [[nodiscard]] std::optional<uint64_t> size() const;
};

struct http_msg {
  ~http_msg();
  const char* method_text = "";
  std::string request_line;
  std::vector<http_header> headers;
  const char* extra_headers = nullptr;  // borrowed
  http_body body;
  http_auth_type auth_type = http_auth_type::ordinary;
  const dl_auth_info* credentials = nullptr;  // borrowed, with http_auth_type::credential_list
  int32_t num_credentials = 0;
  int32_t next_credential = 0;
  bool sent_again = false;  // by a redirect or a challenge, whatever became of it before
  bool is_ranged = false;   // asks for a part of a file
};

// A message without anything in it; null without memory.
[[nodiscard]] std::unique_ptr<http_msg> http_msg_new();

// Adds the header, or replaces the one of that very name in its place. A null value adds nothing and leaves
// what is there. Returns 0 or -7.
[[nodiscard]] int http_set_header(http_msg& message, std::string_view name, const char* value);
// Removes the header of that very name.
void http_remove_header(http_msg& message, std::string_view name);

// Sets the request line from the URL's method and path. Returns 0, -9 for a method above 3, or -7.
[[nodiscard]] int http_set_request_line(http_msg& message, const dl_url& url);
// Sets the Host header from the URL. Returns 0 or -7.
[[nodiscard]] int http_set_host(http_msg& message, const dl_url& url);

// Composes the whole request. `tls` leaves out the Connection header. Returns 0 or a negative code.
[[nodiscard]] int http_make_request(bool tls, http_msg& message, const dl_http_request& request,
                                    const dl_url& url);

// The bytes up to the body: request line, headers, extra headers, empty line; with room for `more` bytes. The
// text may hold credentials: it is composed in one allocation, and its owner wipes it.
[[nodiscard]] std::string http_serialise_head(const http_msg& message, std::size_t more = 0);

}  // namespace fetchrig
#endif
