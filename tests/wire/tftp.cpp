// tftp.cpp: the TFTP calls against a scripted peer; every packet that we send is checked. Some of the
// system's calls are replaced for this program, so that they fail on a thread that has asked for it.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/syscall.h>

#include <chrono>
#include <map>

#include "include/fetchrig.h"
#include "tests/peers/tftp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"
#include "tftp/tftp_session.h"

namespace {

enum class call { none, send, receive, bind, allocate };

// `times` calls fail from the `at`-th on. An error of 0 makes a send one byte short.
struct fault {
  call which = call::none;
  int at = 1;
  int times = 1;
  int error = EIO;
  int seen = 0;
};
thread_local constinit fault armed;

bool fails(call which) {
  if (armed.which != which) return false;
  ++armed.seen;
  if (armed.seen < armed.at || armed.seen >= armed.at + armed.times) return false;
  errno = armed.error;
  return true;
}

}  // namespace

extern "C" {

ssize_t sendto(int sock, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t to_len) {
  if (fails(call::send)) return armed.error ? -1 : static_cast<ssize_t>(size) - 1;
  return syscall(SYS_sendto, sock, bytes, size, flags, to, to_len);
}
ssize_t recvfrom(int sock, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* from_len) {
  if (fails(call::receive)) return -1;
  return syscall(SYS_recvfrom, sock, bytes, size, flags, from, from_len);
}
int bind(int sock, const sockaddr* address, socklen_t length) noexcept {
  if (fails(call::bind)) return -1;
  return static_cast<int>(syscall(SYS_bind, sock, address, length));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CAN_REFUSE_MEMORY 1
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* malloc(size_t size) {
  return fails(call::allocate) ? nullptr : __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  return fails(call::allocate) ? nullptr : __libc_calloc(count, size);
}
#endif

}  // extern "C"

namespace {

using namespace tftp_test;
using namespace std::string_literals;
using fetchrig::unique_tftp;
using lines = std::vector<std::string>;

constexpr char rrq = 1;
constexpr char wrq = 2;
const std::string failed = "code -8";
const script get = {expects(request(rrq, "f"))};
const script put = {expects(request(wrq, "f"))};

class tftp : public test::leak_free {
 protected:
  tftp() { test::set_option(DL_OPT_NET_TIMEOUT, 5u); }

  // Fetches or sends "f", `size` bytes of the pattern. A failed download leaves no file.
  int transfer(char opcode, std::size_t size, const fault& plan = {}) {
    unlink(path_.c_str());
    if (opcode == wrq) test::write_file(path_, pattern(size));
    result_ = {};
    const auto call = opcode == rrq ? dl_tftp_recv_to_file : dl_tftp_send_file;
    armed = plan;
    const int rc = call("127.0.0.1", server_.port(), "f", path_.c_str(), &result_);
    struck_ = std::exchange(armed, {}).seen >= plan.at;
    const bool there = opcode == wrq || rc == 0;
    EXPECT_EQ(test::file_exists(path_) ? test::read_file(path_) : "no file",
              there ? pattern(size) : "no file");
    return rc;
  }
  // Opens a transfer of "f", while the peer waits for the request and plays `answers`.
  unique_tftp open(char opcode, const script& answers) {
    dl_tftp_session* session = nullptr;
    server_.queued();  // of an earlier session
    const playing thread(server_, (opcode == rrq ? get : put) + answers);
    const auto open_call = opcode == rrq ? dl_tftp_open : dl_tftp_send_open;
    const int rc = open_call(&session, "127.0.0.1", server_.port(), "f", &result_);
    EXPECT_EQ(rc, session ? 0 : -1);
    return unique_tftp(session);
  }
  // The bytes of one call, or "code N".
  std::string read(const unique_tftp& session, std::size_t size) {
    std::string bytes(size, '?');
    const int count = dl_tftp_read(session.get(), bytes.data(), static_cast<int32_t>(size), &result_);
    if (count < 0) return "code " + std::to_string(result_.code);
    return bytes.substr(0, static_cast<std::size_t>(count));
  }

  test::library library_;
  test::log_capture log_;
  test::temp_dir place_;
  const std::string path_ = place_.file("file");
  dl_result result_ = {};
  bool struck_ = false;  // the fault that was planned
  peer server_;
};

TEST_F(tftp, bad_arguments_are_refused) {
  const std::string long_name(256, 'n');
  char byte = 0;
  dl_tftp_session dead = {}, no_socket = {}, live = {};
  dead.sock = live.sock = 1;
  no_socket.magic = live.magic = DL_TFTP_MAGIC;
  dl_tftp_session* opened = &live;
  const auto expect_refused = [&](int rc) {
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(std::exchange(result_.code, 0), DL_ERR_PARAMETER);
  };
  expect_refused(dl_tftp_open(nullptr, "127.0.0.1", 1, "f", &result_));
  expect_refused(dl_tftp_open(&opened, "127.0.0.1", 65536, "f", &result_));
  EXPECT_EQ(opened, nullptr);
  expect_refused(dl_tftp_send_open(&opened, "127.0.0.1", 1, long_name.c_str(), &result_));
  EXPECT_EQ(dl_tftp_open(&opened, "127.0.0.1", 1, "f", nullptr), -1);
  EXPECT_EQ(log_.messages(3), lines(4, "tftp open with invalid parmeter"));
  log_.clear();
  expect_refused(dl_tftp_read(&live, &byte, -1, &result_));
  expect_refused(dl_tftp_read(&dead, &byte, 1, &result_));
  expect_refused(dl_tftp_read(&no_socket, &byte, 1, &result_));
  expect_refused(dl_tftp_send(&dead, "/dev/null", &result_));
  EXPECT_EQ(dl_tftp_read(&live, nullptr, 1, nullptr), -1);
  EXPECT_EQ(dl_tftp_send(&live, nullptr, nullptr), -1);
  expect_refused(dl_tftp_send_file("127.0.0.1", 1, "f", "", &result_));
  EXPECT_EQ(dl_tftp_send_file(nullptr, 1, "f", nullptr, nullptr), -1);
  dl_tftp_close(&dead);
  dl_tftp_close(nullptr);
  const std::string use = "Tftp read with invalid parameter", close = "tftp close with invalid parameter";
  EXPECT_EQ(log_.messages(), (lines{use, use, use, use, use, use, close, close}));
}

TEST_F(tftp, opening_fails) {
  dl_tftp_session* session = nullptr;
  EXPECT_EQ(dl_tftp_open(&session, "::1", 0, "f", &result_), -1) << "IPv6 is off";
  EXPECT_EQ(result_.code, DL_ERR_HOST);
  EXPECT_EQ(log_.messages().front(), "tftp open begin, host: ::1, port:69, remote_name:f");

  test::set_option(DL_OPT_NET_TIMEOUT, 1u);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(open(rrq, {}));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2990)) << "3 s at least";
  EXPECT_EQ(result_.code, DL_ERR_NOT_TFTP);

  dl_exit();
  EXPECT_EQ(dl_tftp_open(&session, "127.0.0.1", 1, "f", &result_), -1);
  EXPECT_EQ(result_.code, DL_ERR_NOT_INITIALISED);
  EXPECT_EQ(log_.messages(3).back(), "config doesn't init");
}

