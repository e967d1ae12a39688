// http_record.cpp: session records as a caller may hand them over: unusable ones, dead sockets, standard streams.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "http/http_connection.h"
#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/fed_socket.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"

namespace {

using namespace fetchrig;
using lines = std::vector<std::string>;

class http_record : public test::leak_free {
 protected:
  test::library library_;
  test::log_capture log_;
};

TEST_F(http_record, reads_refuse_bad_arguments) {
  const test::fed_socket feed("body");
  auto* session = static_cast<dl_http_session*>(calloc(1, sizeof(dl_http_session)));
  session->magic = DL_HTTP_MAGIC;
  session->sock = feed.duplicate();
  session->remaining = 4;
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
            (std::vector{code(nullptr, buffer, 8), code(session, nullptr, 8), code(&no_mark, buffer, 8),
                         code(&no_sock, buffer, 8), code(session, buffer, -1)}));
  EXPECT_EQ(lines(5, "http read with invalid parameter"), log_.messages(DL_LOG_ERROR));
  EXPECT_EQ(-1, dl_http_read(session, buffer, 8, nullptr));
  EXPECT_EQ(0, dl_http_read(session, buffer, 0, &result));
  EXPECT_EQ(4, dl_http_read(session, buffer, 8, &result));
  EXPECT_EQ(0, result.code);
  dl_http_close(session);
}

TEST_F(http_record, close_takes_live_sessions_alone) {
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

TEST_F(http_record, names_of_any_length_are_looked_up) {
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

TEST_F(http_record, dead_sockets_fail) {
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
