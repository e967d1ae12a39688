// tftp_upload.cpp: the TFTP upload calls against a scripted peer; every packet that we send is checked.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

class tftp_upload : public test::leak_free {
 protected:
  tftp_upload() {
    test::set_option(DL_OPT_NET_TIMEOUT, 5);
    test::set_option(DL_OPT_MAX_FILE_SIZE, 1 << 22);
    result_.code = 77;
  }
  lines logged() const { return tftp_lines(log_); }

  int open(peer& server, const script& after_request, unique_tftp& session) {
    dl_tftp_session* opened = nullptr;
    const playing thread(server, script{expects(request(2, "f"))} + after_request);
    const int rc = dl_tftp_send_open(&opened, "127.0.0.1", server.port(), "f", &result_);
    session.reset(opened);
    return rc;
  }
  // Opens with blocks of 512 bytes.
  unique_tftp opened(peer& server) {
    unique_tftp session;
    EXPECT_EQ(open(server, {sends(ack(0))}, session), 0);
    return session;
  }
  std::string local(std::size_t size) {
    test::write_file(path_, pattern(size));
    return path_;
  }

  test::library library_;
  test::log_capture log_;
  test::temp_dir directory_;
  std::string path_ = directory_.file("file");
  dl_result result_ = {};
};

// DATA `block` of a file sent in blocks of `size`.
std::string block_of(int block, std::size_t size, std::size_t file_bytes) {
  const std::size_t offset = static_cast<std::size_t>(block - 1) * size;
  return data(block, pattern(std::min(size, file_bytes - offset), offset));
}

// The exchange of a whole file in blocks of `size`.
script delivered(std::size_t size, std::size_t file_bytes) {
  script steps;
  for (int block = 1; static_cast<std::size_t>(block - 1) * size <= file_bytes; ++block) {
    steps = steps + script{expects(block_of(block, size, file_bytes)), sends(ack(block))};
  }
  return steps;
}

script repeated(int times, const script& steps) {
  script all;
  for (int i = 0; i < times; ++i) all = all + steps;
  return all;
}

TEST_F(tftp_upload, open_is_accepted) {
  const std::string again = request(2, "f");
  struct row {
    const char* name;
    script after_request;
    int blksize;
  };
  const std::vector<row> rows = {
      {"ACK 0", {sends(ack(0))}, 512},
      {"OACK", {sends(oack({"blksize", "1432"}))}, 1432},
      {"OACK without block size", {sends(oack({"tsize", "1"}))}, 512},
      {"after ERROR", {sends(error(0, "busy")), expects(again), sends(ack(0))}, 512},
      {"after ACK of another block", {sends(ack(3)), expects(again), sends(oack({"BLKSIZE", "24"}))}, 24},
      {"after a runt", {sends("\0\4\0"s), expects(again), sends(ack(0))}, 512},
      {"after five strange answers",
       repeated(5, {sends(data(1, "x")), expects(again)}) + script{sends(ack(0))}, 512},
      {"repeats go to the new port", {sends_from_new_port(error(0, "")), expects(again), sends(ack(0))}, 512},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    log_.clear();
    peer server;
    unique_tftp session;
    ASSERT_EQ(open(server, r.after_request, session), 0) << result_.message;
    EXPECT_EQ(result_.code, 0);
    EXPECT_EQ(session->block, 1u);
    EXPECT_EQ(session->blksize, r.blksize);
    EXPECT_EQ(session->recv_size, r.blksize + 4);
    EXPECT_EQ(logged()[0], "5 tftp open begin, host: 127.0.0.1, port:" + std::to_string(server.port()) +
                               ", remote_name:f");
    EXPECT_EQ(logged()[1], "6 Send Request Packet");
    EXPECT_EQ(logged().back(), "5 tftp open success");
  }
}

