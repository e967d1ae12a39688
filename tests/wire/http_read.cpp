// http_read.cpp: reading a body by length and in chunks, from records that a caller made and from sessions
// with private state, over plain connections and TLS; closing; looking headers up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <semaphore>

#include "core/owners.h"
#include "http/http_read.h"
#include "tests/support/fed_socket.h"
#include "tests/support/http_fixture.h"
#include "tests/support/test_ca.h"

namespace {

using namespace fetchrig;
using namespace test;

struct body_row {
  std::string name;
  std::string bytes;
  lines pieces;      // what calls of `size` bytes return
  std::string rest;  // what stays in the stream then
  int32_t size = 64;
  int32_t code = 0;  // of the call behind the pieces; 0: the end
  lines error_lines = {};
};
const std::string any = "(any)";

body_row fails(std::string name, std::string bytes, int32_t code, lines error_lines, std::string rest) {
  error_lines.push_back("read chunked error");
  return {name, bytes, {}, rest, 64, code, error_lines};
}

const std::string long_line = std::string(125, '1') + "\r\n";
const std::string too_long = "Buffer not enough! buffer len 128";

const body_row chunked_rows[] = {
    {"one", "4\r\nbody\r\n0\r\n\r\nnext", {"body"}, "next"},
    {"several in one read", "3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", {"abcd"}, ""},
    {"extension", "1a;ext=1\r\nabcdefghijklmnopqrstuvwxyz\r\n0\r\n\r\n", {"abcdefghijklmnopqrstuvwxyz"}, ""},
    {"upper case, space in front", " A\r\n0123456789\r\n0\r\n\r\n", {"0123456789"}, ""},
    {"small pieces", "a\r\n0123456789\r\n3\r\nabc\r\n0\r\n\r\n", {"012", "345", "678", "9ab", "c"}, "", 3},
    {"line end inside the data", "4\r\na\r\nb\r\n0\r\n\r\n", {"a\r\nb"}, ""},
    {"empty", "0\r\n\r\nnext", {}, "next"},
    {"last chunk with zeros and an extension", "1\r\na\r\n000;x\r\n\r\nnext", {"a"}, "next"},
    {"no line behind the last chunk", "1\r\na\r\n0\r\n", {"a"}, ""},
    {"a trailer is taken for that line", "1\r\na\r\n0\r\nX: y\r\n\r\n", {"a"}, "\r\n"},
    {"no digit ends the body", "1\r\na\r\nxyz\r\n\r\n", {"a"}, ""},
    {"truncated in the data: its last two bytes pass for a line end", "a\r\nhalf", {"ha"}, ""},
    {"truncated after one byte", "a\r\nx", {}, ""},
    {"truncated behind the size", "a\r\n", {}, ""},
    {"truncated in the size", "1\r\na\r\n1", {"a"}, ""},
    {"truncated behind a chunk", "3\r\nabc\r\n", {"abc"}, ""},
    fails("size above 32 bits", "123456789\r\nx", DL_ERR_MEMORY, {}, "x"),
    fails("sum above 32 bits", "fffffffe\r\nx", DL_ERR_MEMORY, {}, "x"),
    {"sum with what is held", "2\r\nab\r\nfffffffc\r\nx", {}, "x", 3, DL_ERR_MEMORY, {"read chunked error"}},
    fails("size line of 125", long_line, DL_ERR_READ, {too_long, "read chunked len error"}, any),
    fails("last line of 125", "0\r\n" + long_line, DL_ERR_READ, {too_long, "read last EOL error"}, any),
};

// A session over `feed`: with private state, or a record made here.
class fed_session {
 public:
  fed_session(const fed_socket& feed, bool with_private, uint32_t flags, uint32_t remaining)
      : record_(with_private ? new_http_session().release()
                             : static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)))) {
    record_->magic = DL_HTTP_MAGIC;
    record_->sock = feed.duplicate();
    record_->flags = flags;
    record_->remaining = remaining;
  }
  ~fed_session() { dl_http_close(record_); }
  fed_session(const fed_session&) = delete;
  fed_session& operator=(const fed_session&) = delete;
  dl_http_session* get() const { return record_; }

 private:
  dl_http_session* record_;
};

