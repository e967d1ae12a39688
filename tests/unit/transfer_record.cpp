// transfer_record.cpp: records that a caller made or that are dead, and what only the system's own sockets tell. All
// else of FTP, TFTP and connections is told by scenarios.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/resource.h>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "net/socket.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tftp/tftp_packet.h"
#include "tftp/tftp_session.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

class transfer_record : public test::leak_free {
 protected:
  transfer_record() {
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

TEST_F(transfer_record, of_ftp) {
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

TEST_F(transfer_record, of_tftp) {
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

TEST_F(transfer_record, packets_that_do_not_fit_are_not_sent) {
  tftp_packet_buffer buffer;
  EXPECT_EQ(tftp_build_request(tftp_opcode::wrq, std::string(256, 'n'), buffer), 0u);
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
  EXPECT_EQ(tftp_send_error({}, 8, std::string(tftp_max_blksize, 'e')), -1);
  EXPECT_EQ(log_.messages(), lines{"Send 8 err error! errno"});
}

TEST_F(transfer_record, connections_have_their_options) {
  const unique_fd server(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  ASSERT_EQ(listen(server.get(), 1), 0);
  getsockname(server.get(), reinterpret_cast<sockaddr*>(&address), &length);
  for (const int limit : {0, 2}) {
    const unique_fd sock(dl_connect("127.0.0.1", ntohs(address.sin_port), 0, limit));
    ASSERT_GT(sock.get(), 2) << log_.all();
    EXPECT_EQ(fcntl(sock.get(), F_GETFL) & O_NONBLOCK, 0) << "blocking again";
    EXPECT_TRUE(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC);
    const auto value = [&](int level, int option) {
      int set = 0;
      length = sizeof set;
      EXPECT_EQ(getsockopt(sock.get(), level, option, &set, &length), 0);
      return set;
    };
    EXPECT_EQ(value(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(value(IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(value(IPPROTO_TCP, TCP_NOTSENT_LOWAT), 16384);
  }
}

TEST_F(transfer_record, waits_tell_readiness_above_descriptor_1023_too) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit raised = {std::max<rlim_t>(limit.rlim_cur, 1200), limit.rlim_max};
  if (setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "too few descriptors";
  {
    const unique_fd high(fcntl(near_.get(), F_DUPFD_CLOEXEC, 1100));
    EXPECT_EQ(dl_select(high.get(), wait_readable, 0), 0);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 1);
    ASSERT_EQ(send(far_.get(), "x", 1, 0), 1);
    EXPECT_EQ(dl_select(high.get(), wait_readable | wait_writable, 5), 2) << "counts like select()";
    EXPECT_LT(dl_select(high.get(), wait_readable, -1), 0);
  }
  for (const int closed : {1100, -1}) {
    errno = 0;
    EXPECT_LT(dl_select(closed, wait_readable, 1), 0);
    EXPECT_EQ(errno, EBADF);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  far_.reset();
  EXPECT_EQ(dl_send_all(near_.get(), "x", 1), DL_ERR_SEND) << "and no SIGPIPE";
}

}  // namespace