// Whole files, fetched and sent.
TEST_F(tftp, exchanges) {
  test::set_option(DL_OPT_MAX_FILE_SIZE, 3000u);
  // The packets of a download of 600 bytes.
  const script one = {sends(block_of(1, 512, 600)), expects(ack(1))};
  const script two = {sends(block_of(2, 512, 600)), expects(ack(2))};
  const auto agreed = [](const std::vector<std::string>& options) {
    return script{sends(oack(options)), expects(ack(0))};
  };
  // Those of an upload: each block with an answer.
  const auto first = [&](const std::string& answer) { return script{expects(one[0].packet), sends(answer)}; };
  const auto last = [&](const std::string& answer) { return script{expects(two[0].packet), sends(answer)}; };
  const script good = first(ack(1)) + last(ack(2));
  const script begun = put + script{sends(ack(0))};
  const script no = {sends(error(2, "no"))};
  const auto refused = [](const std::string& blksize) {
    return script{sends(oack({"blksize", blksize})), expects(error(8, "err blksize"))};
  };
  const std::string received = "recv: 600 bytes", sent = "send: 600 bytes";
  const int READ = DL_ERR_READ, SEND = DL_ERR_SEND;
  struct {
    const char* name;
    char opcode;
    script steps;
    std::size_t size;
    int code;
    std::string line;  // among those logged
    fault plan = {};
  } const rows[] = {
      // clang-format off
      {"option ignored, empty file", rrq, get + served(512, 0), 0, 0, "recv: 0 bytes"},
      {"full last block", rrq, get + agreed({"blksize", "1432"}) + served(1432, 1432), 1432, 0, "Send Request Packet"},
      {"second option", rrq, get + agreed({"tsize", "4", "BLKSIZE", "24"}) + served(24, 75), 75, 0, "using blksize 24"},
      {"no size", rrq, get + agreed({"tsize", "4"}) + one + two, 600, 0, "server only supports blocksize of 512"},
      {"refused size", rrq, get + refused("1433"), 0, READ, "bad blocksize '1433'"},
      {"no size in the second OACK", rrq, get + agreed({}) + agreed({"blksize", "24"}) + one + two, 600, 0, received},
      {"a block once more", rrq, get + one + one + two, 600, 0, received},
      {"a block too long", rrq, get + script{sends(data(1, pattern(600))), one[1]} + two, 600, 0, received},
      {"new port", rrq, get + script{sends_from_new_port(one[0].packet), one[1]} + two, 600, 0, received},
      {"the largest", rrq, get + served(512, 3000), 3000, 0, "recv: 3000 bytes"},
      {"too large", rrq, get + served(512, 3001), 3001, READ, "exceed max size"},
      {"silence", rrq, get + one, 600, READ, "Error Select! errno 0"},
      {"request not sent", rrq, {}, 600, SEND, "Send Error error! errno = 5 ret = -1 send_size = 23", {call::send}},
      {"ACK not sent", rrq, get + script{one[0]}, 600, SEND, "Send Ack Error", {call::send, 2}},
      {"ACK cut short", rrq, get + one + script{two[0]}, 600, SEND, "Send 2 ack error! errno", {call::send, 3, 1, 0}},
      {"no ACK for an OACK", rrq, get + script{sends(oack({}))} + one + two, 600, 0, received, {call::send, 2}},
      {"interrupted sends", rrq, get + one + two, 600, 0, received, {call::send, 2, 3, EINTR}},
      {"failed receive", rrq, get + one + script{two[0]}, 600, READ, "Recvfrom error! errno 5", {call::receive, 2}},
      {"interrupted receives", rrq, get + one + two, 600, 0, received, {call::receive, 1, 3, EINTR}},
      {"dropped datagrams", rrq, get + one + two, 600, 0, received, {call::receive, 2, 3, EAGAIN}},
      {"29 ports in use", rrq, get + one + two, 600, 0, received, {call::bind, 1, 29, EADDRINUSE}},
      {"30 ports in use", rrq, {}, 600, DL_ERR_SOCKET, "tftp open begin", {call::bind, 1, 30, EADDRINUSE}},

      {"empty file", wrq, begun + flipped(served(512, 0)), 0, 0, "send: 0 bytes"},
      {"full last block", wrq, begun + flipped(served(512, 512)), 512, 0, "send: 512 bytes"},
      {"size", wrq, put + script{sends(oack({"blksize", "24"}))} + flipped(served(24, 75)), 75, 0, "using blksize 24"},
      {"refused size", wrq, put + refused("23"), 600, READ, "err blksize"},
      {"five ERRORs", wrq, 5 * (put + no) + begun + good, 600, 0, sent},
      {"six ERRORs", wrq, 6 * (put + no), 600, READ, "server error 2: no"},
      {"another ACK", wrq, put + script{sends(ack(3))} + begun + good, 600, 0, "discarded 0 packets"},
      {"new port", wrq, put + script{sends_from_new_port(ack(0))} + good, 600, 0, sent},
      {"no answer", wrq, put, 600, READ, "Error Select! errno 0"},
      {"ACK of the block before", wrq, begun + first(ack(0)) + good, 600, 0, "tftp syn err"},
      {"ACK of a later block", wrq, begun + first(ack(2)) + good, 600, 0, "tftp syn err"},
      {"late OACK", wrq, begun + first(oack({"blksize", "24"})) + good, 600, 0, sent},
      {"a block is repeated five times", wrq, begun + 5 * first("no") + good, 600, 0, sent},
      {"then counts as delivered", wrq, begun + 6 * first("no") + 6 * last("no"), 600, 0, sent},
      {"silence", wrq, begun + script{expects(one[0].packet)}, 600, READ, "Error Select! errno 0"},
      {"the largest", wrq, begun + flipped(served(512, 3000)), 3000, 0, "send: 3000 bytes"},
      {"too large", wrq, begun, 3001, READ, "File " + path_ + " size larger than maxsize 3000"},
      {"request not sent", wrq, {}, 600, SEND, "Send Error error! errno = 5 ret = -1 send_size = 23", {call::send}},
      {"block not sent", wrq, begun, 600, SEND, "Send DATA Error", {call::send, 2}},
      {"block cut short", wrq, begun + first(ack(1)), 600, SEND, "Send DATA Error", {call::send, 3, 1, 0}},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE((row.opcode == rrq ? "download: "s : "upload: ") + row.name);
    test::set_option(DL_OPT_NET_TIMEOUT, row.code ? 1u : 5u);
    log_.clear();
    {
      const playing thread(server_, row.steps);
      EXPECT_EQ(transfer(row.opcode, row.size, row.plan), row.code ? -1 : 0);
      EXPECT_EQ(struck_, row.plan.which != call::none);
    }
    EXPECT_EQ(result_.code, row.code);
    EXPECT_GE(log_.count(row.line), 1u) << log_.all();
    EXPECT_EQ(server_.queued(), lines{});
  }
}

