// tftp_download.cpp: the TFTP download calls against a scripted peer; every packet that we send is checked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "include/fetchrig.h"
#include "tests/peers/tftp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"
#include "tftp/tftp_session.h"

namespace {

using namespace tftp_test;
using namespace std::string_literals;
using fetchrig::unique_tftp;
using lines = std::vector<std::string>;

class tftp_download : public test::leak_free {
 protected:
  tftp_download() {
    test::set_option(DL_OPT_NET_TIMEOUT, 5);
    test::set_option(DL_OPT_MAX_FILE_SIZE, 1 << 20);
    result_.code = 77;
  }
  lines logged() const { return tftp_lines(log_); }

  // Opens a download of "f"; the peer answers the request with `answers` before this returns.
  unique_tftp open(peer& server, const std::vector<std::string>& answers) {
    dl_tftp_session* session = nullptr;
    script steps = {expects(request(1, "f"))};
    for (const std::string& answer : answers) steps.push_back(sends(answer));
    const playing script_thread(server, steps);
    EXPECT_EQ(dl_tftp_open(&session, "127.0.0.1", server.port(), "f", &result_), 0);
    return unique_tftp(session);
  }
  int read(const unique_tftp& session, std::string& bytes, std::size_t size) {
    bytes.assign(size, '?');
    const int count = dl_tftp_read(session.get(), bytes.data(), static_cast<int32_t>(size), &result_);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return count;
  }
  // Reads in pieces of `size` until the end or a failure. Returns what was read; `result_` has the code.
  std::string read_all(const unique_tftp& session, std::size_t size) {
    std::string all;
    std::string piece;
    while (read(session, piece, size) > 0) all += piece;
    return all;
  }

  test::library library_;
  test::log_capture log_;
  dl_result result_ = {};
};

std::string full(int block, std::size_t size) {
  return data(block, pattern(size, static_cast<std::size_t>(block - 1) * size));
}
// Block `block` of `count` bytes of a transfer in blocks of `size`.
std::string last(int block, std::size_t size, std::size_t count) {
  return data(block, pattern(count, static_cast<std::size_t>(block - 1) * size));
}

TEST_F(tftp_download, open_sends_the_request_and_leaves_the_answer) {
  const std::string name(255, 'n');  // the longest
  peer server;
  dl_tftp_session* opened = nullptr;
  {
    const playing thread(server, {expects(request(1, name)), sends(data(1, "x"))});
    ASSERT_EQ(dl_tftp_open(&opened, "127.0.0.1", server.port(), name.c_str(), &result_), 0);
  }
  const unique_tftp session(opened);
  EXPECT_EQ(result_.code, 0);
  EXPECT_EQ(logged(), (lines{"5 tftp open begin, host: 127.0.0.1, port:" + std::to_string(server.port()) +
                                 ", remote_name:" + name,
                             "6 Send Request Packet", "5 tftp open success"}));
  EXPECT_EQ(session->magic, DL_TFTP_MAGIC);
  EXPECT_EQ(session->block, 1u);
  EXPECT_EQ(session->blksize, 512);
  EXPECT_EQ(session->recv_size, 516);
  sockaddr_in own = {};
  socklen_t length = sizeof own;
  ASSERT_EQ(getsockname(session->sock, reinterpret_cast<sockaddr*>(&own), &length), 0);
  EXPECT_GE(ntohs(own.sin_port), 1024);
  EXPECT_TRUE(server.queued().empty());
}

TEST_F(tftp_download, open_refuses_bad_arguments) {
  dl_tftp_session* const junk = reinterpret_cast<dl_tftp_session*>(this);
  dl_tftp_session* session = junk;
  const std::string long_name(256, 'n');
  const lines refused = {"3 tftp open with invalid parmeter"};
  const auto expect_refused = [&](int rc, const char* name) {
    SCOPED_TRACE(name);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(result_.code, DL_ERR_PARAMETER);
    EXPECT_STREQ(result_.message, "Invalid Parameter");
    EXPECT_EQ(logged().back(), refused.front());
    EXPECT_EQ(session, nullptr);
    session = junk;
    result_ = {};
  };
  expect_refused(dl_tftp_open(&session, nullptr, 1, "f", &result_), "host");
  expect_refused(dl_tftp_open(&session, "127.0.0.1", 1, nullptr, &result_), "name");
  expect_refused(dl_tftp_open(&session, "127.0.0.1", 65536, "f", &result_), "port");
  expect_refused(dl_tftp_open(&session, "127.0.0.1", 1, long_name.c_str(), &result_), "long name");
  session = nullptr;
  expect_refused(dl_tftp_open(nullptr, "127.0.0.1", 1, "f", &result_), "handle");
  EXPECT_EQ(dl_tftp_open(&session, "127.0.0.1", 1, "f", nullptr), -1);
  EXPECT_EQ(session, nullptr);
  EXPECT_EQ(logged(), lines(6, refused.front()));
}

TEST_F(tftp_download, open_needs_an_answer_within_three_seconds) {
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  peer server;
  dl_tftp_session* session = nullptr;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dl_tftp_open(&session, "127.0.0.1", server.port(), "f", &result_), -1);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(2990));
  EXPECT_EQ(result_.code, DL_ERR_NOT_TFTP);
  EXPECT_STREQ(result_.message, "Host is not a tftp server");
  EXPECT_EQ(session, nullptr);
  EXPECT_EQ(server.queued(), lines{request(1, "f")});
}

