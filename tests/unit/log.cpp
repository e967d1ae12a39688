// log.cpp and syslog_socket.cpp: the line, its outputs and the levels. The system log is a socket of the
// test.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <regex>
#include <thread>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "log/printable.h"
#include "log/syslog_socket.h"
#include "tests/support/descriptors.h"
#include "tests/support/temp_dir.h"

namespace {

using fetchrig::unique_fd;
using lines = std::vector<std::string>;

lines called_with;  // what the callback has received
int remember(const char* line, int32_t length) {
  called_with.emplace_back(line, static_cast<size_t>(length));
  return 0;
}

class log_facility : public testing::Test {
 protected:
  log_facility() {
    fetchrig::syslog_path = path.c_str();
    start_daemon();
  }
  ~log_facility() override {
    qxfr_log_exit();
    fetchrig::syslog_path = "/nonexistent/log";
  }

  void start_daemon() {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    daemon.reset(socket(AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_EQ(bind(daemon.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << errno;
  }
  // The datagrams that the daemon has got; those between sockets of one machine are there at once.
  lines arrived() {
    lines all;
    char line[1000];
    ssize_t length = 0;
    while ((length = recv(daemon.get(), line, sizeof line, MSG_DONTWAIT)) >= 0)
      all.emplace_back(line, static_cast<size_t>(length));
    return all;
  }
  // What the callback gets of one message.
  lines logged(int module, int level, const std::string& message = "m\n") {
    called_with.clear();
    qxfr_log(module, level, "%s", message.c_str());
    return called_with;
  }

  test::temp_dir dir;
  const std::string path = dir.file("log");
  unique_fd daemon;
  const std::string pid = "[" + std::to_string(getpid()) + "]: ";
};

TEST_F(log_facility, the_line_with_every_output_and_after_the_end) {
  testing::internal::CaptureStdout();
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG | DL_LOG_TO_CONSOLE | DL_LOG_WITH_TIME, remember);
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "x %d\n", 7);
  std::string console = testing::internal::GetCapturedStdout();
  console.erase(0, console.find('\n') + 1);  // the line of the start
  const std::string line = called_with.back();
  EXPECT_TRUE(
      std::regex_match(line, std::regex("<131>[A-Z][a-z]{2} [ 123]\\d \\d\\d:\\d\\d:\\d\\d QXFR\\[\\d+\\]: "
                                        "HTTP<3\\+error > \\d{3}(\\.\\d{3}){2}:x 7\n")))
      << line;
  EXPECT_EQ(line.substr(25 + pid.size()), console);
  EXPECT_EQ(arrived(), called_with);

  EXPECT_EQ(qxfr_log_exit(), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(logged(DL_LOG_HTTP, DL_LOG_WARNING), lines{});
  EXPECT_EQ(logged(DL_LOG_HTTP, DL_LOG_NOTICE), lines{});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "HTTP<4+warnin> m\n") << "the console alone, level 4";
  EXPECT_EQ(arrived(), lines{});
}

TEST_F(log_facility, identities) {
  // clang-format off
  const std::tuple<const char*, std::string, std::string> rows[] = {  // given, in every line, in the first line
      {"AB", "AB  ", "AB"}, {"", "    ", ""}, {"LONGER", "LONG", "LONGER"},
      {nullptr, "slog", "slog"}, {"%s%n", "%s%n", "%s%n"}};
  // clang-format on
  for (const auto& [given, shown, named] : rows) {
    qxfr_log_init(given, DL_LOG_TO_SYSLOG, nullptr);
    EXPECT_EQ(arrived().at(0).erase(0, 21),
              shown + pid + "DANY<0+emerg > " + named + " log :sys=1,cons=0,time=0,E=3,W=4,N=5,I=6,D=7\n");
  }
  qxfr_log_init("OTHR", 0, remember);  // without the system log: keeps the identity
  EXPECT_EQ(logged(DL_LOG_FTP, DL_LOG_EMERG), lines{"%s%n" + pid + "FTP <0+emerg > m\n"});
  EXPECT_EQ(arrived(), lines{});
}

TEST_F(log_facility, levels_have_tags_and_pass_up_to_their_modules_and_lines_are_cut) {
  const std::string tags[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >", "<4+warnin>",
                              "<5+notice>", "<6+info  >", "<7+debug >", "<8+apykky>", "<9+anydbg>"};
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
  dl_log_init(0, remember);
  EXPECT_EQ(dl_set_log_module_level(DL_LOG_TFTP, 10), 4) << "the level before";
  for (int level = 0; level < 10; ++level) {
    const std::string line = tags[level] + " m\n";
    EXPECT_EQ(logged(DL_LOG_TFTP, level), lines{"QXFR" + pid + "TFTP" + line});
    EXPECT_EQ(logged(DL_LOG_CMN, level), level <= 4 ? lines{"QXFR" + pid + "DCMN" + line} : lines{});
  }
  for (const int level : {-1, 10}) EXPECT_EQ(logged(DL_LOG_TFTP, level), lines{}) << level << " has no tag";
  const std::string head = "QXFR" + pid + "DANY<0+emerg > ";
  for (const size_t length : {382 - head.size(), 383 - head.size(), size_t{5000}}) {
    const std::string message(length, 'm');
    EXPECT_EQ(logged(DL_LOG_ANY, DL_LOG_EMERG, message), lines{(head + message).substr(0, 382)});
  }
  EXPECT_EQ(fetchrig::printable(std::string(1000, 'x')).c_str(), std::string(383, 'x'));
}

TEST_F(log_facility, setting_levels) {
  dl_log_init(0, remember);
  const std::pair<uint32_t, int> verbosities[] = {{0, 7}, {1, 6}, {2, 4}, {3, 3}, {4, 5}, {UINT32_MAX, 5}};
  for (const auto& [verbosity, level] : verbosities) {
    EXPECT_EQ(dl_set_log_level(verbosity), level);
    for (uint32_t module = 0; module < 7; ++module) EXPECT_EQ(qxfr_log_get(module), level);
  }
  called_with.clear();
  EXPECT_EQ(std::pair(qxfr_log_set(7, 3), qxfr_log_get(7)), std::pair(-1, -1)) << "no such module";
  EXPECT_EQ(qxfr_log_set(DL_LOG_LNC, 2), 5);
  EXPECT_EQ(qxfr_log_get(DL_LOG_LNC), 2);
  EXPECT_TRUE(called_with.size() == 1 && called_with[0].ends_with(pid + "DANY<0+emerg > DLNC=2\n"));
  EXPECT_EQ(qxfr_log_set(DL_LOG_ANY, 6), 0);
  EXPECT_EQ(qxfr_log_get(DL_LOG_LNC), 6) << "ANY sets all";
  // clang-format off
  const std::pair<const char*, int> names[] = {
      {"ftp", 5}, {"FTP and more", 5}, {"tftp", 4}, {"http ", 3}, {"", -22}, {"httpsome", -22}, {nullptr, -22}};
  // clang-format on
  for (const auto& [name, module] : names) {
    SCOPED_TRACE(name ? name : "(null)");
    dl_log_init(0, nullptr);
    EXPECT_EQ(qxfr_log_set2(name, 1), module < 0 ? module : 4);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(qxfr_log_get(static_cast<uint32_t>(i)), i == module ? 1 : 4) << i;
  }
  EXPECT_STREQ(qxfr_log_name(5), "FTP ");
  EXPECT_EQ(qxfr_log_name(7), nullptr);
}

TEST_F(log_facility, a_missing_daemon_is_tried_again_with_each_message) {
  qxfr_log_init("AB", DL_LOG_TO_SYSLOG, remember);
  for (int round = 0; round < 2; ++round) {
    daemon.reset();  // the first lost line closes the socket, the second finds none to open
    for (int lost = 0; lost < 2; ++lost)
      EXPECT_EQ(logged(DL_LOG_ANY, DL_LOG_ERROR, "lost\n").size(), 1U) << "the other outputs work";
    start_daemon();
    logged(DL_LOG_ANY, DL_LOG_ERROR, "arrives\n");
    EXPECT_EQ(arrived().at(0).erase(0, 21), "AB  " + pid + "DANY<3+error > arrives\n");
  }
}

TEST_F(log_facility, a_blocked_daemon_costs_one_wait_and_the_lost_lines_are_counted) {
  fetchrig::syslog_pause_ms = 20;
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
  size_t sent = 1, told = 0, got = 0;
  const auto started = std::chrono::steady_clock::now();
  for (; sent < 3000; ++sent) qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10)) << "for thousands of lines";
  for (; told == 0 && !HasFailure(); ++sent) {  // the daemon reads again
    for (const std::string& line : arrived()) {
      const bool tells = line.find("lines lost, the system log was blocked\n") != std::string::npos;
      if (tells) told = std::stoul(line.substr(line.find("> ") + 2));
      got += !tells;
    }
    if (told > 0) break;
    qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n");
    ASSERT_LT(sent, 10000000U);
  }
  EXPECT_EQ(got + told, sent) << "each line has arrived or was counted";
  fetchrig::syslog_pause_ms = 5000;
}

// As a daemon does that closes every descriptor: the number is somebody else's then.
TEST_F(log_facility, a_descriptor_that_the_application_has_reused_gets_no_lines) {
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
  int log_fd = 2;
  for (sockaddr_un peer = {}; path != peer.sun_path && log_fd < 1000;) {
    socklen_t length = sizeof peer;
    if (getpeername(++log_fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) peer = {};
  }
  const test::socket_pair others(SOCK_DGRAM);
  ASSERT_EQ(dup2(others.near.get(), log_fd), log_fd);
  arrived();
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "m\n");
  EXPECT_EQ(arrived().size(), 1U) << "over a new socket";
  qxfr_log_exit();
  char got = 0;
  EXPECT_EQ(recv(others.far.get(), &got, 1, MSG_DONTWAIT), -1);
  EXPECT_EQ(close(log_fd), 0) << "it was left open";
}

// Threads log while the socket is closed, opened and fails underneath them. No line may land in a descriptor
// that was reused meanwhile: the test keeps opening files, which would receive it.
TEST_F(log_facility, threads_log_while_the_socket_is_replaced) {
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
  std::atomic<int> running{3};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < 1000; ++line) qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "line %d\n", line);
      --running;
    });
  }
  for (size_t round = 0; running > 0; ++round) {
    const unique_fd file(memfd_create("bystander", MFD_CLOEXEC));
    if (round % 8 == 0) start_daemon();
    if (round % 8 != 0) qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
    arrived();
    EXPECT_EQ(lseek(file.get(), 0, SEEK_END), 0);
  }
}

}  // namespace