#if CAN_REFUSE_MEMORY
TEST_F(tftp, memory_is_refused) {
  dl_log_init(0, nullptr);  // the capture allocates, too
  std::map<int, int> codes;
  for (int n = 1; codes[0] == 0 && !HasFailure(); ++n) {
    SCOPED_TRACE(n);
    server_.queued();
    const playing thread(server_, get + script{sends(data(1, pattern(9)))});
    const int rc = transfer(rrq, 9, {call::allocate, n});
    EXPECT_EQ(rc, struck_ ? -1 : 0);
    ++codes[result_.code];
    // A call that failed before its request left the peer waiting.
    if (n == 1 || result_.code == DL_ERR_HOST) transfer(rrq, 9);
  }
  codes.erase(DL_ERR_HOST);  // the resolver's own
  EXPECT_EQ(codes, (std::map<int, int>{{DL_ERR_MEMORY, 4}, {0, 1}}))
      << "session, carry, file's buffer and path";
}
#endif

TEST_F(tftp, local_files) {
  const std::string nowhere = place_.file("none/file");
  const std::string huge = place_.file("huge");
  test::write_file(huge, "");
  ASSERT_EQ(truncate(huge.c_str(), off_t{1} << 31), 0);
  test::set_option(DL_OPT_MAX_FILE_SIZE, UINT32_MAX);
  struct {
    char opcode;
    std::string path;
    int code;
    std::string line;
  } const rows[] = {
      {rrq, nowhere, 0, "Can't open " + nowhere},
      {rrq, "/dev/full", DL_ERR_READ, "write error on /dev/full, errno 28"},
      {wrq, nowhere, DL_ERR_READ, "Can't open " + nowhere},
      {wrq, huge, DL_ERR_READ, "File " + huge + " has 2 GiB or more"},
      {wrq, "/proc/self/mem", DL_ERR_READ, "Can't read /proc/self/mem, errno 5"},
      // No request for these: with it the server may empty the remote file.
      {wrq, place_.path(), DL_ERR_READ, "Can't read " + place_.path() + ", errno 21"},
      {wrq, "/dev/zero", DL_ERR_READ, "Can't read /dev/zero, errno 22"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    server_.queued();
    const playing thread(server_, row.opcode == rrq           ? get + script{sends(data(1, "x"))}
                                  : &row < std::end(rows) - 2 ? put + script{sends(ack(0))}
                                                              : script{});
    const auto call = row.opcode == rrq ? dl_tftp_recv_to_file : dl_tftp_send_file;
    EXPECT_EQ(call("127.0.0.1", server_.port(), "f", row.path.c_str(), &result_), -1);
    EXPECT_EQ(result_.code, row.code);
    EXPECT_TRUE(log_.contains("TFTP", 3, row.line)) << log_.all();
  }
  EXPECT_EQ(server_.queued(), lines{}) << "no DATA";
}

// The path of a download is the remote name when none is given, and the other way round.
TEST_F(tftp, one_name_for_both_sides) {
  {
    const playing thread(server_, script{expects(request(rrq, path_.substr(1)))} + served(512, 600));
    EXPECT_EQ(dl_tftp_recv_to_file("127.0.0.1", server_.port(), path_.c_str(), nullptr, &result_), 0);
    EXPECT_EQ(test::read_file(path_), pattern(600));
  }
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    const playing thread(server_,
                         script{expects(request(wrq, "file")), sends(ack(0))} + flipped(served(512, 600)));
    EXPECT_EQ(dl_tftp_send_file("127.0.0.1", server_.port(), name, path_.c_str(), &result_), 0);
  }
}

