// http_read.cpp: reading a body by length and in chunks, from records that a caller made and from sessions
// with private state, over plain connections and TLS; closing; looking headers up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <semaphore>

#include "core/owners.h"
#include "http/http_response_body.h"
#include "tests/support/fed_socket.h"
#include "tests/support/http_fixture.h"
#include "tests/support/pki.h"

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
const lines failed = {"read chunked error"};
const std::string long_line = std::string(125, '1') + "\r\n";
lines too_long(const char* which) {
  return {"Buffer not enough! buffer len 128", which, failed[0]};
}

// clang-format off
const body_row chunked_rows[] = {
    {"one", "4\r\nbody\r\n0\r\n\r\nnext", {"body"}, "next"},
    {"several in one read, an extension", "3;x=1\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", {"abcd"}, ""},
    {"upper case, space in front", " A\r\n0123456789\r\n0\r\n\r\n", {"0123456789"}, ""},
    {"small pieces", "a\r\n0123456789\r\n3\r\nabc\r\n0\r\n\r\n", {"012", "345", "678", "9ab", "c"}, "", 3},
    {"line end inside the data", "4\r\na\r\nb\r\n0\r\n\r\n", {"a\r\nb"}, ""},
    {"empty", "0\r\n\r\nnext", {}, "next"},
    {"last chunk with zeros and an extension", "1\r\na\r\n000;x\r\n\r\nnext", {"a"}, "next"},
    {"a trailer is taken for the last line", "1\r\na\r\n0\r\nX: y\r\n\r\n", {"a"}, "\r\n"},
    {"no digit ends the body", "1\r\na\r\nxyz\r\n\r\n", {"a"}, ""},
    {"truncated in the data: its last two bytes pass for a line end", "a\r\nhalf", {"ha"}, ""},
    {"truncated after one byte", "a\r\nx", {}, ""},
    {"truncated behind the size", "a\r\n", {}, ""},
    {"truncated behind a chunk", "3\r\nabc\r\n", {"abc"}, ""},
    {"size above 32 bits", "123456789\r\nx", {}, "x", 64, DL_ERR_MEMORY, failed},
    {"sum above 32 bits", "fffffffe\r\nx", {}, "x", 64, DL_ERR_MEMORY, failed},
    {"sum with what is held", "2\r\nab\r\nfffffffc\r\nx", {}, "x", 3, DL_ERR_MEMORY, failed},
    {"size line of 125", long_line, {}, any, 64, DL_ERR_READ, too_long("read chunked len error")},
    {"last line of 125", "0\r\n" + long_line, {}, any, 64, DL_ERR_READ, too_long("read last EOL error")},
};
// By length; the first number is it, the second how much is missing in the end.
const struct {
  body_row body;
  uint32_t remaining, left;
} sized_rows[] = {
    {{"in pieces", "abcde", {"ab", "cd", "e"}, "", 2}, 5, 0},
    {{"longer than the length", "bodysurplus", {"body"}, "surplus"}, 4, 0},
    {{"shorter than the length", "half", {"half"}, ""}, 10, 6},
    {{"length 0", "surplus", {}, "surplus"}, 0, 0},
    {{"above 2 GiB", "abc", {"abc"}, ""}, 0xffffffff, 0xfffffffc},
};
// clang-format on

// A session over `feed`: with private state, or a record made here.
auto fed_session(const fed_socket& feed, bool with_private, uint32_t flags, uint32_t remaining) {
  auto session = new_http_session();
  if (!with_private) session.reset(static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session))));
  session->magic = DL_HTTP_MAGIC;
  session->sock = feed.duplicate();
  session->flags = flags;
  session->remaining = remaining;
  return session;
}

class http_read : public http_test {
 protected:
  void check(const body_row& row, uint32_t flags, uint32_t remaining = 0, uint32_t left = 0) {
    for (const bool with_private : {false, true}) {
      for (const std::size_t piece_len : {0u, 1u, 2u}) {
        SCOPED_TRACE(::testing::Message() << row.name << " " << with_private << " " << piece_len);
        fed_socket feed(row.bytes, piece_len);
        const auto session = fed_session(feed, with_private, flags, remaining);
        log_.clear();
        std::string buffer(static_cast<std::size_t>(row.size), '\0');
        dl_result result = {};
        for (const std::string& piece : row.pieces) {
          const int count = dl_http_read(session.get(), buffer.data(), row.size, &result);
          ASSERT_EQ(piece, buffer.substr(0, static_cast<std::size_t>(std::max(0, count))));
        }
        EXPECT_EQ(row.code == 0 ? 0 : -1, dl_http_read(session.get(), buffer.data(), row.size, &result));
        EXPECT_EQ(row.code, result.code);
        EXPECT_EQ(row.error_lines, errors());
        EXPECT_EQ(left, session->remaining);
        EXPECT_EQ(row.rest, with_private || row.rest == any ? row.rest : feed.rest());
      }
    }
  }
};