class http_read : public http_test {
 protected:
  void check(const body_row& row, bool with_private, std::size_t piece_len) {
    fed_socket feed(row.bytes, piece_len);
    const fed_session session(feed, with_private, DL_HTTP_FLAG_CHUNKED, 0);
    log_.clear();
    std::string buffer(static_cast<std::size_t>(row.size), '\0');
    dl_result result = {};
    for (const std::string& piece : row.pieces) {
      const int count = dl_http_read(session.get(), buffer.data(), row.size, &result);
      ASSERT_EQ(static_cast<int>(piece.size()), count);
      EXPECT_EQ(piece, buffer.substr(0, piece.size()));
      EXPECT_EQ(0, result.code);
    }
    EXPECT_EQ(row.code == 0 ? 0 : -1, dl_http_read(session.get(), buffer.data(), row.size, &result));
    EXPECT_EQ(row.code, result.code);
    EXPECT_EQ(row.error_lines, errors());
    if (with_private || row.rest == any) return;
    EXPECT_EQ(row.rest, feed.rest());
  }
};

TEST_F(http_read, chunked) {
  for (const auto& row : chunked_rows) {
    SCOPED_TRACE(row.name);
    for (const bool with_private : {false, true}) {
      for (const std::size_t piece_len : {0u, 1u, 2u}) {
        SCOPED_TRACE(::testing::Message() << with_private << " " << piece_len);
        check(row, with_private, piece_len);
      }
    }
  }
}

// Symptom: a server that announces a chunk of 4 GiB makes the phone run out of memory.
TEST_F(http_read, a_claimed_chunk_size_costs_nothing) {
  const fed_socket feed("fffffffd\r\n" + std::string(3000, 'x'));
  const fed_session session(feed, true, DL_HTTP_FLAG_CHUNKED, 0);
  char buffer[64];
  dl_result result = {};
  EXPECT_EQ(64, dl_http_read(session.get(), buffer, sizeof buffer, &result));
  EXPECT_LE(session.get()->chunk->capacity, 8192u);
}

// Symptom: a body in many chunks of odd sizes, taken in odd pieces, arrives shifted.
TEST_F(http_read, chunks_and_pieces_of_all_sizes) {
  const std::string content = make_bytes(20000);
  std::string bytes;
  for (std::size_t at = 0, size = 1; at < content.size(); at += size, size = size * 3 % 1021 + 1) {
    char line[16];
    const std::string chunk = content.substr(at, size);
    snprintf(line, sizeof line, "%zx\r\n", chunk.size());
    bytes += line + chunk + "\r\n";
  }
  bytes += "0\r\n\r\n";
  for (const bool with_private : {false, true}) {
    for (const int size : {1, 7, 512, 4096, 20001}) {
      fed_socket feed(bytes);
      const fed_session session(feed, with_private, DL_HTTP_FLAG_CHUNKED, 0);
      std::string got;
      std::string buffer(static_cast<std::size_t>(size), '\0');
      dl_result result = {};
      int count = 0;
      while ((count = dl_http_read(session.get(), buffer.data(), size, &result)) > 0) {
        EXPECT_TRUE(count == size || got.size() + static_cast<std::size_t>(count) == content.size());
        got.append(buffer, 0, static_cast<std::size_t>(count));
      }
      EXPECT_EQ(0, count);
      EXPECT_TRUE(got == content) << size;
    }
  }
}

TEST_F(http_read, by_length) {
  const struct {
    const char* name;
    uint32_t remaining;
    std::string bytes;
    int32_t size;
    lines pieces;
    uint32_t left;
  } cases[] = {
      {"whole", 4, "body", 64, {"body"}, 0},
      {"in pieces", 5, "abcde", 2, {"ab", "cd", "e"}, 0},
      {"longer than the length", 4, "bodysurplus", 64, {"body"}, 0},
      {"shorter than the length", 10, "half", 64, {"half"}, 6},
      {"length 0", 0, "surplus", 64, {}, 0},
      {"nothing comes", 10, "", 64, {}, 10},
      {"above 2 GiB", 0xffffffff, "abc", 64, {"abc"}, 0xfffffffc},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    for (const bool with_private : {false, true}) {
      for (const std::size_t piece_len : {0u, 1u}) {
        fed_socket feed(row.bytes, piece_len);
        const fed_session session(feed, with_private, 0, row.remaining);
        dl_result result = {};
        char buffer[64];
        for (const std::string& piece : row.pieces) {
          const int count = dl_http_read(session.get(), buffer, row.size, &result);
          ASSERT_EQ(piece, std::string(buffer, static_cast<std::size_t>(std::max(0, count))));
        }
        EXPECT_EQ(0, dl_http_read(session.get(), buffer, row.size, &result));
        EXPECT_EQ(row.left, session.get()->remaining);
      }
    }
  }
}