TEST_F(tftp_download, open_fails_for_unusable_hosts_and_sends) {
  dl_tftp_session* session = nullptr;
  EXPECT_EQ(dl_tftp_open(&session, "::1", 0, "f", &result_), -1) << "IPv6 is off";
  EXPECT_EQ(result_.code, DL_ERR_HOST);
  EXPECT_STREQ(result_.message, "Wrong host");
  EXPECT_EQ(logged(), lines{"5 tftp open begin, host: ::1, port:69, remote_name:f"});
  EXPECT_EQ(dl_tftp_open(&session, "255.255.255.255", 9, "f", &result_), -1) << "broadcasts are not allowed";
  EXPECT_EQ(result_.code, DL_ERR_SEND);
  EXPECT_TRUE(log_.contains("TFTP", 3, "Send Error error! errno = 13 ret = -1 send_size = 23"));
  EXPECT_EQ(session, nullptr);
}

TEST_F(tftp_download, open_needs_the_configuration) {
  dl_exit();
  dl_tftp_session* session = nullptr;
  EXPECT_EQ(dl_tftp_open(&session, "127.0.0.1", 1, "f", &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_NOT_INITIALISED);
  EXPECT_STREQ(result_.message, "Config doesn't init");
  EXPECT_EQ(logged(), lines{"3 config doesn't init"});
}

// A whole download: the answer to the request and all that follows, with reads of one size.
struct transfer {
  const char* name;
  script steps;  // after the request
  std::size_t read_size;
  std::size_t file_bytes;
};

TEST_F(tftp_download, blocks_are_acknowledged_and_delivered) {
  const auto exchange = [](std::size_t size, int whole, std::size_t rest) {
    script steps;
    for (int block = 1; block <= whole; ++block) {
      steps = steps + script{sends(full(block, size)), expects(ack(block))};
    }
    return steps + script{sends(last(whole + 1, size, rest)), expects(ack(whole + 1))};
  };
  const auto agreed = [](const std::vector<std::string>& options) {
    return script{sends(oack(options)), expects(ack(0))};
  };
  const std::vector<transfer> rows = {
      {"option ignored, empty file", exchange(512, 0, 0), 1432, 0},
      {"option ignored", exchange(512, 2, 100), 1432, 1124},
      {"ends on a block boundary", agreed({"blksize", "1432"}) + exchange(1432, 1, 0), 1432, 1432},
      {"second option", agreed({"tsize", "40", "blksize", "800"}) + exchange(800, 3, 1), 1432, 2401},
      {"smallest size", agreed({"blksize", "24"}) + exchange(24, 5, 23), 100, 143},
      {"OACK without the option", agreed({"tsize", "40"}) + exchange(512, 1, 1), 1432, 513},
      {"OACK without options", agreed({}) + exchange(512, 1, 1), 1432, 513},
      {"reads smaller than blocks", agreed({"blksize", "1432"}) + exchange(1432, 2, 300), 100, 3164},
      {"reads larger than the file", agreed({"blksize", "24"}) + exchange(24, 3, 3), 100000, 75},
      {"second OACK changes nothing",
       agreed({"blksize", "1024"}) + agreed({"blksize", "512"}) + exchange(1024, 1, 600), 1432, 1624},
      {"OACK after one without the option changes nothing",
       agreed({}) + agreed({"blksize", "1024"}) + exchange(512, 1, 5), 1432, 517},
      {"refused size after the first OACK is only answered",
       agreed({"blksize", "512"}) + agreed({"blksize", "9999"}) + exchange(512, 1, 5), 1432, 517},
      {"OACK in a later read changes nothing",
       script{sends(full(1, 512)), expects(ack(1))} + agreed({"blksize", "24"}) +
           script{sends(full(2, 512)), expects(ack(2)), sends(last(3, 512, 9)), expects(ack(3))},
       512, 1033},
      {"repeated block is acknowledged again",
       script{sends(full(1, 512)), expects(ack(1)), sends(full(1, 512)), expects(ack(1)),
              sends(last(2, 512, 9)), expects(ack(2))},
       1432, 521},
      {"block 0 counts as the one before the first",
       script{sends(data(0, "x")), expects(ack(0)), sends(last(1, 512, 9)), expects(ack(1))}, 1432, 9},
      {"the port moves with each datagram",
       script{sends_from_new_port(full(1, 512)), expects(ack(1)), sends_from_new_port(full(2, 512)),
              expects(ack(2)), sends(last(3, 512, 3)), expects(ack(3))},
       1432, 1027},
      {"a longer datagram is cut to the block size",
       script{sends(data(1, pattern(600))), expects(ack(1)), sends(last(2, 512, 1)), expects(ack(2))}, 1432,
       513},
  };
  for (const transfer& r : rows) {
    SCOPED_TRACE(r.name);
    peer server;
    dl_tftp_session* opened = nullptr;
    {
      const playing thread(server, script{expects(request(1, "f"))} + r.steps);
      EXPECT_EQ(dl_tftp_open(&opened, "127.0.0.1", server.port(), "f", &result_), 0);
      EXPECT_EQ(read_all(unique_tftp(opened), r.read_size), pattern(r.file_bytes));
      EXPECT_EQ(result_.code, 0) << result_.message;
    }
    EXPECT_TRUE(server.queued().empty());
  }
}

TEST_F(tftp_download, a_reader_of_100_bytes_is_served_from_the_carry) {
  peer server;
  const unique_tftp session = open(server, {oack({"blksize", "1432"}), full(1, 1432), last(2, 1432, 68)});
  std::string piece;
  for (int call = 0; call < 14; ++call) {
    ASSERT_EQ(read(session, piece, 100), 100) << call;
    EXPECT_EQ(piece, pattern(100, static_cast<std::size_t>(call) * 100));
    EXPECT_EQ(session->block, 2u);
    EXPECT_EQ(session->carry_len, 1332 - call * 100);
  }
  EXPECT_EQ(server.queued(), (lines{ack(0), ack(1)}));
  ASSERT_EQ(read(session, piece, 100), 100);
  EXPECT_EQ(piece, pattern(100, 1400));
  EXPECT_EQ(server.queued(), lines{ack(2)});
  EXPECT_EQ(session->done, 1u);
  EXPECT_EQ(read(session, piece, 100), 0);
}

TEST_F(tftp_download, block_sizes_are_logged_and_bad_ones_refused) {
  struct row {
    std::vector<std::string> options;
    lines logged;
    bool accepted;
  };
  std::vector<row> rows = {{{"blksize", "800"}, {"6 recv OACK", "6 using blksize 800"}, true},
                           {{}, {"6 recv OACK", "6 server only supports blocksize of 512"}, true}};
  for (const std::string value : {"1433", "23", "-5", "large", ""}) {
    const std::string bad = "3 bad blocksize '" + value + "'";
    rows.push_back({{"blksize", value}, {"6 recv OACK", bad, "3 err blksize"}, false});
  }
  for (const row& r : rows) {
    SCOPED_TRACE(r.logged[1]);
    peer server;
    const unique_tftp session = open(server, {oack(r.options), data(1, "x")});
    log_.clear();
    result_ = {};
    std::string bytes;
    EXPECT_EQ(read(session, bytes, 1432), r.accepted ? 1 : -1);
    EXPECT_EQ(result_.code, r.accepted ? 0 : DL_ERR_READ);
    EXPECT_EQ(server.queued(), (r.accepted ? lines{ack(0), ack(1)} : lines{error(8, "err blksize")}));
    EXPECT_EQ(logged(), r.logged);
  }
}

// What one read call puts up with: five strange packets, not six.
TEST_F(tftp_download, six_unexpected_packets_end_a_read) {
  const std::string strangers[] = {"",       "\0"s,       "\0\3"s, "\0\3\0"s,       "\0\4\0"s,
                                   ack(1),   "\0\x7"s,    "zz"s,   request(1, "f"), error(1, "none"),
                                   oack({}), "\1\3\0\1x"s};
  for (const std::string& packet : strangers) {
    SCOPED_TRACE(testing::PrintToString(packet));
    std::vector<std::string> answers(5, packet);
    answers.push_back(data(1, "abc"));
    std::string bytes;
    {
      peer server;
      EXPECT_EQ(read(open(server, answers), bytes, 10), 3);
      EXPECT_EQ(bytes, "abc");
    }
    peer server;

    answers.insert(answers.begin(), packet);
    const unique_tftp session = open(server, answers);
    EXPECT_EQ(read(session, bytes, 10), -1);
    EXPECT_EQ(result_.code, DL_ERR_READ);
    EXPECT_STREQ(result_.message, "Read Error");
    EXPECT_EQ(read(session, bytes, 10), 3) << "a new call has a new budget";
  }
}

TEST_F(tftp_download, a_wrong_block_drains_the_queue) {
  struct row {
    int block;
    lines replies;
  };
  // The client waits for block 1.
  for (const row& r : {row{0, {ack(0)}}, row{2, {}}, row{40000, {}}, row{65535, {}}}) {
    SCOPED_TRACE(r.block);
    log_.clear();
    peer server;
    const unique_tftp session = open(server, {data(r.block, "x"), data(1, "lost"), error(0, "lost"), "lost"});
    std::string bytes;
    {
      const script answer = {sends(data(1, "taken"))};
      const std::string reply = r.replies.empty() ? "" : r.replies.front();
      std::thread late([&] {
        if (!reply.empty()) {
          EXPECT_EQ(server.receive(), reply);
        }
        while (!log_.contains("TFTP", 5, "discarded 3 packets")) std::this_thread::yield();
        server.play(answer);
      });
      EXPECT_EQ(read(session, bytes, 100), 5);
      late.join();
    }
    EXPECT_EQ(bytes, "taken");
    EXPECT_EQ(server.queued(), lines{ack(1)});
    EXPECT_EQ(logged()[3], "3 tftp syn err");
    EXPECT_EQ(logged()[4], "5 discarded 3 packets");
  }
}

TEST_F(tftp_download, an_error_packet_ends_in_a_time_out) {
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  peer server;
  const unique_tftp session = open(server, {error(1, "File not found")});
  std::string bytes;
  EXPECT_EQ(read(session, bytes, 100), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_EQ(logged().back(), "3 Error Select! errno 0");
  EXPECT_TRUE(server.queued().empty());

  // The failed read took nothing, so the session may go on, and the block size is still open.
  server.play({sends(oack({"blksize", "24"})), sends(full(1, 24)), sends(data(2, ""))});
  EXPECT_EQ(read_all(session, 100), pattern(24));
  EXPECT_EQ(server.queued(), (lines{ack(0), ack(1), ack(2)}));
}

TEST_F(tftp_download, an_oack_before_a_failed_read_stays_the_only_one) {
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  peer server;
  const unique_tftp session = open(server, {oack({})});
  std::string bytes;
  EXPECT_EQ(read(session, bytes, 100), -1);
  server.play({expects(ack(0)), sends(oack({"blksize", "24"})), sends(data(1, pattern(24)))});
  EXPECT_EQ(read_all(session, 100), pattern(24)) << "24 bytes are a short block";
}

TEST_F(tftp_download, block_numbers_wrap) {
  constexpr int num_blocks = 65536 + 3;
  peer server;
  dl_tftp_session* opened = nullptr;
  std::thread thread([&] {
    server.play({expects(request(1, "f")), sends(oack({"blksize", "24"})), expects(ack(0))});
    for (int block = 1; block <= num_blocks && !HasFailure(); ++block) {
      const std::size_t offset = static_cast<std::size_t>(block - 1) * 24;
      server.play({sends(data(block, pattern(block < num_blocks ? 24 : 3, offset))), expects(ack(block))});
      // After the wrap, block 1 is no longer the start: the size stays.
      if (block == 65536) server.play({sends(oack({"blksize", "800"})), expects(ack(0))});
    }
  });
  ASSERT_EQ(dl_tftp_open(&opened, "127.0.0.1", server.port(), "f", &result_), 0);
  const unique_tftp session(opened);
  EXPECT_TRUE(read_all(session, 65536) == pattern((num_blocks - 1) * 24 + 3));
  EXPECT_EQ(session->block, 4u);
  thread.join();
}

TEST_F(tftp_download, read_refuses_bad_arguments) {
  peer server;
  const unique_tftp session = open(server, {data(1, "x")});
  char byte = 0;
  dl_tftp_session dead = {};
  dead.sock = 1;
  dl_tftp_session without_socket = {};
  without_socket.magic = DL_TFTP_MAGIC;
  const auto expect_refused = [&](int rc) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(result_.code, DL_ERR_PARAMETER);
    EXPECT_EQ(logged().back(), "3 Tftp read with invalid parameter");
    result_ = {};
  };
  expect_refused(dl_tftp_read(nullptr, &byte, 1, &result_));
  expect_refused(dl_tftp_read(session.get(), nullptr, 1, &result_));
  expect_refused(dl_tftp_read(&dead, &byte, 1, &result_));
  expect_refused(dl_tftp_read(&without_socket, &byte, 1, &result_));
  expect_refused(dl_tftp_read(session.get(), &byte, -1, &result_));
  EXPECT_EQ(dl_tftp_read(session.get(), &byte, 1, nullptr), -1);
  EXPECT_EQ(dl_tftp_read(session.get(), &byte, 0, &result_), 0);
  EXPECT_EQ(dl_tftp_read(session.get(), &byte, 1, &result_), 1);
}

// A record that a caller made, with nothing but the stated fields.
class bare_session {
 public:
  explicit bare_session(const peer& server)
      : record_(static_cast<dl_tftp_session*>(calloc(1, sizeof *record_))) {
    const sockaddr_in address = server.address();
    memcpy(record_->server, &address, sizeof address);
    record_->magic = DL_TFTP_MAGIC;
    record_->sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    EXPECT_EQ(bind(record_->sock, reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    record_->block = 1;
    record_->blksize = 512;
    record_->recv_size = 516;
  }
  unique_tftp take() { return unique_tftp(record_); }

 private:
  dl_tftp_session* record_;
};

TEST_F(tftp_download, records_made_by_hand_are_read_and_bounded) {
  peer server;
  std::string bytes;
  {
    const unique_tftp session = bare_session(server).take();
    session->block = 65535;
    server.aim_at(session->sock);
    server.play({sends(data(65535, pattern(512))), sends(data(0, "end"))});
    EXPECT_EQ(read_all(session, 600), pattern(512) + "end");
    EXPECT_EQ(session->block, 1u);
  }
  server.queued();
  {
    const unique_tftp session = bare_session(server).take();
    session->recv_size = INT32_MAX;
    session->carry_len = INT32_MAX;
    server.aim_at(session->sock);
    server.play({sends(data(1, pattern(1600)))});
    EXPECT_EQ(read(session, bytes, 1), 1);
    EXPECT_EQ(session->carry_len, 1431);
    session->carry_len = -7;
    session->done = 1;
    EXPECT_EQ(read(session, bytes, 10), 0);
  }
  {
    const unique_tftp session = bare_session(server).take();
    session->recv_size = -1;
    server.aim_at(session->sock);
    server.play({sends("a"), sends("b"), sends("c"), sends("d"), sends("e"), sends("f")});
    EXPECT_EQ(read(session, bytes, 10), -1);
    EXPECT_EQ(result_.code, DL_ERR_READ);
  }
}

TEST_F(tftp_download, a_lost_ack_fails_the_read) {
  peer server;
  const unique_tftp session = bare_session(server).take();
  server.aim_at(session->sock);
  server.send(full(1, 512));
  // Packets to a broadcast address are refused by the system.
  sockaddr_in nowhere = server.address();
  nowhere.sin_addr.s_addr = INADDR_BROADCAST;
  memcpy(session->server, &nowhere, sizeof nowhere);
  std::string bytes;
  EXPECT_EQ(read(session, bytes, 100), -1);
  EXPECT_EQ(result_.code, DL_ERR_SEND);
  EXPECT_EQ(logged(), (lines{"3 Send 1 ack error! errno", "3 Send Ack Error"}));
  EXPECT_EQ(session->block, 1u);
  EXPECT_EQ(session->carry_len, 0);
}

TEST_F(tftp_download, close_takes_only_live_sessions) {
  dl_tftp_close(nullptr);
  dl_tftp_session dead = {};
  dead.magic = 10139;
  dead.sock = 1;
  dl_tftp_close(&dead);
  EXPECT_EQ(logged(), lines(2, "3 tftp close with invalid parameter"));
  EXPECT_EQ(dead.sock, 1);

  peer server;
  unique_tftp session = bare_session(server).take();
  const int sock = session->sock;
  auto* standard_error = static_cast<dl_tftp_session*>(calloc(1, sizeof(dl_tftp_session)));
  standard_error->magic = DL_TFTP_MAGIC;
  standard_error->sock = 2;
  dl_tftp_close(standard_error);
  EXPECT_NE(fcntl(2, F_GETFD), -1) << "descriptor 2 stays open";
  session.reset();
  EXPECT_EQ(fcntl(sock, F_GETFD), -1);
}

class tftp_to_file : public tftp_download {
 protected:
  int fetch(const script& steps, const char* local_path) {
    peer server;
    const playing thread(server, script{expects(request(1, "f"))} + steps);
    return dl_tftp_recv_to_file("127.0.0.1", server.port(), "f", local_path, &result_);
  }
  std::string content() const { return test::read_file(path_); }

  test::temp_dir directory_;
  std::string path_ = directory_.file("file");
};

// Blocks of 512 bytes for a file of that many.
script whole_file(std::size_t file_bytes) {
  script steps;
  for (std::size_t offset = 0, block = 1; offset <= file_bytes; offset += 512, ++block) {
    const std::size_t count = std::min<std::size_t>(512, file_bytes - offset);
    steps.push_back(sends(data(static_cast<int>(block), pattern(count, offset))));
    steps.push_back(expects(ack(static_cast<int>(block))));
  }
  return steps;
}

TEST_F(tftp_to_file, the_size_limit_is_exact) {
  test::set_option(DL_OPT_MAX_FILE_SIZE, 2000);
  EXPECT_EQ(fetch(whole_file(2000), path_.c_str()), 0) << result_.message;
  EXPECT_EQ(content(), pattern(2000));
  EXPECT_EQ(logged().back(), "5 recv: 2000 bytes");

  EXPECT_EQ(fetch(whole_file(2001), path_.c_str()), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_STREQ(result_.message, "exceed max size 2000");
  EXPECT_EQ(logged().back(), "3 exceed max size");
  EXPECT_FALSE(test::file_exists(path_));
}

TEST_F(tftp_to_file, a_longer_file_is_replaced_and_a_failed_one_removed) {
  EXPECT_EQ(fetch(whole_file(1000), path_.c_str()), 0);
  EXPECT_EQ(fetch(whole_file(10), path_.c_str()), 0);
  EXPECT_EQ(content(), pattern(10));
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  EXPECT_EQ(fetch({sends(full(1, 512)), expects(ack(1))}, path_.c_str()), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_FALSE(test::file_exists(path_));
}

TEST_F(tftp_to_file, local_failures) {
  const std::string missing = directory_.file("none/file");
  EXPECT_EQ(fetch({sends(data(1, "x"))}, missing.c_str()), -1);
  EXPECT_EQ(result_.code, 0) << "the record keeps what the open left in it";
  EXPECT_TRUE(log_.contains("TFTP", 3, "Can't open " + missing));

  EXPECT_EQ(fetch(whole_file(1000), "/dev/full"), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_STREQ(result_.message, "Read Error");
  EXPECT_TRUE(test::file_exists("/dev/full"));
}

TEST_F(tftp_to_file, without_a_local_path_the_remote_name_is_used) {
  peer server;
  const playing thread(server, script{expects(request(1, path_.substr(1)))} + whole_file(600));
  EXPECT_EQ(dl_tftp_recv_to_file("127.0.0.1", server.port(), path_.c_str(), nullptr, &result_), 0);
  EXPECT_EQ(content(), pattern(600));
}

}  // namespace