TEST_F(tftp_upload, open_fails) {
  const std::string again = request(2, "f");
  struct row {
    const char* name;
    script after_request;
    const char* last_line;
  };
  const std::vector<row> rows = {
      {"six ERRORs", repeated(5, {sends(error(2, "no")), expects(again)}) + script{sends(error(2, "no"))},
       "4 server error 2: no"},
      {"six ACKs of another block", repeated(5, {sends(ack(1)), expects(again)}) + script{sends(ack(1))},
       "5 discarded 0 packets"},
      {"refused block size",
       {sends(oack({"blksize", "1433"})), expects(error(8, "err blksize"))},
       "3 err blksize"},
      {"silence", {}, "3 Error Select! errno 0"},
  };
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    peer server;
    unique_tftp session;
    EXPECT_EQ(open(server, r.after_request, session), -1);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(result_.code, DL_ERR_READ);
    EXPECT_STREQ(result_.message, "Read Error");
    EXPECT_EQ(logged().back(), r.last_line);
    EXPECT_TRUE(server.queued().empty());
  }
}

TEST_F(tftp_upload, open_and_send_refuse_bad_arguments) {
  dl_tftp_session* session = nullptr;
  const std::string long_name(256, 'n');
  const auto expect_refused = [&](int rc, const char* line) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(result_.code, DL_ERR_PARAMETER);
    EXPECT_EQ(logged().back(), line);
    EXPECT_EQ(session, nullptr);
    result_ = {};
  };
  const char* const open_line = "3 tftp open with invalid parmeter";
  expect_refused(dl_tftp_send_open(nullptr, "127.0.0.1", 1, "f", &result_), open_line);
  expect_refused(dl_tftp_send_open(&session, nullptr, 1, "f", &result_), open_line);
  expect_refused(dl_tftp_send_open(&session, "127.0.0.1", 1, nullptr, &result_), open_line);
  expect_refused(dl_tftp_send_open(&session, "127.0.0.1", 65536, "f", &result_), open_line);
  expect_refused(dl_tftp_send_open(&session, "127.0.0.1", 1, long_name.c_str(), &result_), open_line);
  EXPECT_EQ(dl_tftp_send_open(&session, "127.0.0.1", 1, "f", nullptr), -1);

  const char* const send_line = "3 Tftp read with invalid parameter";
  dl_tftp_session dead = {};
  dead.sock = 1;
  dl_tftp_session without_socket = {};
  without_socket.magic = DL_TFTP_MAGIC;
  expect_refused(dl_tftp_send(nullptr, "/dev/null", &result_), send_line);
  expect_refused(dl_tftp_send(&dead, nullptr, &result_), send_line);
  expect_refused(dl_tftp_send(&dead, "/dev/null", &result_), send_line);
  expect_refused(dl_tftp_send(&without_socket, "/dev/null", &result_), send_line);
  EXPECT_EQ(dl_tftp_send(&dead, "/dev/null", nullptr), -1);

  log_.clear();
  const auto silently = [&](int rc) {
    EXPECT_EQ(rc, -1);
    EXPECT_TRUE(logged().empty());
  };
  silently(dl_tftp_send_file("127.0.0.1", 1, "f", nullptr, &result_));
  EXPECT_EQ(result_.code, DL_ERR_PARAMETER);
  silently(dl_tftp_send_file("127.0.0.1", 1, "f", "", &result_));
  silently(dl_tftp_send_file("127.0.0.1", 65536, "f", "/dev/null", &result_));
  silently(dl_tftp_send_file(nullptr, 1, "f", "/dev/null", &result_));
  silently(dl_tftp_send_file("127.0.0.1", 1, "f", "/dev/null", nullptr));
}