TEST_F(http_read, arguments) {
  const fed_socket feed("body");
  const fed_session session(feed, false, 0, 4);
  dl_http_session no_mark = *session.get();
  no_mark.magic = 10139;
  dl_http_session no_sock = *session.get();
  no_sock.sock = 0;
  char buffer[8];
  dl_result result = {};
  const struct {
    dl_http_session* session;
    char* buffer;
    int32_t size;
  } cases[] = {{nullptr, buffer, 8},
               {session.get(), nullptr, 8},
               {&no_mark, buffer, 8},
               {&no_sock, buffer, 8},
               {session.get(), buffer, -1}};
  for (const auto& row : cases) {
    result = {};
    log_.clear();
    EXPECT_EQ(-1, dl_http_read(row.session, row.buffer, row.size, &result));
    EXPECT_EQ(DL_ERR_PARAMETER, result.code);
    EXPECT_STREQ("Invalid Parameter", result.message);
    EXPECT_EQ(lines{"http read with invalid parameter"}, errors());
  }
  EXPECT_EQ(-1, dl_http_read(session.get(), buffer, 8, nullptr));
  result = {};
  EXPECT_EQ(0, dl_http_read(session.get(), buffer, 0, &result));
  EXPECT_EQ(4, dl_http_read(session.get(), buffer, 8, &result));
  EXPECT_EQ(0, result.code);
}

TEST_F(http_read, close_takes_live_sessions_alone) {
  dl_http_close(nullptr);
  dl_http_session dead = {};
  dead.sock = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  dl_http_close(&dead);
  EXPECT_NE(-1, fcntl(dead.sock, F_GETFD)) << "a dead record's socket was closed";
  close(dead.sock);
  for (const int standard : {0, 1, 2}) {
    const bool was_open = fcntl(standard, F_GETFD) != -1;
    auto session = new_http_session();
    session->sock = standard;
    session.reset();
    EXPECT_EQ(was_open, fcntl(standard, F_GETFD) != -1) << standard;
  }
}

TEST_F(http_read, header_lookup) {
  char block[] = "content-type: Text/HTML\0x-empty:\0x-a: 1\0x-a: 2\0content-type-x: no\0";
  dl_http_session session = {};
  const auto found = [&](const char* name) -> std::string {
    const char* line = dl_http_find_header_by_name(&session, name);
    return line ? line : "(none)";
  };
  EXPECT_EQ("(none)", found("Content-Type"));
  session.headers = block;
  EXPECT_EQ("content-type: Text/HTML", found("Content-Type"));
  EXPECT_EQ("x-a: 1", found("X-A"));
  EXPECT_EQ("x-empty:", found("x-empty"));
  for (const char* name : {"", "content", "content-typ", "text/html", "x-b", "x-a: 1"}) {
    EXPECT_EQ("(none)", found(name)) << name;
  }
  EXPECT_EQ("(none)", found(std::string(300, 'x').c_str()));
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(&session, nullptr));
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(nullptr, "x-a"));
  const std::string longest(127, 'y');
  std::string long_block = longest + ": 1";
  session.headers = long_block.data();
  EXPECT_EQ(long_block, found((longest + "cut off").c_str()));
}

