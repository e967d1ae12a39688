// records.cpp: sessions as a caller may hand them over: unusable ones, dead sockets, standard streams, senseless
// numbers. All else of transfers is told by scenarios.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/owners.h"
#include "http/http_connection.h"
#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tftp/tftp_packet.h"
#include "tftp/tftp_session.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

class records : public test::leak_free {
 protected:
  records() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near_.reset(ends[0]);
    far_.reset(ends[1]);
  }

  template <typename Record>
  static Record* new_record(uint32_t magic) {
    auto* record = static_cast<Record*>(calloc(1, sizeof(Record)));
    record->magic = magic;
    return record;
  }
  void refused(int rc) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(std::exchange(result_, {}).code, DL_ERR_PARAMETER);
  }

  test::library library_;
  test::log_capture log_;
  unique_fd near_, far_;
  dl_result result_ = {};
  char bytes_[2000] = {};
};

TEST_F(records, of_ftp) {
  dl_ftp_session none = {}, dead = {}, live = {}, endless = {};
  dead.data_sock = live.ctrl_sock = near_.get();
  live.magic = none.magic = endless.magic = DL_FTP_MAGIC;
  memset(endless.host, 'h', sizeof endless.host);
  for (dl_ftp_session* bad : {static_cast<dl_ftp_session*>(nullptr), &none, &dead}) {
    refused(dl_ftp_read(bad, bytes_, 1, &result_));
    refused(dl_ftp_send(bad, "/dev/null", &result_));
  }
  dl_ftp_session usable = live;
  usable.data_sock = near_.get();
  refused(dl_ftp_read(&usable, nullptr, 1, &result_));
  refused(dl_ftp_read(&usable, bytes_, -1, &result_));
  EXPECT_EQ(dl_ftp_read(&usable, bytes_, 1, nullptr), -1);
  EXPECT_EQ(dl_ftp_send(&usable, "/dev/null", nullptr), -1);
  EXPECT_EQ(log_.messages(), lines(10, "ftp read with invalid parameter"));
  log_.clear();
  for (dl_ftp_session* bad : {static_cast<dl_ftp_session*>(nullptr), &dead, &endless})
    EXPECT_EQ(dl_ftp_create_data_conn(bad, bytes_, 512, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, nullptr, 512, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, bytes_, 0, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(log_.messages(), lines(5, "ftp data connection with invalid parameter"));
  ASSERT_EQ(write(far_.get(), "227 x\r\n", 7), 7);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, bytes_, 1, 1), -1) << "no room for a line";
  log_.clear();
  dl_ftp_close(nullptr);
  dl_ftp_close(&dead);
  EXPECT_EQ(log_.messages(), lines(2, "ftp close with invalid parameter"));
  auto* standard = new_record<dl_ftp_session>(DL_FTP_MAGIC);
  standard->ctrl_sock = 2;
  standard->data_sock = 1;
  const auto before = test::open_descriptors();
  dl_ftp_close(standard);
  EXPECT_EQ(before, test::open_descriptors());
}

TEST_F(records, of_tftp) {
  dl_tftp_session none = {}, dead = {};
  none.magic = DL_TFTP_MAGIC;
  dead.sock = near_.get();
  for (dl_tftp_session* bad : {static_cast<dl_tftp_session*>(nullptr), &none, &dead}) {
    refused(dl_tftp_read(bad, bytes_, 1, &result_));
    refused(dl_tftp_send(bad, "/dev/null", &result_));
  }
  auto* full = new_record<dl_tftp_session>(DL_TFTP_MAGIC);
  full->sock = 2;
  full->done = 1;
  full->carry = static_cast<char*>(calloc(1, tftp_max_blksize));
  refused(dl_tftp_read(full, nullptr, 1, &result_));
  refused(dl_tftp_read(full, bytes_, -1, &result_));
  EXPECT_EQ(dl_tftp_read(full, bytes_, 1, nullptr), -1);
  EXPECT_EQ(dl_tftp_send(full, "/dev/null", nullptr), -1);
  EXPECT_EQ(log_.messages(), lines(10, "Tftp read with invalid parameter"));
  full->carry_len = -7;
  EXPECT_EQ(dl_tftp_read(full, bytes_, 10, &result_), 0);
  full->carry_len = INT32_MAX;
  EXPECT_EQ(dl_tftp_read(full, bytes_, sizeof bytes_, &result_), tftp_max_blksize);
  log_.clear();
  dl_tftp_close(nullptr);
  dl_tftp_close(&dead);
  dl_tftp_close(full);
  EXPECT_NE(fcntl(2, F_GETFD), -1);
  EXPECT_EQ(log_.messages(), lines(2, "tftp close with invalid parameter"));
}