TEST_F(tftp_upload, files_are_cut_into_blocks) {
  struct row {
    int blksize;
    std::size_t file_bytes;
  };
  for (const row& r : {row{512, 0}, row{512, 1}, row{512, 511}, row{512, 512}, row{512, 1000}, row{512, 1024},
                       row{1432, 1431}, row{1432, 1432}, row{1432, 1433}, row{24, 100}, row{1000, 5500}}) {
    SCOPED_TRACE(testing::Message() << r.file_bytes << " bytes by " << r.blksize);
    peer server;
    unique_tftp session;
    ASSERT_EQ(open(server, {sends(oack({"blksize", std::to_string(r.blksize)}))}, session), 0);
    const playing thread(server, delivered(static_cast<std::size_t>(r.blksize), r.file_bytes));
    EXPECT_EQ(dl_tftp_send(session.get(), local(r.file_bytes).c_str(), &result_),
              static_cast<int>(r.file_bytes));
    EXPECT_EQ(result_.code, 0);
    EXPECT_EQ(session->done, 1u);
    EXPECT_EQ(dl_tftp_send(session.get(), path_.c_str(), &result_), 0) << "nothing is left to send";
  }
}

// Answers that are not the ACK that is due, for a file of 600 bytes in blocks of 512.
TEST_F(tftp_upload, blocks_are_repeated) {
  const std::string first = block_of(1, 512, 600);
  const std::string second = block_of(2, 512, 600);
  const script end = {expects(second), sends(ack(2))};
  const script whole = script{expects(first), sends(ack(1))} + end;
  const auto answered = [&](const std::string& answer) { return script{expects(first), sends(answer)}; };
  struct row {
    const char* name;
    script steps;
    std::size_t num_drains;
  };
  const std::vector<row> rows = {
      {"ACK of the block before", answered(ack(0)) + whole, 1},
      {"ACK of a later block", answered(ack(2)) + whole, 1},
      {"stale ACK of the last block", answered(ack(1)) + script{expects(second), sends(ack(1))} + end, 0},
      {"ERROR", answered(error(3, "full")) + whole, 0},
      {"OACK, which no longer sets sizes", answered(oack({"blksize", "24"})) + whole, 0},
      {"runt of an ACK", answered("\0\4\0"s) + whole, 0},
      {"five repeats", repeated(5, answered("")) + whole, 0},
      {"after the fifth repeat the block counts as delivered", repeated(6, answered(error(0, ""))) + end, 0},
      {"the last block too", answered(ack(1)) + repeated(6, {expects(second), sends(ack(1))}), 0},
      {"ACKs from new ports",
       script{expects(first), sends_from_new_port(ack(1)), expects(second), sends_from_new_port(ack(2))}, 0},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    log_.clear();
    peer server;
    const unique_tftp session = opened(server);
    {
      const playing thread(server, r.steps);
      EXPECT_EQ(dl_tftp_send(session.get(), local(600).c_str(), &result_), 600);
    }
    EXPECT_TRUE(server.queued().empty());
    EXPECT_EQ(log_.count("tftp syn err"), r.num_drains);
    EXPECT_EQ(session->blksize, 512);
  }
}

TEST_F(tftp_upload, a_wrong_ack_drains_the_queue) {
  peer server;
  const unique_tftp session = opened(server);
  server.play({sends(ack(7)), sends(ack(1)), sends("lost"), sends(ack(2))});
  std::thread late([&] {
    while (log_.count("discarded 3 packets") == 0) std::this_thread::yield();
    server.play({expects(block_of(1, 512, 600)), expects(block_of(1, 512, 600)), sends(ack(1))});
    server.play({expects(block_of(2, 512, 600)), sends(ack(2))});
  });
  EXPECT_EQ(dl_tftp_send(session.get(), local(600).c_str(), &result_), 600);
  late.join();
}

