// ftp_open.cpp: arguments, login and the data connection, as every transfer begins.
#include <stdlib.h>

#include "core/owners.h"
#include "include/fetchrig_openssl.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

class ftp_open : public ftp_test {
 protected:
  int open(uint16_t port, const char* user = nullptr, const char* password = nullptr,
           const char* path = "/pub/a.bin") {
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    return dl_ftp_open(&session_, "127.0.0.1", port, user, password, path, &result_);
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
      {{}, -8, "Read Error", login},
      {greeting + turn("USER anonymous", "332 account"), -18, "Unknown Error", login},
      {greeting + connection_script{expect("USER anonymous\r\n")}, -8, "Read Error", login},
      {user + turn("PASS", "332 account"), -19, "Unknown Error", login},
      {pass + turn("TYPE I", "504 no"), -15, "504 no", login},
      {passive + turn("PASV", "502 no (1,2,3,4,5,6)"), -15, "502 no (1,2,3,4,5,6)", data},
      {passive + turn("PASV", "227 127,0,0,1,4,5"), -15, "227 127,0,0,1,4,5", format},
      {passive + turn("PASV", "227 (127,0,0,1,256,1)"), -15, "227 (127,0,0,1,256,1)", data},
      {passive + connection_script{expect("PASV\r\n")}, -8, "Read Error", data},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    log_.clear();
    tcp_peer control({row.script});
    EXPECT_EQ(-1, open(control.port()));
    expect_result(row.code, row.message);
    EXPECT_EQ(nullptr, session_);
    expect_log(DL_LOG_ERROR, row.log);
  }
}

TEST_F(ftp_open, connection_failures) {
  uint16_t closed_port = 0;
  {
    tcp_peer control({});
    closed_port = control.port();
  }
  EXPECT_EQ(-1, open(closed_port));
  expect_result(-3, "Connect Failed");
  EXPECT_EQ(nullptr, session_);
  tcp_peer control({anonymous_login() + turn("PASV", pasv_answer(closed_port))});
  EXPECT_EQ(-1, open(control.port()));
  expect_result(-3, "Connect Failed");
  expect_log(DL_LOG_ERROR, {"Connect Error", "Create data connection failed"});
  wait_briefly();
  tcp_peer silent({{stall()}});
  EXPECT_EQ(-1, open(silent.port()));
  expect_result(-8, "Read Error");
  EXPECT_EQ(1u, log_.count("dl_select error! errno "));
}

TEST_F(ftp_open, bad_arguments_reach_no_server) {
  tcp_peer control({});
  const uint32_t port = control.port();
  const std::string long_host(512, 'h');
  const char* host = "127.0.0.1";
  // clang-format off
  const struct { const char* host; uint32_t port; const char* user; const char* password; const char* path; } rows[] = {
      {nullptr, port, "u", "p", "a"},
      {host, 65536, "u", "p", "a"},
      {long_host.c_str(), port, "u", "p", "a"},
      {host, port, "u\n", "p", "a"},
      {host, port, "u", "p\r", "a"},
      {host, port, "u", "p", "a\nDELE b"},
      {host, port, "u", "p", nullptr},  // last: as an upload's remote name, it may be missing
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    for (const bool upload : {false, true}) {
      log_.clear();
      result_ = {};
      session_ = reinterpret_cast<dl_ftp_session*>(this);
      EXPECT_EQ(-1, upload ? dl_ftp_send_open(&session_, row.host, row.port, row.user, row.password,
                                              row.path ? "/dev/null" : nullptr, row.path, 2, 1, &result_)
                           : dl_ftp_open(&session_, row.host, row.port, row.user, row.password, row.path,
                                         &result_));
      expect_result(-6, "Invalid Parameter");
      EXPECT_EQ(nullptr, session_);
      expect_log(DL_LOG_ERROR, {"Invalid Parameter"});
    }
  }
  session_ = reinterpret_cast<dl_ftp_session*>(this);
  EXPECT_EQ(-1, dl_ftp_open(&session_, host, port, "u", "p", "a", nullptr));
  EXPECT_EQ(nullptr, session_);
  EXPECT_EQ(-1, dl_ftp_open(nullptr, host, port, "u", "p", "a", &result_));
  EXPECT_EQ(-1, dl_ftp_send_open(&session_, host, port, "u", "p", "x\ny", nullptr, 2, 1, &result_));
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
  // Opens the data connection of a caller-made record whose control connection plays `script`; more than once
  // on demand.
  int create(const connection_script& script, bool ipv6_server = false, int times = 1) {
    const char* address = ipv6_server ? "::1" : "127.0.0.1";
    tcp_peer control({script}, {.ipv6 = ipv6_server});
    const fetchrig::unique_fd sock(dl_connect(address, control.port(), ipv6_server, 5));
    dl_ftp_session session = {};
    session.magic = 10139;
    session.ctrl_sock = sock.get();
    snprintf(session.host, sizeof session.host, "%s", address);
    int rc = -1;
    while (times-- > 0) rc = dl_ftp_create_data_conn(&session, reply_, sizeof reply_, 5);
    const fetchrig::unique_fd data(session.data_sock > 0 ? session.data_sock : -1);
    EXPECT_EQ(rc == 0, session.data_sock > 2);
    return rc;
  }
  char reply_[512] = "stale";
};

