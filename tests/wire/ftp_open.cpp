// ftp_open.cpp: replies and what is read out of them, login and the data connection, as every transfer
// begins.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>

#include "core/owners.h"
#include "ftp/ftp_command.h"
#include "ftp/ftp_parse.h"
#include "include/fetchrig_openssl.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;
using namespace std::string_view_literals;

// clang-format off
TEST(ftp_parse, epsv_port_is_the_first_number_after_something_else) {
  const struct { std::string_view text; std::optional<uint16_t> port; } rows[] = {
      {"!!!1!", 1}, {"|1|::1|21|", 1}, {"|||65535|", 65535}, {"|||00021|", 21}, {"|||-21|", 21}, {"50000|||", 0},
      {"|||", 0}, {"", 0}, {"|||0|", 0}, {"|||65536|", {}}, {"|||18446744073709551637|", {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_epsv_port(row.text), row.port) << row.text;
}

TEST(ftp_parse, pasv_endpoint_is_six_bytes) {
  for (const auto& text : {"192,168,1,10,255,254", "192,168,01,010,255,254 ", "192,168,1,10,255x,254;"}) {
    const auto found = ftp_pasv_endpoint(text);
    ASSERT_TRUE(found) << text;
    EXPECT_EQ(found->address, (std::array<uint8_t, 4>{192, 168, 1, 10})) << text;
    EXPECT_EQ(found->port, 65534) << text;
  }
  for (const auto text : {
      ""sv, ",,,,,"sv, "1,2,3,4,5"sv, "1,2,3,4,5,6,7"sv, "256,0,0,1,4,5"sv, "127,0,0,1,256,5"sv, "127,0,0,1,4,256"sv,
      "127,0,0,1,4,"sv, "127,0,0,1,-4,5"sv, "-127,0,0,1,4,5"sv, "127,0,0,,4,5"sv, "127,0, 0,1,4,5"sv,
      "127.0.0.1,4,5"sv, "127,0,0,1,4,18446744073709551621"sv, "127,0,0\0,1,4,5"sv}) {
    EXPECT_FALSE(ftp_pasv_endpoint(text)) << text;
  }
}

TEST(ftp_parse, size_follows_the_code) {
  const struct { std::string_view line; std::optional<uint64_t> size; } rows[] = {
      {"213 0", 0u}, {"213  12 bytes", 12u}, {"213 4294967296", 4294967296u}, {"213 18446744073709551616", UINT64_MAX},
      {"213 -1", {}}, {"213 +1", {}}, {"213 ", {}}, {"213", {}}, {"213 \0005"sv, {}},
  };
  for (const auto& row : rows) EXPECT_EQ(ftp_size_answer(row.line), row.size) << row.line;
}
// clang-format on

class ftp_reply_reader : public ftp_test {
 protected:
  // A session with nothing but its control connection.
  static dl_ftp_session connect(const tcp_peer& peer) {
    dl_ftp_session session = {};
    session.ctrl_sock = dl_connect("127.0.0.1", peer.port(), 0, 5);
    return session;
  }
  // Reads one reply from a peer that says `bytes` and closes.
  int read(const std::string& bytes, delivery mode = delivery::whole, int expected = 0) {
    tcp_peer peer({{send(bytes)}}, {.mode = mode});
    const dl_ftp_session session = connect(peer);
    const unique_fd sock(session.ctrl_sock);
    reply_.assign("stale");
    return dl_recv_reply(session, reply_, {expected, -19});
  }
  std::vector<char> buffer_ = std::vector<char>(512);
  ftp_reply reply_{buffer_};
};

TEST_F(ftp_reply_reader, reads_to_the_final_line_however_it_arrives) {
  const std::string fits = "220 " + std::string(504, 't');  // leaves room for three more of 512 bytes
  // clang-format off
  const struct { std::string bytes; int expected; int code; std::string line; } rows[] = {
      {"530 no\r\n", 230, -19, "530 no"},
      {"220-a\r\n\r\n b\r\n22\r\n2200 x\r\n220c\r\n2x0 y\r\n+20 z\r\n220\tt\r\n221 d\r\n331 e\r\n", 221, 221, "221 d"},
      {"\0 220 a\rb\nc\r\n220 \0b\r\n"s, 0, 220, "220 \0b"s},
      {"220-a\r\n220 bye", 0, 220, "220 bye"},
      {"220-a\r\n", 0, -8, ""},
      {fits + "\r\n", 0, 220, fits},
      {"220-a\r\n" + fits + "t\r\n", 0, -1, ""},
  };
  // clang-format on
  for (const auto& row : rows) {
    for (const delivery mode : all_deliveries) {
      SCOPED_TRACE(row.bytes);
      SCOPED_TRACE(mode);
      EXPECT_EQ(row.code, read(row.bytes, mode, row.expected));
      EXPECT_EQ(row.line, reply_.line());
      EXPECT_EQ('\0', buffer_[row.line.size()]);
    }
  }
  reply_ = ftp_reply(std::span(buffer_).first(1));
  EXPECT_EQ(-1, read("220 a\r\n"));
}

TEST_F(ftp_reply_reader, a_reply_without_end_is_given_up) {
  std::string lines;
  for (int i = 0; i < 9999; ++i) lines += "220-\r\n";
  EXPECT_EQ(220, read(lines + "220 \r\n"));
  EXPECT_EQ(-8, read(lines + "220-\r\n220 \r\n"));
}

TEST_F(ftp_reply_reader, a_failed_send_is_logged_without_the_password) {
  tcp_peer peer({idle});
  const dl_ftp_session session = connect(peer);
  const unique_fd sock(session.ctrl_sock);
  ASSERT_EQ(0, shutdown(sock.get(), SHUT_WR));
  reply_.assign("331 of the command before");
  EXPECT_EQ(-4, ftp_command(session, "PASS", "secret", reply_));
  EXPECT_EQ("", reply_.line());
  EXPECT_EQ(-4, ftp_command(session, "SIZE", "a\033b", reply_));
  expect_log(DL_LOG_ERROR, {"Error send command PASS ******\r\n", "Error send command SIZE a?b\r\n"});
}

class ftp_open : public ftp_test {
 protected:
  int open(uint16_t port, const char* user = nullptr, const char* password = nullptr) {
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    const int rc = dl_ftp_open(&session_, "127.0.0.1", port, user, password, "/pub/a.bin", &result_);
    EXPECT_EQ(rc == 0, session_ != nullptr);
    return rc;
  }
  dl_ftp_session* session_ = nullptr;
};

TEST_F(ftp_open, logs_in_and_says_nothing_else) {
  const auto type = turn("TYPE I", "200 ok");
  const auto user = greeting + turn("USER me", "331 ?");
  // clang-format off
  const struct { const char* user; const char* password; connection_script login; } rows[] = {
      {nullptr, nullptr, anonymous_login()},
      {"", nullptr, anonymous_login()},
      {"me", "my word", user + turn("PASS my word", "230 in") + type},
      {"me", "", user + turn("PASS ", "230 in") + type},
      {"me", "unused", greeting + turn("USER me", "230-in\r\nnews\r\n230 go") + type},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    tcp_peer data({idle});
    tcp_peer control({row.login + turn("PASV", pasv_answer(data.port())) + turn("SIZE pub/a.bin", "213 7") +
                      turn("RETR pub/a.bin", "150 go")});
    ASSERT_EQ(0, open(control.port(), row.user, row.password)) << log_.all();
    expect_result(0, "");
    EXPECT_EQ(10139u, session_->magic);
    EXPECT_EQ(7u, session_->remaining);
    EXPECT_STREQ("127.0.0.1", session_->host);
    dl_ftp_close(session_);
    EXPECT_TRUE(control.finish());
    EXPECT_TRUE(control.received(0).ends_with("\r\nRETR pub/a.bin\r\n")) << "something followed";
  }
  EXPECT_EQ(0u, log_.count("my word"));
  expect_log(DL_LOG_ERROR, {});
}

TEST_F(ftp_open, a_failed_step_ends_in_its_code_and_message) {
  uint16_t closed = 0;
  {
    tcp_peer gone({});
    closed = gone.port();
  }
  const auto user = greeting + turn("USER anonymous", "331 ?");
  const auto pass = user + turn("PASS", "230 in");
  const auto passive = pass + turn("TYPE I", "200 ok");
  const std::string long_line = "421 " + std::string(300, 'b');
  const std::vector<std::string> login = {"ftp login error"};
  const std::vector<std::string> data = {"Create data connection failed"};
  const std::vector<std::string> format = {"Passive mode string format error", data[0]};
  // clang-format off
  const struct { connection_script script; int code; std::string message; std::vector<std::string> log; } rows[] = {
      {{send("421-a\r\n421 b\r\n")}, -15, "421 b", login},
      {{send(long_line + "\r\n")}, -15, long_line.substr(0, 252), login},
      {{send("220 " + std::string(600, 'b') + "\r\n")}, -1, "Wrong host", login},
      {user + turn("PASS", "332 account"), -19, "Unknown Error", login},
      {greeting + turn("USER anonymous", "332 account"), -18, "Unknown Error", login},
      {greeting + connection_script{expect("USER anonymous\r\n")}, -8, "Read Error", login},
      {pass + turn("TYPE I", "504 no"), -15, "504 no", login},
      {passive + turn("PASV", "502 no (1,2,3,4,5,6)"), -15, "502 no (1,2,3,4,5,6)", data},
      {passive + turn("PASV", "227 127,0,0,1,4,5)"), -15, "227 127,0,0,1,4,5)", format},
      {passive + turn("PASV", "227 (127,0,0,1,4,5"), -15, "227 (127,0,0,1,4,5", format},
      {passive + turn("PASV", "227 )(127,0,0,1,4,5)"), -15, "227 )(127,0,0,1,4,5)", format},
      {passive + turn("PASV", "227 (127,0,0,1,256,1)"), -15, "227 (127,0,0,1,256,1)", data},
      {passive + turn("PASV", pasv_answer(closed)), -3, "Connect Failed", data},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    log_.clear();
    tcp_peer control({row.script});
    EXPECT_EQ(-1, open(control.port()));
    expect_result(row.code, row.message);
    expect_log(DL_LOG_ERROR, row.log);
  }
  log_.clear();
  EXPECT_EQ(-1, open(closed));
  expect_result(-3, "Connect Failed");
  expect_log(DL_LOG_ERROR, {"Connect Error"});
  wait_briefly();
  tcp_peer silent({{stall()}});
  EXPECT_EQ(-1, open(silent.port()));
  expect_result(-8, "Read Error");
  EXPECT_EQ(1u, log_.count("dl_select error! errno 0"));
}

TEST_F(ftp_open, bad_arguments_reach_no_server) {
  tcp_peer control({});
  const std::string long_host(512, 'h');
  // clang-format off
  const struct { const char* host; uint32_t port; const char* user; const char* password; const char* path; } rows[] = {
      {nullptr, control.port(), "u", "p", "a"},
      {"127.0.0.1", 65536, "u", "p", "a"},
      {long_host.c_str(), control.port(), "u", "p", "a"},
      {"127.0.0.1", control.port(), "u\n", "p", "a"},
      {"127.0.0.1", control.port(), "u", "p\r", "a"},
      {"127.0.0.1", control.port(), "u", "p", "a\nDELE b"},
      {"127.0.0.1", control.port(), "u", "p", nullptr},
  };
  // clang-format on
  const auto refused = [&](int rc) {
    EXPECT_EQ(-1, rc);
    expect_result(-6, "Invalid Parameter");
    EXPECT_EQ(nullptr, std::exchange(session_, reinterpret_cast<dl_ftp_session*>(this)));
    result_ = {};
  };
  session_ = reinterpret_cast<dl_ftp_session*>(this);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const auto& [host, port, user, password, path] = row;
    refused(dl_ftp_open(&session_, host, port, user, password, path, &result_));
    refused(dl_ftp_send_open(&session_, host, port, user, password, path, nullptr, 2, 1, &result_));
  }
  refused(dl_ftp_send_open(&session_, "127.0.0.1", control.port(), "u", "p", "a", "x\ny", 2, 1, &result_));
  expect_log(DL_LOG_ERROR, std::vector<std::string>(2 * std::size(rows) + 1, "Invalid Parameter"));
  EXPECT_EQ(-1, dl_ftp_open(&session_, "127.0.0.1", control.port(), "u", "p", "a", nullptr));
  EXPECT_EQ(-1, dl_ftp_open(nullptr, "127.0.0.1", control.port(), "u", "p", "a", &result_));
  EXPECT_EQ(0u, control.num_connections());
}

TEST_F(ftp_open, port_0_is_21) {
  if (open(0) == 0) dl_ftp_close(session_);
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_INFO, "Connecting 127.0.0.1:21")) << log_.all();
}

