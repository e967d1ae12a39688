// stream.cpp: reading, peeking and writing on plain connections, with and without a read-ahead.
#include "net/tcp_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <tuple>

#include "core/owners.h"
#include "net/send_file.h"
#include "tests/support/descriptors.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace fetchrig;

// Both ends of a connection; the test plays the peer at `far`.
class stream_test : public test::leak_free {
 protected:
  void SetUp() override {
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }
  void peer_sends(std::string_view bytes) const {
    ASSERT_EQ(::send(far.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  // How much of what the peer sent the stream has left in the socket.
  int left_in_socket() const {
    int left = -1;
    ioctl(near.get(), FIONREAD, &left);
    return left;
  }

  unique_fd near;
  unique_fd far;
  std::array<char, 64> buffer;
};

std::string_view text_of(const std::array<char, 64>& buffer, const io_result& result) {
  return {buffer.data(), result.count > 0 ? static_cast<size_t>(result.count) : 0};
}

TEST_F(stream_test, a_bare_socket_reads_no_more_than_it_is_asked_for) {
  tcp_stream stream(near.get());
  peer_sends("abcdef");
  EXPECT_EQ(text_of(buffer, stream.peek({buffer.data(), 3}, 1)), "abc");
  EXPECT_EQ(left_in_socket(), 6);
  EXPECT_EQ(text_of(buffer, stream.read({buffer.data(), 4}, 1)), "abcd");
  EXPECT_EQ(left_in_socket(), 2);
  EXPECT_EQ(stream.peek({buffer.data(), 0}, 1).count, 0);
  EXPECT_EQ(text_of(buffer, stream.read(buffer, 1)), "ef");
  far.reset();
  EXPECT_EQ(stream.peek(buffer, 1).count, 0);
  EXPECT_EQ(stream.read(buffer, 1).count, 0);
}

TEST_F(stream_test, a_read_ahead_keeps_order_and_is_passed_by_when_told_so) {
  read_ahead ahead;
  tcp_stream stream(near.get(), &ahead);
  tcp_stream draining(near.get(), &ahead, read_ahead_use::drain);
  peer_sends("abcde");
  EXPECT_EQ(text_of(buffer, stream.peek({buffer.data(), 2}, 1)), "ab");
  EXPECT_EQ(left_in_socket(), 0);
  EXPECT_EQ(text_of(buffer, stream.read({buffer.data(), 1}, 1)), "a");
  peer_sends("fgh");
  EXPECT_EQ(text_of(buffer, draining.read({buffer.data(), 10}, 1)), "bcde") << "what is held comes first";
  EXPECT_EQ(text_of(buffer, draining.read({buffer.data(), 2}, 1)), "fg");
  EXPECT_EQ(left_in_socket(), 1) << "what follows was not asked for";
  EXPECT_EQ(text_of(buffer, stream.read({buffer.data(), 2}, 1)), "h");
  far.reset();
  EXPECT_EQ(stream.read(buffer, 1).count, 0);
}

TEST_F(stream_test, nothing_in_time_is_a_failed_wait) {
  read_ahead ahead;
  tcp_stream bare(near.get());
  tcp_stream buffered(near.get(), &ahead);
  for (tcp_stream* stream : {&bare, &buffered}) {
    for (const bool peek : {false, true}) {
      const io_result result = peek ? stream->peek(buffer, 0) : stream->read(buffer, 0);
      EXPECT_LT(result.count, 0);
      EXPECT_TRUE(result.wait_failed);
      EXPECT_EQ(result.error, 0) << "a time-out has no errno";
    }
  }
}

// Pieces of every size around those of the read-ahead, read in pieces of other sizes, give the bytes that
// were sent.
TEST_F(stream_test, large_contents_arrive_whole) {
  const std::string content = test::make_bytes(100000);
  for (const size_t request : {1U, 512U, 16383U, 16384U, 16385U, 60000U}) {
    read_ahead ahead;
    tcp_stream stream(near.get(), &ahead);
    std::string received;
    std::string piece(request, '\0');
    size_t sent = 0;
    while (received.size() < content.size()) {
      const size_t more = std::min<size_t>(20000, content.size() - sent);
      peer_sends(std::string_view(content).substr(sent, more));
      sent += more;
      while (received.size() < sent) {
        const io_result result = stream.read(piece, 1);
        ASSERT_GT(result.count, 0);
        received.append(piece, 0, static_cast<size_t>(result.count));
      }
    }
    EXPECT_TRUE(received == content) << request;
  }
}

TEST_F(stream_test, writing_to_a_closed_peer_fails_without_a_signal) {
  tcp_stream stream(near.get());
  EXPECT_EQ(stream.write_all({}), 0);
  EXPECT_EQ(stream.write_all({"abc", 3}), 0);
  far.reset();
  EXPECT_EQ(stream.write_all({"abc", 3}), -1);
}

// A file with a size, and one that has contents without.
TEST_F(stream_test, a_file_is_sent_from_where_it_stands_to_its_end_or_limit) {
  const test::temp_dir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abcdef");
  const std::tuple<const char*, int, send_end, std::string_view> rows[] = {
      {path.c_str(), 4, send_end::whole, "cdef"},
      {path.c_str(), 3, send_end::too_large, "cde"},
      {"/proc/sys/kernel/ostype", 100, send_end::whole, "nux\n"}};
  for (const auto& [name, limit, end, arrives] : rows) {
    const unique_fd file(::open(name, O_RDONLY | O_CLOEXEC));
    lseek(file.get(), 2, SEEK_SET);
    const send_result sent = send_file(near.get(), file.get(), limit, 1);
    EXPECT_EQ(sent.end, end) << name;
    EXPECT_EQ(sent.total, static_cast<int>(arrives.size()));
    EXPECT_EQ(text_of(buffer, tcp_stream(far.get()).read(buffer, 1)), arrives);
  }
}

TEST_F(stream_test, what_stops_a_file_is_told_without_a_signal) {
  const test::temp_dir dir;
  const std::string path = dir.file("file");
  test::write_file(path, test::make_bytes(4000000));
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const send_result stuck = send_file(near.get(), file.get(), INT_MAX, 0);
  EXPECT_EQ(stuck.end, send_end::wait_failed);
  EXPECT_EQ(stuck.error, 0) << "a time-out has no errno";
  EXPECT_EQ(fcntl(near.get(), F_GETFL) & O_NONBLOCK, 0) << "as it was";
  far.reset();
  const send_result closed = send_file(near.get(), file.get(), INT_MAX, 1);
  EXPECT_EQ(closed.end, send_end::send_failed);
  EXPECT_EQ(closed.error, EPIPE);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

// Symptom: the program was killed, as sendfile() had sent a part when it met the peer's reset.
TEST_F(stream_test, a_reset_in_the_middle_of_sendfile_raises_no_signal) {
  const test::temp_dir dir;
  const std::string path = dir.file("file");
  test::write_file(path, test::make_bytes(4000000));
  const unique_fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  ASSERT_TRUE(bind(listener.get(), any, length) == 0 && listen(listener.get(), 1) == 0);
  getsockname(listener.get(), any, &length);
  near.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(connect(near.get(), any, length), 0);
  far.reset(accept(listener.get(), nullptr, nullptr));
  far.reset();
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(send_file(near.get(), file.get(), INT_MAX, 5).end, send_end::send_failed);
}

}  // namespace