TEST_F(http_read, a_reset_connection_fails_the_read) {
  tcp_peer server(
      {{expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"), reset()}});
  const http_outcome outcome = fetch({.url = server.url("http", "/")}, 4);
  // The reset may overtake the body, then the open fails with a read error instead.
  if (outcome.code == 0) {
    EXPECT_EQ(-1, outcome.read_code);
    EXPECT_EQ(lines{"read error"}, errors());
  } else {
    EXPECT_EQ(DL_ERR_READ, outcome.code);
  }
}

// Symptom: the process ends with SIGPIPE when the server closes while a request is being sent.
class closed_while_sending : public http_read {
 protected:
  int32_t put_to(const tcp_peer& server, const std::string& scheme) const {
    write_file(place_.file("big"), std::string(16 << 20, 'x'));
    const std::string url = server.url(scheme, "/");
    const http_ask ask = {.url = url, .method = DL_METHOD_PUT, .headers = ""};
    const dl_http_request request = ask.request();
    dl_http_session* session = nullptr;
    char redirect[DL_REDIRECT_SIZE];
    dl_result result = {};
    EXPECT_EQ(-1, dl_http_post_file(&session, &request, place_.file("big").c_str(), redirect, &result));
    return result.code;
  }
};

TEST_F(closed_while_sending, plain) {
  tcp_peer server({{expect_length(1), reset()}});
  EXPECT_EQ(DL_ERR_SEND, put_to(server, "http"));
  ASSERT_EQ(1u, errors().size());
  EXPECT_EQ("write error, errno ", errors()[0].substr(0, 19));
}

TEST_F(closed_while_sending, a_server_that_reads_nothing_is_given_up) {
  std::binary_semaphore given_up(0);
  tcp_peer server({{expect_length(1), call([&] { given_up.acquire(); }), hang_up()}});
  EXPECT_EQ(DL_ERR_SEND, put_to(server, "http"));
  given_up.release();
  EXPECT_TRUE(server.finish());
}

class http_read_tls : public closed_while_sending {
 protected:
  test_ca ca_{place_};
  cert_files files_ = ca_.issue("server");
  peer_settings tls(int version, delivery mode = delivery::whole) const {
    return {.mode = mode,
            .tls = tls_settings{.cert_file = files_.cert,
                                .key_file = files_.key,
                                .min_version = version,
                                .max_version = version}};
  }
  http_read_tls() {
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
    set_option(DL_OPT_VERIFY_HOST, 1);
  }
};

TEST_F(http_read_tls, versions_and_deliveries) {
  const std::string content = make_bytes(700);
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2bc\r\n" + content + "\r\n0\r\n\r\n";
  const struct {
    int version;
    uint32_t method;
  } cases[] = {{TLS1_VERSION, 0}, {TLS1_2_VERSION, 3}, {TLS1_3_VERSION, 3}};
  for (const auto& row : cases) {
    set_option(DL_OPT_SSL_METHOD, row.method);
    for (const delivery mode : all_deliveries) {
      for (const std::string& answer : {response("200 OK", content), chunked}) {
        SCOPED_TRACE(::testing::Message() << row.version << " " << mode);
        tcp_peer server({{expect("GET /a HTTP/1.1\r\nHost: 127.0.0.1:@PORT@\r\nUser-Agent: Korvane\r\n"
                                 "Accept: */*\r\n\r\n"),
                          send(answer)}},
                        tls(row.version, mode));
        const http_outcome outcome = fetch({.url = server.url("https", "/a")}, 100);
        EXPECT_EQ(0, outcome.code);
        EXPECT_TRUE(content == outcome.body);
        EXPECT_TRUE(outcome.has_headers);
        EXPECT_TRUE(server.finish());
      }
    }
  }
}

TEST_F(http_read_tls, an_end_without_farewell_is_no_end) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    tcp_peer server(
        {{expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"), hang_up()}},
        tls(version));
    const http_outcome outcome = fetch({.url = server.url("https", "/")}, 4);
    EXPECT_EQ("half", outcome.body);
    EXPECT_LE(outcome.read_code, 0);
  }
}

TEST_F(http_read_tls, redirects_between_the_schemes) {
  tcp_peer plain({{expect_until("\r\n\r\n"), send(response("200 OK", "clear"))}});
  tcp_peer secure({{expect_until("\r\n\r\n"), send(redirect_to(plain.url("http", "/end")))}},
                  tls(TLS1_3_VERSION));
  tcp_peer first({{expect_until("\r\n\r\n"), send(redirect_to(secure.url("https", "/next")))}});
  EXPECT_EQ("clear", fetch({.url = first.url("http", "/")}).body);
  EXPECT_TRUE(secure.finish());
  EXPECT_EQ("", secure.tls(0).failure);
  EXPECT_EQ(1u, log_.count(", from https to http"));
}

TEST_F(http_read_tls, a_handshake_that_fails_leaves_no_socket) {
  tcp_peer server({{stall()}}, tls(TLS1_3_VERSION));
  set_option(DL_OPT_SSL_METHOD, 0);
  EXPECT_EQ(DL_ERR_CONNECT, fetch({.url = server.url("https", "/")}).code);
  EXPECT_EQ(lines{"Connect Error"}, errors());
}

TEST_F(http_read_tls, the_wait_limit_ends_a_stall) {
  dl_set_tls_wait_limit(1);
  tcp_peer server(
      {{expect_until("\r\n\r\n"), send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf"), stall()}},
      tls(TLS1_3_VERSION));
  const http_outcome outcome = fetch({.url = server.url("https", "/")}, 4);
  EXPECT_EQ("half", outcome.body);
  EXPECT_LT(outcome.read_code, 0);
}

TEST_F(http_read_tls, closed_while_sending_over_tls) {
  tcp_peer server({{expect_length(1), reset()}}, tls(TLS1_3_VERSION));
  EXPECT_EQ(DL_ERR_SEND, put_to(server, "https"));
}

}  // namespace