TEST_F(ftp_open, close_ignores_what_is_no_session_and_spares_the_standard_streams) {
  dl_ftp_session dead = {};
  dead.magic = 10133;
  dl_ftp_close(nullptr);
  dl_ftp_close(&dead);
  expect_log(DL_LOG_ERROR, {"ftp close with invalid parameter", "ftp close with invalid parameter"});
  auto* record = static_cast<dl_ftp_session*>(calloc(1, sizeof(dl_ftp_session)));
  *record = {.magic = 10139, .ctrl_sock = 2, .data_sock = 1, .remaining = 0, .host = ""};
  const auto before = open_descriptors();
  dl_ftp_close(record);
  EXPECT_EQ(before, open_descriptors());
}

class ftp_data_connection : public ftp_test {
 protected:
  // Opens the data connection of a caller-made record that has one already, which is left alone. Its control
  // connection plays `script`.
  int create(const connection_script& script, bool ipv6_server = false) {
    const char* address = ipv6_server ? "::1" : "127.0.0.1";
    tcp_peer control({script}, {.ipv6 = ipv6_server});
    const unique_fd sock(dl_connect(address, control.port(), ipv6_server, 5));
    const unique_fd present(dup(sock.get()));
    dl_ftp_session session = {};
    session.magic = 10139;
    session.ctrl_sock = sock.get();
    session.data_sock = present.get();
    snprintf(session.host, sizeof session.host, "%s", address);
    const int rc = dl_ftp_create_data_conn(&session, reply_, sizeof reply_, 5);
    EXPECT_EQ(rc == 0, session.data_sock != present.get());
    const unique_fd data(rc == 0 ? session.data_sock : -1);
    EXPECT_NE(-1, fcntl(present.get(), F_GETFD));
    return rc;
  }
  char reply_[512] = "stale";
};