TEST_F(records, packets_that_do_not_fit_are_not_sent) {
  tftp_packet_buffer buffer;
  EXPECT_EQ(tftp_build_request(tftp_opcode::wrq, std::string(256, 'n'), buffer), 0u);
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
  EXPECT_EQ(tftp_send_error({}, 8, std::string(tftp_max_blksize, 'e')), -1);
  EXPECT_EQ(log_.messages(), lines{"Send 8 err error! errno"});
}

TEST_F(records, reads_refuse_bad_arguments) {
  ASSERT_EQ(write(far_.get(), "body", 4), 4);
  auto* session = new_record<dl_http_session>(DL_HTTP_MAGIC);
  session->sock = fcntl(near_.get(), F_DUPFD_CLOEXEC, 3);
  session->remaining = 4;
  dl_http_session no_mark = *session, no_sock = *session;
  no_mark.magic = 10139;
  no_sock.sock = 0;
  char buffer[8];
  const auto code = [&](dl_http_session* from, char* to, int32_t size) {
    EXPECT_EQ(-1, dl_http_read(from, to, size, &result_));
    return std::exchange(result_, {}).code;
  };
  EXPECT_EQ(std::vector<int32_t>(5, DL_ERR_PARAMETER),
            (std::vector{code(nullptr, buffer, 8), code(session, nullptr, 8), code(&no_mark, buffer, 8),
                         code(&no_sock, buffer, 8), code(session, buffer, -1)}));
  EXPECT_EQ(lines(5, "http read with invalid parameter"), log_.messages(DL_LOG_ERROR));
  EXPECT_EQ(-1, dl_http_read(session, buffer, 8, nullptr));
  EXPECT_EQ(0, dl_http_read(session, buffer, 0, &result_));
  EXPECT_EQ(4, dl_http_read(session, buffer, 8, &result_));
  EXPECT_EQ(0, result_.code);
  dl_http_close(session);
}

TEST_F(records, close_takes_live_sessions_alone) {
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

TEST_F(records, names_of_any_length_are_looked_up) {
  dl_http_session session = {};
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(&session, "x-a"));
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(nullptr, "x-a"));
  std::string block = std::string(127, 'y') + ": 1";
  session.headers = block.data();
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(&session, nullptr));
  EXPECT_EQ(nullptr, dl_http_find_header_by_name(&session, ""));
  EXPECT_STREQ(block.c_str(),
               dl_http_find_header_by_name(&session, (std::string(127, 'y') + "cut off").c_str()));
}

TEST_F(records, dead_sockets_fail) {
  dl_http_session bare = {};
  bare.magic = DL_HTTP_MAGIC;
  bare.sock = 987;
  http_channel channel(bare);
  char byte = 0;
  std::string line(128, '#');
  EXPECT_EQ(DL_ERR_READ, http_read_line(channel, 256, 256, line));
  bare.flags = DL_HTTP_FLAG_TLS;
  EXPECT_EQ(DL_ERR_READ, http_read_line(channel, 256, 256, line));
  EXPECT_EQ(DL_ERR_READ, http_recv(channel, {&byte, 1}));
  EXPECT_EQ(-1, http_recv(channel, {}));
  EXPECT_EQ((lines{"Select error! errno 9", "Peek error!", "Peek error!", "context ssl is null"}),
            log_.messages(DL_LOG_ERROR));
}

}  // namespace
