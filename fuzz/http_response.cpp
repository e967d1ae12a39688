// The input is a server's whole answer. The response loop and the body reader take it twice: from a session
// with a read-ahead and from a bare record, which looks at the socket for every line. Both must come to the
// same end, and what they leave behind must hold together. Bit 0 of the first byte says that a proxy is used,
// where redirects are followed on the same connection; bits 1 and 2 choose the authentication type. No name
// resolves, so that no other connection is ever made.
#include <netdb.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

#include "fuzz/support/check.h"
#include "http/http_response.h"
#include "http/http_response_body.h"
#include "include/fetchrig.h"

using namespace fetchrig;

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char*, const char*,
                                                                  const struct addrinfo*, struct addrinfo**) {
  return EAI_NONAME;
}

namespace {

constexpr size_t max_input_bytes = 60000;  // fits a socket's buffer
constexpr uint32_t max_body_bytes = 4096;

bool prepare() {
  dl_config_init();
  dl_log_init(0, nullptr);
  return dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_body_bytes) == 0;
}

// A connection on which the answer has arrived and after which the server has closed its direction.
std::pair<int, int> connection_with(const char* bytes, size_t size) {
  int pair[2] = {-1, -1};
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
  FUZZ_CHECK(send(pair[1], bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size));
  shutdown(pair[1], SHUT_WR);
  return {pair[0], pair[1]};
}

void check_headers(const dl_http_session& session, int status) {
  FUZZ_CHECK((session.headers != nullptr) == (status == 0));
  if (!session.headers) return;
  FUZZ_CHECK(session.headers_len < 256 * 1024 && session.headers[session.headers_len] == '\0');
  size_t at = 0;
  for (std::string line; session.headers[at] != '\0'; at += line.size() + 1) {
    line = session.headers + at;
    FUZZ_CHECK(line.find("\r\n") == std::string::npos);
    const auto end = line.begin() + static_cast<ptrdiff_t>(std::min(line.find(':'), line.size()));
    FUZZ_CHECK(std::none_of(line.begin(), end, [](char c) { return c >= 'A' && c <= 'Z'; }));
  }
  FUZZ_CHECK(at == session.headers_len);
}

// The body and how it ended.
std::string read_body(dl_http_session& session, size_t input_size) {
  char buffer[300];
  dl_result ignored = {};
  std::string body;
  int count = 0;
  while ((count = dl_http_read(&session, buffer, sizeof buffer, &ignored)) > 0) {
    body.append(buffer, static_cast<size_t>(count));
    FUZZ_CHECK(body.size() <= input_size);
  }
  FUZZ_CHECK((count < 0) == (ignored.code != 0));
  return body + std::to_string(count);
}

// All that came of the answer.
std::string run(dl_http_session* session, uint8_t mode, const char* bytes, size_t size) {
  const auto [near, far] = connection_with(bytes, size);
  session->magic = DL_HTTP_MAGIC;
  session->sock = near;
  int status = 0;
  std::string all;
  {
    http_channel channel(*session);
    unique_url url(dl_url_parse("http://origin.invalid/a", "user", "password", nullptr));
    const auto message = http_msg_new();
    const dl_auth_info credentials[] = {{"a", "1"}, {"b", "2"}};
    message->auth_type = static_cast<http_auth_type>(mode >> 1 & 3);
    message->credentials = credentials;
    message->num_credentials = 2;
    char redirect[DL_REDIRECT_SIZE] = {};
    status = http_process_response(channel, url, mode & 1, *message, redirect);
    FUZZ_CHECK(url && status <= 999);
    FUZZ_CHECK(memchr(redirect, '\0', sizeof redirect) != nullptr);
    for (const auto& header : message->headers)
      FUZZ_CHECK(header.value.find_first_of("\r\n") == std::string::npos);
    const std::string& request_line = message->request_line;
    FUZZ_CHECK(request_line.empty() || request_line.find('\r') + 2 == request_line.size());
    all = std::to_string(status) + " " + redirect + "\n";
  }
  check_headers(*session, status);
  if (session->headers) all.append(session->headers, session->headers_len);
  if (status >= 0 && session->sock != 0) all += read_body(*session, size);
  dl_http_close(session);
  close(far);
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool prepared = prepare();
  FUZZ_CHECK(prepared);
  if (size == 0 || size > max_input_bytes) return 0;
  const char* bytes = reinterpret_cast<const char*>(data) + 1;
  const std::string ahead = run(new_http_session().release(), data[0], bytes, size - 1);
  auto* bare = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
  FUZZ_CHECK(bare != nullptr);
  const std::string at_socket = run(bare, data[0], bytes, size - 1);
  // A bare record, which does not know where a body ends, follows no redirect through a proxy.
  const bool proxied = data[0] & 1;
  FUZZ_CHECK(proxied || ahead == at_socket);
  return 0;
}
