// http_fixture.h: the ground of the HTTP tests: what is asked of the library, what came of it, and the bytes
// of the requests that a scripted peer expects. One thread at a time.
#ifndef FETCHRIG_TESTS_SUPPORT_HTTP_FIXTURE_H
#define FETCHRIG_TESTS_SUPPORT_HTTP_FIXTURE_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "include/fetchrig.h"
#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace test {

// The head of a plain request with the default settings, for a peer that it goes to directly. `more` are
// header lines that follow.
std::string request_head(const std::string& method, const std::string& path, const std::string& more = "",
                         const std::string& host = "127.0.0.1:@PORT@");
// A whole response with a Content-Length; `more` are further header lines.
std::string response(const std::string& status, const std::string& body = "", const std::string& more = "");
std::string redirect_to(const std::string& target, const std::string& body = "");
std::string unauthorized(const std::string& challenge);

// One open call.
struct http_ask {
  std::string url = {};
  int32_t method = DL_METHOD_GET;
  const char* user = nullptr;
  const char* password = nullptr;
  std::string proxy = {};
  const char* headers = nullptr;
  const char* body = nullptr;
  std::optional<uint32_t> auth_type = {};              // dl_http_open_ex()
  std::optional<std::vector<dl_auth_info>> list = {};  // dl_http_post_multi_auth()

  dl_http_request request() const;
};

struct http_outcome {
  int32_t code = 0;  // of the open call; 0: it succeeded
  std::string message;
  std::string redirect;
  std::string body;
  int32_t read_code = 0;     // of the read that failed
  bool has_headers = false;  // a header could be looked up
  int status = 0;
  int end = DL_BODY_OPEN;  // after the last read
};

class http_test : public leak_free {
 protected:
  // Opens and reads to the end, `piece` bytes a call.
  http_outcome fetch(const http_ask& ask, std::size_t piece = 64) const;
  // The error lines of the HTTP module.
  std::vector<std::string> errors() const;

  temp_dir place_;
  library library_;
  log_capture log_;
};

using lines = std::vector<std::string>;

}  // namespace test
#endif
