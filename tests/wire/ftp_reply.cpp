// ftp_reply.cpp: the reply reader and single commands on one control connection.
#include "ftp/ftp_reply.h"

#include <sys/socket.h>

#include "core/owners.h"
#include "ftp/ftp_command.h"
#include "include/fetchrig_openssl.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

using namespace fetchrig;
using namespace std::string_literals;

// A session with nothing but its control connection.
struct control_session {
  explicit control_session(const tcp_peer& peer) : sock(dl_connect("127.0.0.1", peer.port(), 0, 5)) {
    record.ctrl_sock = sock.get();
  }
  unique_fd sock;
  dl_ftp_session record = {};
};

class ftp_reply_reader : public ftp_test {
 protected:
  // Reads one reply from a peer that says `bytes` and closes.
  int read(const std::string& bytes, delivery mode, std::size_t size, ftp_expected expected = {}) {
    tcp_peer peer({{send(bytes)}}, {.mode = mode});
    const control_session session(peer);
    std::vector<char> buffer(size, 'x');
    ftp_reply reply(buffer);
    const int code = dl_recv_reply(session.record, reply, expected);
    line_.assign(reply.line());
    EXPECT_EQ('\0', buffer[line_.size()]);
    return code;
  }
  std::string line_;
};

TEST_F(ftp_reply_reader, reads_to_the_final_line_however_it_arrives) {
  // clang-format off
  const struct { std::string bytes; ftp_expected expected; int code; std::string line; } rows[] = {
      {"421 busy\r\n", {220}, -15, "421 busy"},
      {"530 no\r\n", {230, -19}, -19, "530 no"},
      {"220-a\r\n220-b\r\n220 c\r\n", {220}, 220, "220 c"},
      {"220-a\r\n\r\n b\r\n22\r\n2200 x\r\n220c\r\n221 d\r\n", {}, 221, "221 d"},
      {"220 a\rb\nc\r\n", {}, 220, "220 a\rb\nc"},
      {"\0 220 a\r\n220 \0b\r\n"s, {}, 220, "220 \0b"s},
      {"220-a\r\n220 bye", {}, 220, "220 bye"},
      {"220 a\r\n331 b\r\n", {}, 220, "220 a"},
      {"220-a\r\n", {}, -8, ""},
      {"", {}, -8, ""},
  };
  // clang-format on
  for (const auto& row : rows) {
    for (const delivery mode : all_deliveries) {
      SCOPED_TRACE(row.bytes);
      SCOPED_TRACE(mode);
      EXPECT_EQ(row.code, read(row.bytes, mode, 512, row.expected));
      if (row.code != -8) {
        EXPECT_EQ(row.line, line_);
      }
    }
  }
}

TEST_F(ftp_reply_reader, a_line_must_leave_room_in_the_buffer) {
  for (const std::size_t size : {16u, 512u}) {
    for (const delivery mode : all_deliveries) {
      const std::string fits = "220 " + std::string(size - 4 - 4, 't');
      EXPECT_EQ(220, read(fits + "\r\n", mode, size));
      EXPECT_EQ(fits, line_);
      EXPECT_EQ(-1, read("220-a\r\n" + fits + "t\r\n", mode, size));
      EXPECT_EQ("", line_);
    }
  }
  EXPECT_EQ(-1, read("220 a\r\n", delivery::whole, 1));
}

TEST_F(ftp_reply_reader, a_reply_without_end_is_given_up) {
  std::string lines;
  for (int i = 0; i < 9999; ++i) lines += "220-\r\n";
  EXPECT_EQ(220, read(lines + "220 \r\n", delivery::whole, 512));
  EXPECT_EQ(-8, read(lines + "220-\r\n220 \r\n", delivery::whole, 512));
}

TEST_F(ftp_reply_reader, takes_one_reply_of_several_at_a_time) {
  tcp_peer peer({{send("220 a\r\n331-b\r\n331 c\r\n230 d\r\n"), stall()}});
  const control_session session(peer);
  std::array<char, 512> buffer;
  ftp_reply reply(buffer);
  for (const int code : {220, 331, 230}) EXPECT_EQ(code, dl_recv_reply(session.record, reply, {}));
  wait_briefly();
  EXPECT_EQ(-8, dl_recv_reply(session.record, reply, {}));
  EXPECT_EQ("", reply.line());
  EXPECT_EQ(1u, log_.count("dl_select error! errno "));
}

TEST_F(ftp_reply_reader, a_failed_send_is_logged_without_the_password) {
  tcp_peer peer({idle});
  const control_session session(peer);
  ASSERT_EQ(0, shutdown(session.sock.get(), SHUT_WR));
  std::array<char, 512> buffer;
  ftp_reply reply(buffer);
  reply.assign("331 of the command before");
  EXPECT_EQ(-4, ftp_command(session.record, "PASS", "secret", reply));
  EXPECT_EQ("", reply.line());
  EXPECT_EQ(-4, ftp_command(session.record, "SIZE", "a\033b", reply));
  expect_log(DL_LOG_ERROR, {"Error send command PASS ******\r\n", "Error send command SIZE a?b\r\n"});
}

}  // namespace
}  // namespace test