TEST_F(tftp_upload, silence_ends_the_transfer_without_a_repeat) {
  peer server;
  const unique_tftp session = opened(server);
  test::set_option(DL_OPT_NET_TIMEOUT, 1);
  EXPECT_EQ(dl_tftp_send(session.get(), local(600).c_str(), &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
  EXPECT_EQ(logged().back(), "3 Error Select! errno 0");
  EXPECT_EQ(server.queued(), lines{block_of(1, 512, 600)});
}

TEST_F(tftp_upload, block_numbers_wrap) {
  constexpr std::size_t file_bytes = 24 * (65536 + 2) + 5;
  peer server;
  unique_tftp session;
  ASSERT_EQ(open(server, {sends(oack({"blksize", "24"}))}, session), 0);
  std::thread thread([&] {
    for (int block = 1; static_cast<std::size_t>(block - 1) * 24 <= file_bytes && !HasFailure(); ++block) {
      server.play({expects(block_of(block, 24, file_bytes)), sends(ack(block))});
    }
  });
  EXPECT_EQ(dl_tftp_send(session.get(), local(file_bytes).c_str(), &result_), static_cast<int>(file_bytes));
  EXPECT_EQ(session->block, 4u);
  thread.join();
}

TEST_F(tftp_upload, local_files_are_judged_after_the_request) {
  test::set_option(DL_OPT_MAX_FILE_SIZE, 1000);
  const std::string huge = directory_.file("huge");
  test::write_file(huge, "");
  ASSERT_EQ(truncate(huge.c_str(), off_t{1} << 31), 0);
  const std::string missing = directory_.file("missing");
  const std::string large = directory_.file("large");
  test::write_file(large, pattern(1001));
  struct row {
    const char* name;
    std::string path;
    uint32_t limit;
    std::string line;
  };
  const std::vector<row> rows = {
      {"one byte too many", large, 1000, "3 File " + large + " size larger than maxsize 1000"},
      {"missing", missing, 1000, "3 Can't open " + missing},
      {"2 GiB", huge, UINT32_MAX, "3 File " + huge + " has 2 GiB or more"},
      {"a directory", directory_.path(), 1 << 20,
       "3 Can't read " + directory_.path() + ", errno " + std::to_string(EISDIR)},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    test::set_option(DL_OPT_MAX_FILE_SIZE, r.limit);
    peer server;
    const unique_tftp session = opened(server);
    EXPECT_EQ(dl_tftp_send(session.get(), r.path.c_str(), &result_), -1);
    EXPECT_EQ(result_.code, DL_ERR_READ);
    EXPECT_STREQ(result_.message, "Read Error");
    EXPECT_EQ(logged().back(), r.line);
    EXPECT_TRUE(server.queued().empty()) << "no DATA";
  }
  test::set_option(DL_OPT_MAX_FILE_SIZE, 1000);
  peer server;
  const unique_tftp session = opened(server);
  const playing thread(server, delivered(512, 1000));
  EXPECT_EQ(dl_tftp_send(session.get(), local(1000).c_str(), &result_), 1000) << "the limit itself";
}

TEST_F(tftp_upload, send_file_names_the_remote_file) {
  struct row {
    const char* remote_name;
    const char* requested;
  };
  for (const row& r : {row{nullptr, "file"}, row{"", "file"}, row{"/logs/x.txt", "logs/x.txt"}}) {
    peer server;
    const playing thread(server,
                         script{expects(request(2, r.requested)), sends(ack(0))} + delivered(512, 700));
    EXPECT_EQ(dl_tftp_send_file("127.0.0.1", server.port(), r.remote_name, local(700).c_str(), &result_), 0);
    EXPECT_EQ(logged().back(), "5 send: 700 bytes");
  }
  const std::string missing = directory_.file("missing");
  peer server;
  const playing thread(server, {expects(request(2, "missing")), sends(ack(0))});
  EXPECT_EQ(dl_tftp_send_file("127.0.0.1", server.port(), nullptr, missing.c_str(), &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_READ);
}

// A block that the system refuses to send.
TEST_F(tftp_upload, a_refused_send_fails) {
  peer server;
  const unique_tftp session = opened(server);
  sockaddr_in nowhere = server.address();
  nowhere.sin_addr.s_addr = INADDR_BROADCAST;
  memcpy(session->server, &nowhere, sizeof nowhere);
  EXPECT_EQ(dl_tftp_send(session.get(), local(10).c_str(), &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_SEND);
  EXPECT_STREQ(result_.message, "Send Error");
  EXPECT_EQ(logged().back(), "3 Send DATA Error");
}

}  // namespace
