// SPDX-License-Identifier: MIT
// http_open.h: the one sequence that every HTTP call runs: prepare the URL, connect (directly or through a
// proxy), compose and send the request, process the response. One thread at a time per call.
#ifndef FETCHRIG_HTTP_HTTP_OPEN_H
#define FETCHRIG_HTTP_HTTP_OPEN_H

#include <string>

#include "core/extras.h"
#include "http/http_message.h"
#include "http/http_session.h"

namespace fetchrig {

// A part of a file, while the file is the one of this validator (RFC 9110 sections 13.1.5, 14.2).
struct http_range {
  std::string bytes;
  std::string validator;
};

// What one call asks of the sequence. Everything is borrowed for the duration of the call.
struct http_plan {
  const dl_http_request& request;
  char* redirect;  // DL_REDIRECT_SIZE bytes, receives the target of each redirect
  dl_result& result;
  http_auth_type auth_type = http_auth_type::ordinary;
  const dl_auth_info* credentials = nullptr;
  int32_t num_credentials = 0;
  const char* file_path = nullptr;  // the local file to send
  bool refuse_304 = false;
  const http_range* range = nullptr;  // asks for a part; a response that is one (206) keeps its headers
  transfer_extras extras = current_extras();
};

// Clears the result and runs the sequence. Returns 0 with the session open at the start of the body, or -1 with
// the result filled and no session.
[[nodiscard]] int http_open(const http_plan& plan, unique_http_session& session);

// Runs the sequence and closes the session: the server has accepted the file, its answer's body is not read.
[[nodiscard]] int http_post_file(const http_plan& plan);

}  // namespace fetchrig
#endif