TEST_F(http_read, bodies) {
  for (const auto& row : chunked_rows) check(row, DL_HTTP_FLAG_CHUNKED);
  for (const auto& row : sized_rows) check(row.body, 0, row.remaining, row.left);
}

// Symptom: a server that sends one chunk of 700 MiB makes the phone run out of memory.
TEST_F(http_read, large_chunks_pass_through) {
  const std::string content = make_bytes(150000), size_lines = "249f0;x\r\n";
  const std::pair<std::string, std::string> rows[] = {
      {size_lines + content + "\r\n3\r\nabc\r\n0\r\n\r\n", content + "abc"},
      {size_lines + content, content.substr(0, 149998)},  // the last two bytes pass for a line end
      {"fffffffd\r\n" + content.substr(0, 3000), content.substr(0, 2998)},
  };
  for (const auto& [bytes, body] : rows) {
    for (const auto& [with_private, size] :
         {std::pair(false, 65537), {true, 1}, {true, 512}, {true, 200000}}) {
      SCOPED_TRACE(::testing::Message() << with_private << " " << size);
      fed_socket feed(bytes, 50000);
      const auto session = fed_session(feed, with_private, DL_HTTP_FLAG_CHUNKED, 0);
      std::string buffer(static_cast<std::size_t>(size), '\0'), got;
      dl_result result = {};
      for (int count = 1; count > 0; got.append(buffer, 0, static_cast<std::size_t>(count))) {
        count = dl_http_read(session.get(), buffer.data(), size, &result);
        ASSERT_GE(count, 0);
        EXPECT_LE(session->chunk->length, 65536u);
      }
      EXPECT_TRUE(body == got) << got.size();
      EXPECT_LE(session->chunk->capacity, std::min<uint64_t>(65538, std::max<uint64_t>(8192, body.size())));
      EXPECT_EQ(body.ends_with("abc") ? DL_HTTP_CHUNKS_ALL : DL_HTTP_CHUNKS_CUT, session->chunk->finished);
    }
  }
}

// Symptom: a chunk that trickles in holds one call up for its whole length.
TEST_F(http_read, what_is_there_of_a_large_chunk_is_delivered_and_a_failure_loses_nothing) {
  for (const bool with_private : {false, true}) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const unique_fd peer(ends[1]);
    const auto session = fed_session(fed_socket(""), with_private, DL_HTTP_FLAG_CHUNKED, 0);
    dup2(ends[0], session->sock);
    close(ends[0]);
    const std::string bytes = "2\r\nab\r\n100000\r\ncdefgh";
    ASSERT_EQ(std::ssize(bytes), write(peer.get(), bytes.data(), bytes.size()));
    char buffer[64] = "";
    dl_result result = {};
    EXPECT_EQ(3, dl_http_read(session.get(), buffer, 3, &result));
    EXPECT_EQ(-1, dl_http_read(session.get(), buffer + 3, 60, &result));
    EXPECT_EQ(DL_ERR_READ, result.code);
    EXPECT_EQ(3, dl_http_read(session.get(), buffer + 3, 3, &result));
    EXPECT_STREQ("abcdef", std::string(buffer, 6).c_str());
  }
}

TEST_F(http_read, arguments) {
  const fed_socket feed("body");
  const auto session = fed_session(feed, false, 0, 4);
  dl_http_session no_mark = *session, no_sock = *session;
  no_mark.magic = 10139;
  no_sock.sock = 0;
  char buffer[8];
  dl_result result = {};
  const auto code = [&](dl_http_session* from, char* to, int32_t size) {
    EXPECT_EQ(-1, dl_http_read(from, to, size, &result));
    return std::exchange(result, {}).code;
  };
  EXPECT_EQ(std::vector<int32_t>(5, DL_ERR_PARAMETER),
            (std::vector{code(nullptr, buffer, 8), code(session.get(), nullptr, 8), code(&no_mark, buffer, 8),
                         code(&no_sock, buffer, 8), code(session.get(), buffer, -1)}));
  EXPECT_EQ(lines(5, "http read with invalid parameter"), errors());
  EXPECT_EQ(-1, dl_http_read(session.get(), buffer, 8, nullptr));
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
  for (const char* name : {"", "content-typ", "text/html", "x-a: 1"})
    EXPECT_EQ("(none)", found(name)) << name;
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(&session, nullptr));
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(nullptr, "x-a"));
  std::string long_block = std::string(127, 'y') + ": 1";
  session.headers = long_block.data();
  EXPECT_EQ(long_block, found((std::string(127, 'y') + "cut off").c_str()));
}