TEST_F(tftp, a_block_is_acknowledged_when_its_first_byte_is_read) {
  const unique_tftp session = open(rrq, {sends(block_of(1, 512, 600)), sends(block_of(2, 512, 600))});
  EXPECT_EQ(read(session, 0), "");
  EXPECT_EQ(server_.queued(), lines{});
  EXPECT_EQ(read(session, 1), pattern(1));
  EXPECT_EQ(read(session, 511), pattern(511, 1));
  EXPECT_EQ(server_.queued(), lines{ack(1)});
  EXPECT_EQ(read(session, 100), pattern(88, 512));
  EXPECT_EQ(read(session, 100), "");
}

TEST_F(tftp, six_unexpected_packets_end_a_read) {
  for (const std::string& packet :
       {""s, "\0"s, "\0\3\0"s, "\0\4\0"s, ack(1), "\3\0\0\1"s, error(1, "none"), oack({})}) {
    SCOPED_TRACE(testing::PrintToString(packet));
    EXPECT_EQ(read(open(rrq, 5 * script{sends(packet)} + script{sends(data(1, "abc"))}), 10), "abc");
    const unique_tftp session = open(rrq, 6 * script{sends(packet)} + script{sends(data(1, "abc"))});
    EXPECT_EQ(read(session, 10), failed);
    EXPECT_EQ(read(session, 10), "abc") << "a new call has a new budget";
  }
}