TEST_F(ftp_data_connection, pasv_alone_is_sent_and_a_second_connection_replaces_the_first) {
  tcp_peer data({idle, idle});
  const auto passive = turn("PASV", pasv_answer(data.port()));
  EXPECT_EQ(0, create(passive + passive, false, 2));
  EXPECT_TRUE(data.finish());
  EXPECT_EQ(pasv_answer(data.port()), reply_);
  expect_log(DL_LOG_WARNING, {});
}

TEST_F(ftp_data_connection, with_ipv6_epsv_leads_back_to_the_host) {
  set_option(DL_OPT_IPV6, 1);
  for (const bool ipv6 : {false, true}) {
    tcp_peer data({idle}, {.ipv6 = ipv6});
    EXPECT_EQ(0, create(turn("EPSV", "229 ok (|||" + std::to_string(data.port()) + "|)"), ipv6));
    EXPECT_TRUE(data.finish());
  }
}

TEST_F(ftp_data_connection, only_a_522_leads_from_epsv_to_pasv) {
  set_option(DL_OPT_IPV6, 1);
  tcp_peer data({idle});
  EXPECT_EQ(0, create(turn("EPSV", "522 use\t(1)") + turn("PASV", pasv_answer(data.port()))));
  expect_log(DL_LOG_WARNING, {"DL_ERRFTP:[522 use?(1)], Try use PASV"});
  EXPECT_EQ(-15, create(turn("EPSV", "500 unknown")));
  EXPECT_STREQ("500 unknown", reply_);
  EXPECT_EQ(-15, create(turn("EPSV", "522 no") + turn("PASV", "500 neither")));
  EXPECT_STREQ("500 neither", reply_);
  EXPECT_EQ(-8, create({expect("EPSV\r\n")}));
  EXPECT_EQ(-15, create(turn("EPSV", "229 (|||65536|)")));
  EXPECT_EQ(-3, create(turn("EPSV", "229 (|||)")));
  EXPECT_EQ(-15, create(turn("EPSV", "229 )(")));
  expect_log(DL_LOG_ERROR, {"Passive mode string format error"});
}

TEST_F(ftp_data_connection, an_address_elsewhere_is_used_with_a_warning) {
  const tcp_peer data({});
  // Nobody listens there, but the attempt shows in the log.
  EXPECT_EQ(-3, create(turn("PASV", pasv_answer(data.port(), "127,9,9,9"))));
  EXPECT_TRUE(log_.contains("DCMN", DL_LOG_INFO, "Connecting 127.9.9.9:" + std::to_string(data.port())));
  expect_log(DL_LOG_WARNING, {"PASV address 127.9.9.9 is not the control connection's"});
}

TEST_F(ftp_data_connection, refuses_bad_arguments) {
  dl_ftp_session session = {};
  EXPECT_EQ(-6, dl_ftp_create_data_conn(nullptr, reply_, sizeof reply_, 1));
  EXPECT_EQ(-6, dl_ftp_create_data_conn(&session, reply_, sizeof reply_, 1));
  session.magic = 10139;
  EXPECT_EQ(-6, dl_ftp_create_data_conn(&session, nullptr, sizeof reply_, 1));
  EXPECT_EQ(-6, dl_ftp_create_data_conn(&session, reply_, 0, 1));
  memset(session.host, 'h', sizeof session.host);
  EXPECT_EQ(-6, dl_ftp_create_data_conn(&session, reply_, sizeof reply_, 1));
}

}  // namespace
}  // namespace test