const std::string half_body = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf";
connection_script answered(const std::string& answer, step last = send("")) {
  return {expect_until("\r\n\r\n"), send(answer), last};
}

class http_read_tls : public http_read {
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
  peer_settings tls(int version, delivery mode = delivery::whole) const {
    return {.mode = mode, .tls = tls_settings{files_.cert, files_.key, version, version}};
  }
  http_read_tls() {
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
    set_option(DL_OPT_VERIFY_HOST, 1);
  }
  test_ca ca_{place_};
  cert_files files_ = ca_.issue("server");
};

// Symptom: the process ends with SIGPIPE when the server closes while a request is being sent.
TEST_F(http_read_tls, a_server_that_closes_while_it_is_sent_to) {
  tcp_peer plain({{expect_length(1), reset()}});
  EXPECT_EQ(DL_ERR_SEND, put_to(plain, "http"));
  ASSERT_EQ(1u, errors().size());
  EXPECT_EQ("write error, errno ", errors()[0].substr(0, 19));
  tcp_peer secure({{expect_length(1), reset()}}, tls(TLS1_3_VERSION));
  EXPECT_EQ(DL_ERR_SEND, put_to(secure, "https"));
}

TEST_F(http_read_tls, a_server_that_reads_nothing_is_given_up) {
  std::binary_semaphore given_up(0);
  tcp_peer server({{expect_length(1), call([&] { given_up.acquire(); }), hang_up()}});
  EXPECT_EQ(DL_ERR_SEND, put_to(server, "http"));
  given_up.release();
  EXPECT_TRUE(server.finish());
}

TEST_F(http_read_tls, versions_and_deliveries) {
  const std::string content = make_bytes(700);
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2bc\r\n" + content + "\r\n0\r\n\r\n";
  for (const int version : {TLS1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    set_option(DL_OPT_SSL_METHOD, version == TLS1_VERSION ? 0 : 3);
    for (const delivery mode : all_deliveries) {
      for (const std::string& answer : {response("200 OK", content), chunked}) {
        SCOPED_TRACE(::testing::Message() << version << " " << mode);
        tcp_peer server({{expect("GET /a HTTP/1.1\r\nHost: 127.0.0.1:@PORT@\r\nUser-Agent: Korvane\r\n"
                                 "Accept: */*\r\n\r\n"),
                          send(answer)}},
                        tls(version, mode));
        const http_outcome outcome = fetch({.url = server.url("https", "/a")}, 100);
        EXPECT_EQ(0, outcome.code);
        EXPECT_TRUE(content == outcome.body);
        EXPECT_TRUE(server.finish());
      }
    }
  }
}

TEST_F(http_read_tls, bodies_that_stop) {
  dl_set_tls_wait_limit(1);
  for (const bool silent : {false, true}) {
    tcp_peer server({answered(half_body, silent ? stall() : hang_up())}, tls(TLS1_3_VERSION));
    const http_outcome outcome = fetch({.url = server.url("https", "/")}, 4);
    EXPECT_EQ("half", outcome.body);
    EXPECT_EQ(silent ? -1 : 0, outcome.read_code);
  }
  // Symptom: what was asked again behind the end failed, although the end itself had been no failure.
  const std::string cut_chunk = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nhalf\r\n";
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    for (const std::string& answer : {half_body, cut_chunk}) {
      tcp_peer server({answered(answer, hang_up())}, tls(version));
      const http_outcome outcome = fetch({.url = server.url("https", "/")}, 64);
      EXPECT_EQ("half", outcome.body) << answer;
      EXPECT_EQ(0, outcome.read_code) << answer;
    }
  }
}

TEST_F(http_read_tls, redirects_between_the_schemes) {
  tcp_peer plain({answered(response("200 OK", "clear"))});
  tcp_peer secure({answered(redirect_to(plain.url("http", "/end")))}, tls(TLS1_3_VERSION));
  tcp_peer first({answered(redirect_to(secure.url("https", "/next")))});
  EXPECT_EQ("clear", fetch({.url = first.url("http", "/")}).body);
  EXPECT_TRUE(secure.finish());
  EXPECT_EQ("", secure.tls(0).failure);
  EXPECT_EQ(1u, log_.count(", from https to http"));
}

}  // namespace