// Block 1 is due; the one before it is acknowledged again, a later one is not.
TEST_F(tftp, a_wrong_block_drains_the_queue) {
  for (const int block : {0, 2}) {
    SCOPED_TRACE(block);
    log_.clear();
    const script lost = {sends(data(block, "x")), sends(data(1, "lost")), sends(error(0, "lost")),
                         sends("lost")};
    const unique_tftp session = open(rrq, lost);
    std::jthread late([&] {
      if (block == 0) server_.play({expects(ack(0))});
      while (!log_.contains("TFTP", 5, "discarded 3 packets")) std::this_thread::yield();
      server_.play({sends(data(1, "taken")), expects(ack(1))});
    });
    EXPECT_EQ(read(session, 100), "taken");
  }
}

// A failed read takes nothing, so the session may go on.
TEST_F(tftp, an_error_packet_ends_in_a_time_out) {
  test::set_option(DL_OPT_NET_TIMEOUT, 1u);
  const unique_tftp session = open(rrq, {sends(error(1, "No file"))});
  EXPECT_EQ(read(session, 100), failed);
  EXPECT_EQ(log_.messages(DL_LOG_WARNING), lines{"server error 1: No file"});
  EXPECT_EQ(log_.messages(DL_LOG_ERROR), lines{"Error Select! errno 0"});
  server_.play({sends(oack({"blksize", "24"}))});
  EXPECT_EQ(read(session, 100), failed);
  EXPECT_EQ(session->blksize, 24) << "the size was still open";
  server_.play(
      {expects(ack(0)), sends(oack({"blksize", "25"})), sends(data(1, pattern(24))), sends(data(2, ""))});
  EXPECT_EQ(read(session, 100), pattern(24)) << "and now it is not";
  EXPECT_EQ(server_.queued(), (lines{ack(0), ack(1), ack(2)}));
}

