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

#include "fuzz/support/check.h"
#include "http/http_read.h"
#include "http/http_response.h"

using namespace fetchrig;

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char*, const char*,
                                                                  const struct addrinfo*, struct addrinfo**) {
  return EAI_NONAME;
}

namespace {

constexpr size_t max_input_bytes = 60000;  // fits a socket's buffer
constexpr uint32_t max_body_bytes = 4096;
constexpr size_t max_block_bytes = 256 * 1024;

bool prepare() {
  dl_config_init();
  dl_log_init(0, nullptr);
  return dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_body_bytes) == 0;
}

struct ends {
  int near;
  int far;
};

// A connection on which the answer has arrived and after which the server has closed its direction.
ends connection_with(const char* bytes, size_t size) {
  int pair[2] = {-1, -1};
  FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) == 0);
  FUZZ_CHECK(send(pair[1], bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size));
  shutdown(pair[1], SHUT_WR);
  return {pair[0], pair[1]};
}

struct outcome {
  int status = 0;
  std::string headers;
  std::string body;
  int last_read = 0;
  std::string redirect;
  bool operator==(const outcome&) const = default;
};

void check_headers(const dl_http_session& session, int status) {
  FUZZ_CHECK((session.headers != nullptr) == (status == 0));
  if (!session.headers) return;
  FUZZ_CHECK(session.headers_len < max_block_bytes && session.headers[session.headers_len] == '\0');
  size_t at = 0;
  while (session.headers[at] != '\0') {
    const std::string line = session.headers + at;
    FUZZ_CHECK(line.find("\r\n") == std::string::npos);
    const std::string name = line.substr(0, line.find(':'));
    FUZZ_CHECK(std::none_of(name.begin(), name.end(), [](char c) { return c >= 'A' && c <= 'Z'; }));
    at += line.size() + 1;
  }
  FUZZ_CHECK(at == session.headers_len);
  const char* type = dl_http_find_header_by_name(&session, "Content-Type");
  FUZZ_CHECK(!type || strncmp(type, "content-type:", 13) == 0);
}

void read_body(dl_http_session& session, size_t input_size, outcome& result) {
  char buffer[300];
  dl_result ignored = {};
  do {
    result.last_read = dl_http_read(&session, buffer, sizeof buffer, &ignored);
    if (result.last_read > 0) result.body.append(buffer, static_cast<size_t>(result.last_read));
    FUZZ_CHECK(result.body.size() <= input_size);
  } while (result.last_read > 0);
  FUZZ_CHECK((result.last_read < 0) == (ignored.code != 0));
}

outcome run(dl_http_session* session, uint8_t mode, const char* bytes, size_t size) {
  const ends connection = connection_with(bytes, size);
  session->magic = DL_HTTP_MAGIC;
  session->sock = connection.near;
  outcome result;
  {
    http_channel channel(*session);
    unique_url url(dl_url_parse("http://origin.invalid/a", "user", "password", nullptr));
    const auto message = http_msg_new();
    const dl_auth_info credentials[] = {{"a", "1"}, {"b", "2"}};
    message->auth_type = static_cast<http_auth_type>(mode >> 1 & 3);
    message->credentials = credentials;
    message->num_credentials = 2;
    char redirect[DL_REDIRECT_SIZE] = {};
    result.status = http_process_response(channel, url, mode & 1, *message, redirect);
    FUZZ_CHECK(url && result.status <= 999);
    FUZZ_CHECK(memchr(redirect, '\0', sizeof redirect) != nullptr);
    for (const auto& header : message->headers)
      FUZZ_CHECK(header.value.find_first_of("\r\n") == std::string::npos);
    const std::string& request_line = message->request_line;
    FUZZ_CHECK(request_line.empty() || request_line.find('\r') + 2 == request_line.size());
    result.redirect = redirect;
  }
  check_headers(*session, result.status);
  if (session->headers) result.headers.assign(session->headers, session->headers_len);
  if (result.status >= 0 && session->sock != 0) read_body(*session, size, result);
  dl_http_close(session);
  close(connection.far);
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool prepared = prepare();
  FUZZ_CHECK(prepared);
  if (size == 0 || size > max_input_bytes) return 0;
  const char* bytes = reinterpret_cast<const char*>(data) + 1;
  const outcome ahead = run(new_http_session().release(), data[0], bytes, size - 1);
  auto* bare = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
  FUZZ_CHECK(bare != nullptr);
  FUZZ_CHECK(ahead == run(bare, data[0], bytes, size - 1));
  return 0;
}