TEST_F(ftp_data_connection, with_ipv6_epsv_leads_back_to_the_host_and_only_a_522_to_pasv) {
  set_option(DL_OPT_IPV6, 1);
  for (const bool ipv6 : {false, true}) {
    tcp_peer data({idle}, {.ipv6 = ipv6});
    EXPECT_EQ(0, create(turn("EPSV", "229 ok (|||" + std::to_string(data.port()) + "|) (x)"), ipv6));
    EXPECT_TRUE(data.finish());
  }
  tcp_peer data({idle});
  EXPECT_EQ(0, create(turn("EPSV", "522 use\t(1)") + turn("PASV", pasv_answer(data.port()))));
  expect_log(DL_LOG_WARNING, {"DL_ERRFTP:[522 use?(1)], Try use PASV"});
  // clang-format off
  const struct { connection_script script; int code; } rows[] = {
      {turn("EPSV", "500 unknown"), -15},
      {turn("EPSV", "522 no") + turn("PASV", "500 neither"), -15},
      {{expect("EPSV\r\n")}, -8},
      {turn("EPSV", "229 (|||65536|)"), -15},
      {turn("EPSV", "229 (|||)"), -3},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    EXPECT_EQ(row.code, create(row.script));
  }
}

TEST_F(ftp_data_connection, an_address_elsewhere_is_used_with_a_warning) {
  tcp_peer data({idle});
  EXPECT_EQ(0, create(turn("PASV", pasv_answer(data.port()))));
  EXPECT_TRUE(data.finish());
  EXPECT_EQ(pasv_answer(data.port()), reply_);
  expect_log(DL_LOG_WARNING, {});
  // Nobody listens there, but the attempt shows in the log.
  EXPECT_EQ(-3, create(turn("PASV", pasv_answer(data.port(), "127,9,9,9"))));
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_INFO, "Connecting 127.9.9.9:" + std::to_string(data.port())));
  expect_log(DL_LOG_WARNING, {"PASV address 127.9.9.9 is not the control connection's"});
}

TEST_F(ftp_data_connection, refuses_bad_arguments) {
  dl_ftp_session dead = {}, live = {}, unterminated = {};
  live.magic = unterminated.magic = 10139;
  memset(unterminated.host, 'h', sizeof unterminated.host);
  // clang-format off
  const struct { dl_ftp_session* session; char* reply; int32_t size; } rows[] = {
      {nullptr, reply_, 512}, {&dead, reply_, 512}, {&live, nullptr, 512}, {&live, reply_, 0},
      {&unterminated, reply_, 512}};
  // clang-format on
  for (const auto& row : rows) EXPECT_EQ(-6, dl_ftp_create_data_conn(row.session, row.reply, row.size, 1));
}

}  // namespace
}  // namespace test
