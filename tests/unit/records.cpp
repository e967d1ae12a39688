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

class records : public test::leak_free, protected test::socket_pair {
 protected:
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
  // Of a protocol: records without a socket and without their mark, and a live one with bad arguments.
  template <typename Record>
  void refused(int (*read)(Record*, char*, int32_t, dl_result*),
               int (*send)(Record*, const char*, dl_result*), void (*close)(Record*), Record& no_sock,
               Record& dead, Record& live, const char* line) {
    for (Record* bad : {static_cast<Record*>(nullptr), &no_sock, &dead}) {
      refused(read(bad, bytes_, 1, &result_));
      refused(send(bad, "/dev/null", &result_));
    }
    refused(read(&live, nullptr, 1, &result_));
    refused(read(&live, bytes_, -1, &result_));
    EXPECT_EQ(read(&live, bytes_, 1, nullptr) + send(&live, "/dev/null", nullptr), -2);
    EXPECT_EQ(log_.messages(), lines(10, line));
    log_.clear();
    close(nullptr);
    close(&dead);
    EXPECT_EQ(log_.messages().size(), 2u);
    log_.clear();
  }

  test::library library_;
  test::log_capture log_;
  dl_result result_ = {};
  char bytes_[2000] = {};
};

TEST_F(records, of_ftp) {
  dl_ftp_session none = {}, dead = {}, live = {}, endless = {};
  dead.data_sock = live.ctrl_sock = near.get();
  live.magic = none.magic = endless.magic = DL_FTP_MAGIC;
  memset(endless.host, 'h', sizeof endless.host);
  dl_ftp_session usable = live;
  usable.data_sock = near.get();
  refused(dl_ftp_read, dl_ftp_send, dl_ftp_close, none, dead, usable, "ftp read with invalid parameter");
  for (dl_ftp_session* bad : {static_cast<dl_ftp_session*>(nullptr), &dead, &endless})
    EXPECT_EQ(dl_ftp_create_data_conn(bad, bytes_, 512, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, nullptr, 512, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, bytes_, 0, 1), DL_ERR_PARAMETER);
  EXPECT_EQ(log_.messages(), lines(5, "ftp data connection with invalid parameter"));
  ASSERT_EQ(write(far.get(), "227 x\r\n", 7), 7);
  EXPECT_EQ(dl_ftp_create_data_conn(&live, bytes_, 1, 1), -1) << "no room for a line";
}

TEST_F(records, of_tftp) {
  dl_tftp_session none = {}, dead = {};
  none.magic = DL_TFTP_MAGIC;
  dead.sock = near.get();
  auto* full = new_record<dl_tftp_session>(DL_TFTP_MAGIC);
  full->sock = 2;
  full->done = 1;
  full->carry = static_cast<char*>(calloc(1, tftp_max_blksize));
  refused(dl_tftp_read, dl_tftp_send, dl_tftp_close, none, dead, *full, "Tftp read with invalid parameter");
  full->carry_len = -7;
  EXPECT_EQ(dl_tftp_read(full, bytes_, 10, &result_), 0);
  full->carry_len = INT32_MAX;
  EXPECT_EQ(dl_tftp_read(full, bytes_, sizeof bytes_, &result_), tftp_max_blksize);
  dl_tftp_close(full);
}

TEST_F(records, packets_that_do_not_fit_are_not_sent) {
  tftp_packet_buffer buffer;
  EXPECT_EQ(tftp_build_request(tftp_opcode::wrq, std::string(256, 'n'), buffer), 0u);
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
  EXPECT_EQ(tftp_send_error({}, 8, std::string(tftp_max_blksize, 'e')), -1);
  EXPECT_EQ(log_.messages(), lines{"Send 8 err error! errno"});
}

TEST_F(records, of_http) {
  ASSERT_EQ(write(far.get(), "body", 4), 4);
  auto* session = new_record<dl_http_session>(DL_HTTP_MAGIC);
  session->sock = fcntl(near.get(), F_DUPFD_CLOEXEC, 3);
  session->remaining = 4;
  dl_http_session dead = *session, no_sock = *session;
  dead.magic = DL_FTP_MAGIC;
  no_sock.sock = 0;
  for (dl_http_session* bad : {static_cast<dl_http_session*>(nullptr), &dead, &no_sock})
    refused(dl_http_read(bad, bytes_, 8, &result_));
  refused(dl_http_read(session, nullptr, 8, &result_));
  refused(dl_http_read(session, bytes_, -1, &result_));
  EXPECT_EQ(log_.messages(DL_LOG_ERROR), lines(5, "http read with invalid parameter"));
  EXPECT_EQ(dl_http_read(session, bytes_, 8, nullptr), -1);
  EXPECT_EQ(dl_http_read(session, bytes_, 0, &result_), 0);
  EXPECT_EQ(dl_http_read(session, bytes_, 8, &result_), 4);
  EXPECT_EQ(result_.code, 0);
  dl_http_close(nullptr);
  dl_http_close(&dead);
  EXPECT_NE(fcntl(dead.sock, F_GETFD), -1) << "a dead record's socket was closed";
  dl_http_close(session);
}

// What a record that was never filled in may hold.
TEST_F(records, never_close_the_standard_streams) {
  const auto before = test::open_descriptors();
  for (const int standard : {0, 1, 2}) {
    auto* ftp = new_record<dl_ftp_session>(DL_FTP_MAGIC);
    ftp->ctrl_sock = ftp->data_sock = standard;
    dl_ftp_close(ftp);
    auto* tftp = new_record<dl_tftp_session>(DL_TFTP_MAGIC);
    tftp->sock = standard;
    dl_tftp_close(tftp);
    auto http = new_http_session();
    http->sock = standard;
    http.reset();
    EXPECT_EQ(test::open_descriptors(), before) << standard;
  }
}

TEST_F(records, without_a_tls_session_nothing_is_read) {
  dl_http_session bare = {};
  bare.sock = 987;
  bare.flags = DL_HTTP_FLAG_TLS;
  http_channel channel(bare);
  char byte = 0;
  std::string line;
  EXPECT_EQ(http_read_line(channel, 256, 256, line), DL_ERR_READ);
  EXPECT_EQ(http_recv(channel, {&byte, 1}), DL_ERR_READ);
  EXPECT_EQ(log_.messages(DL_LOG_ERROR), (lines{"Peek error!", "context ssl is null"}));
}

}  // namespace