// Callers may hold or make session records.
TEST_F(tftp, numbers_wrap_and_records_are_bounded) {
  const std::string block = pattern(512);
  unique_tftp session = open(rrq, {sends(data(1, block))});
  EXPECT_EQ(read(session, 512), block);
  session->block = 65535;
  server_.play({sends(data(65535, block)), sends(data(0, block)), sends(oack({"blksize", "24"})),
                sends(data(1, "end"))});
  EXPECT_EQ(read(session, 5000), block + block + "end");
  EXPECT_EQ(session->blksize, 512) << "a block 1 that is not the first";

  session = open(rrq, {sends(data(1, pattern(1600)))});
  session->recv_size = INT32_MAX;
  session->carry_len = INT32_MAX;
  EXPECT_EQ(read(session, 1), pattern(1));
  EXPECT_EQ(session->carry_len, 1431);
  session->done = 1;
  session->carry_len = -7;
  EXPECT_EQ(read(session, 10), "");
  session->carry_len = INT32_MAX;
  EXPECT_EQ(read(session, 5000).size(), 1432u);

  session = open(rrq, 6 * script{sends("x")});
  session->recv_size = -1;
  EXPECT_EQ(read(session, 10), failed);

  session = open(wrq, {sends(ack(0))});
  session->block = 65535;
  session->blksize = INT32_MAX;
  test::write_file(path_, pattern(1437));
  const playing thread(server_, {expects(data(65535, pattern(1432))), sends(ack(65535)),
                                 expects(data(0, pattern(5, 1432))), sends(ack(0))});
  EXPECT_EQ(dl_tftp_send(session.get(), path_.c_str(), &result_), 1437);
}

TEST_F(tftp, a_packet_that_does_not_fit_is_not_sent_empty) {
  const unique_tftp session = open(wrq, {sends(ack(0))});
  const std::string name(256, 'n'), message(1432, 'm');
  EXPECT_EQ(fetchrig::tftp_send_request(*session, fetchrig::tftp_opcode::wrq, name.c_str()), DL_ERR_SEND);
  EXPECT_EQ(fetchrig::tftp_send_error(*session, 8, message), -1);
  EXPECT_EQ(server_.queued(), lines{});
  EXPECT_EQ(log_.messages(3),
            (lines{"Send Error error! errno = 90 ret = -1 send_size = 0", "Send 8 err error! errno"}));
}

TEST_F(tftp, standard_error_is_not_closed) {
  unique_tftp session = open(wrq, {sends(ack(0))});
  fetchrig::unique_fd(std::exchange(session->sock, 2)).reset();
  session.reset();
  EXPECT_NE(fcntl(2, F_GETFD), -1);
}

}  // namespace
