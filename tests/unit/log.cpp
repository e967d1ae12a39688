// log.cpp and syslog_socket.cpp: the line, its outputs and the levels. The system log is a socket of the
// test.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/owners.h"
#include "include/fetchrig.h"
#include "log/syslog_socket.h"

namespace {

using fetchrig::syslog_path;
using fetchrig::unique_fd;

// What the callback has received, in the order of its calls.
std::vector<std::string> called_with;

int remember(const char* line, int32_t length) {
  called_with.emplace_back(line, static_cast<size_t>(length));
  return 0;
}

// A log daemon: a bound datagram socket in a directory of its own.
class daemon_socket {
 public:
  daemon_socket() {
    char directory[] = "/tmp/fetchrig-log-XXXXXX";
    if (mkdtemp(directory)) directory_ = directory;
    path_ = directory_ + "/log";
    bind_again();
  }
  ~daemon_socket() {
    go_away();
    rmdir(directory_.c_str());
  }
  daemon_socket(const daemon_socket&) = delete;
  daemon_socket& operator=(const daemon_socket&) = delete;

  const char* path() const { return path_.c_str(); }
  void bind_again() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path_.c_str(), path_.size());
    socket_ = unique_fd(socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << errno;
  }
  void go_away() {
    socket_.reset();
    unlink(path_.c_str());
  }
  // The next datagram; "(nothing)" when there is none. Datagrams between sockets of one machine are there at
  // once.
  std::string next() {
    char line[1000];
    const ssize_t length = recv(socket_.get(), line, sizeof line, MSG_DONTWAIT);
    return length < 0 ? "(nothing)" : std::string(line, static_cast<size_t>(length));
  }
  size_t drain() {
    size_t count = 0;
    while (next() != "(nothing)") ++count;
    return count;
  }

 private:
  std::string directory_;
  std::string path_;
  unique_fd socket_;
};

class log_facility : public testing::Test {
 protected:
  void SetUp() override {
    syslog_path = daemon.path();
    qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, nullptr);
    daemon.drain();
    called_with.clear();
  }
  void TearDown() override { qxfr_log_exit(); }

  daemon_socket daemon;
  const std::string pid = "[" + std::to_string(getpid()) + "]: ";
};

// "Mmm dd hh:mm:ss" as the line has it.
std::string date_of(time_t when) {
  char text[26];
  ctime_r(&when, text);
  return std::string(text + 4, 15);
}

TEST_F(log_facility, the_line_with_every_output) {
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG | DL_LOG_TO_CONSOLE | DL_LOG_WITH_TIME, remember);
  daemon.drain();
  called_with.clear();
  testing::internal::CaptureStdout();
  const time_t before = time(nullptr);
  qxfr_log(DL_LOG_HTTP, DL_LOG_ERROR, "x %d\n", 7);
  const time_t after = time(nullptr);
  const std::string console = testing::internal::GetCapturedStdout();
  const std::string line = daemon.next();

  ASSERT_EQ(line.size(), 5 + 15 + 1 + 4 + pid.size() + 4 + 10 + 1 + 12 + 4) << line;
  EXPECT_EQ(line.substr(0, 5), "<131>");
  const std::string date = line.substr(5, 15);
  EXPECT_TRUE(date == date_of(before) || date == date_of(after)) << date;
  EXPECT_EQ(line.substr(20, 5 + pid.size()), " QXFR" + pid);
  const std::string rest = line.substr(25 + pid.size());
  EXPECT_EQ(rest.substr(0, 15), "HTTP<3+error > ");
  unsigned seconds = 0, millis = 0, micros = 0;
  EXPECT_EQ(sscanf(rest.c_str() + 15, "%3u.%3u.%3u:", &seconds, &millis, &micros), 3);
  EXPECT_TRUE(seconds == before % 1000 || seconds == after % 1000) << seconds;
  EXPECT_EQ(rest.substr(26), ":x 7\n");
  EXPECT_EQ(console, rest);
  EXPECT_EQ(called_with, std::vector<std::string>{line});
}

TEST_F(log_facility, the_line_without_system_log_and_time) {
  qxfr_log_init("OTHR", 0, remember);  // does not set the identity
  called_with.clear();
  qxfr_log(DL_LOG_FTP, DL_LOG_EMERG, "gone\n");
  EXPECT_EQ(called_with, std::vector<std::string>{"QXFR" + pid + "FTP <0+emerg > gone\n"});
  daemon.drain();
  qxfr_log(DL_LOG_FTP, DL_LOG_EMERG, "gone\n");
  EXPECT_EQ(daemon.next(), "(nothing)");
}

TEST_F(log_facility, level_tags) {
  const char* tags[] = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >", "<4+warnin>",
                        "<5+notice>", "<6+info  >", "<7+debug >", "<8+apykky>", "<9+anydbg>"};
  qxfr_log_init(nullptr, 0, remember);
  for (int level = 0; level < 10; ++level) {
    qxfr_log_set(DL_LOG_MEM, level);
    called_with.clear();
    qxfr_log(DL_LOG_MEM, level, "%s", "m");
    ASSERT_EQ(called_with.size(), 1U) << level;
    EXPECT_NE(called_with[0].find("DMEM" + std::string(tags[level]) + " m"), std::string::npos)
        << called_with[0];
  }
}

TEST_F(log_facility, identities) {
  const struct {
    const char* given;
    const char* shown;
    const char* named;  // in the first line
  } rows[] = {
      {"QXFR", "QXFR", "QXFR"},     {"AB", "AB  ", "AB"},      {"", "    ", ""},
      {"LONGER", "LONG", "LONGER"}, {nullptr, "slog", "slog"}, {"%s%n", "%s%n", "%s%n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.shown);
    qxfr_log_init(row.given, DL_LOG_TO_SYSLOG, nullptr);
    const std::string line = daemon.next();
    ASSERT_GT(line.size(), 21U) << line;
    EXPECT_EQ(line.substr(21), row.shown + pid + "DANY<0+emerg > " + row.named +
                                   " log :sys=1,cons=0,time=0,E=3,W=4,N=5,I=6,D=7\n");
  }
}

TEST_F(log_facility, long_messages_are_cut_at_382_characters) {
  qxfr_log_init("QXFR", 0, remember);
  const std::string head = "QXFR" + pid + "DANY<0+emerg > ";
  for (const size_t length :
       {382 - head.size() - 1, 382 - head.size(), 382 - head.size() + 1, size_t{5000}}) {
    called_with.clear();
    const std::string message(length, 'm');
    qxfr_log(DL_LOG_ANY, DL_LOG_EMERG, "%s", message.c_str());
    ASSERT_EQ(called_with.size(), 1U);
    EXPECT_EQ(called_with[0], (head + message).substr(0, 382)) << length;
  }
}

TEST_F(log_facility, a_message_passes_at_or_below_its_modules_level) {
  qxfr_log_init("QXFR", 0, remember);
  EXPECT_EQ(dl_set_log_module_level(DL_LOG_TFTP, 5), 4) << "the level before";
  for (int level = 0; level < 8; ++level) {
    called_with.clear();
    qxfr_log(DL_LOG_TFTP, level, "m\n");
    EXPECT_EQ(called_with.size(), level <= 5 ? 1U : 0U) << level;
    called_with.clear();
    qxfr_log(DL_LOG_CMN, level, "m\n");
    EXPECT_EQ(called_with.size(), level <= 4 ? 1U : 0U) << level << ": another module's level";
  }
}

TEST_F(log_facility, setting_levels) {
  dl_log_init(0, remember);
  const struct {
    uint32_t verbosity;
    int level;
  } rows[] = {{0, 7}, {1, 6}, {2, 4}, {3, 3}, {4, 5}, {9, 5}, {UINT32_MAX, 5}};
  for (const auto& row : rows) {
    EXPECT_EQ(dl_set_log_level(row.verbosity), row.level);
    for (uint32_t module = 0; module < 7; ++module) EXPECT_EQ(qxfr_log_get(module), row.level);
  }
  called_with.clear();
  EXPECT_EQ(qxfr_log_set(7, 3), -1);
  EXPECT_EQ(called_with.size(), 0U) << "nothing is logged for a module that is none";
  EXPECT_EQ(qxfr_log_set(DL_LOG_LNC, 2), 5);
  EXPECT_EQ(qxfr_log_get(DL_LOG_LNC), 2);
  EXPECT_EQ(qxfr_log_set(DL_LOG_ANY, 6), 0);
  EXPECT_EQ(qxfr_log_get(DL_LOG_LNC), 6);
  EXPECT_EQ(called_with, (std::vector<std::string>{"QXFR" + pid + "DANY<0+emerg > DLNC=2\n",
                                                   "QXFR" + pid + "DANY<0+emerg > DANY=6\n"}));
  EXPECT_EQ(qxfr_log_get(7), -1);
}

TEST_F(log_facility, modules_are_found_by_name) {
  dl_log_init(0, nullptr);
  const struct {
    const char* name;
    int result;
    int module;  // whose level changes; -1: none
  } rows[] = {
      {"ftp", 4, 5},      {"FTP", 4, 5},
      {"Ftp ", 4, 5},     {"FTP and more", 4, 5},
      {"tftp", 4, 4},     {"dlnc", 4, 6},
      {"htt", -22, -1},   {"https", -22, -1},
      {"http ", 4, 3},    {"httpsomething", -22, -1},
      {"", -22, -1},      {" ftp", -22, -1},
      {nullptr, -22, -1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name ? row.name : "(null)");
    dl_log_init(0, nullptr);
    EXPECT_EQ(qxfr_log_set2(row.name, 1), row.result);
    for (int module = 0; module < 7; ++module) {
      EXPECT_EQ(qxfr_log_get(static_cast<uint32_t>(module)), module == row.module ? 1 : 4) << module;
    }
  }
  EXPECT_EQ(qxfr_log_set2("dany", 2), 0);
  EXPECT_EQ(qxfr_log_get(DL_LOG_HTTP), 2) << "DANY sets all";
  EXPECT_STREQ(qxfr_log_name(5), "FTP ");
  EXPECT_EQ(qxfr_log_name(7), nullptr);
}

TEST_F(log_facility, the_other_callback_setters_have_no_effect) {
  dl_log_init(0, nullptr);
  dl_set_log_callback(remember);
  dl_set_log_cb_printf(remember);
  qxfr_log(DL_LOG_ANY, DL_LOG_EMERG, "m\n");
  EXPECT_EQ(called_with.size(), 0U);
}

TEST_F(log_facility, a_missing_daemon_is_tried_again_with_each_message) {
  daemon.go_away();
  qxfr_log_init("AB", DL_LOG_TO_SYSLOG, remember);
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "lost\n");
  EXPECT_EQ(called_with.size(), 2U) << "the other outputs work";
  daemon.bind_again();
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "arrives\n");
  EXPECT_EQ(daemon.next().substr(21), "AB  " + pid + "DANY<3+error > arrives\n") << "under the same identity";

  daemon.go_away();  // while the socket is open: the write fails and closes it
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "lost\n");
  daemon.bind_again();
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "again\n");
  EXPECT_EQ(daemon.next().substr(21), "AB  " + pid + "DANY<3+error > again\n");
  EXPECT_EQ(daemon.next(), "(nothing)");
}

TEST_F(log_facility, the_end_leaves_the_console_alone) {
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG | DL_LOG_WITH_TIME, remember);
  qxfr_log_set(DL_LOG_HTTP, 7);
  daemon.drain();
  called_with.clear();
  EXPECT_EQ(qxfr_log_exit(), 0);
  testing::internal::CaptureStdout();
  qxfr_log(DL_LOG_HTTP, DL_LOG_WARNING, "w\n");
  qxfr_log(DL_LOG_HTTP, DL_LOG_NOTICE, "n\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "HTTP<4+warnin> w\n");
  EXPECT_EQ(called_with.size(), 0U);
  EXPECT_EQ(daemon.next(), "(nothing)");
}

std::atomic<size_t> counted{0};
int count_lines(const char*, int32_t) {
  ++counted;
  return 0;
}

// Threads log while the socket is closed, opened and fails underneath them. No line may land in a descriptor
// that was reused meanwhile: the test keeps opening files, which would receive it.
TEST_F(log_facility, threads_log_while_the_socket_is_replaced) {
  qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, count_lines);
  counted = 0;
  constexpr size_t num_threads = 3;
  constexpr size_t num_lines = 1000;
  std::atomic<size_t> running{num_threads};
  std::vector<std::thread> threads;
  for (size_t i = 0; i < num_threads; ++i) {
    threads.emplace_back([&] {
      for (size_t line = 0; line < num_lines; ++line) qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "line %zu\n", line);
      --running;
    });
  }
  size_t rounds = 0;
  size_t files_hit = 0;
  size_t own_lines = 0;
  while (running > 0) {
    const unique_fd file(memfd_create("bystander", MFD_CLOEXEC));
    if (rounds++ % 8 == 0) {
      daemon.go_away();
      daemon.bind_again();
    } else {
      qxfr_log_init("QXFR", DL_LOG_TO_SYSLOG, count_lines);
      ++own_lines;
    }
    daemon.drain();
    if (lseek(file.get(), 0, SEEK_END) > 0) ++files_hit;
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(files_hit, 0U);
  EXPECT_EQ(counted, num_threads * num_lines + own_lines) << "the other outputs lose nothing";
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "lost when the daemon was replaced last\n");
  daemon.drain();
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "after\n");
  EXPECT_NE(daemon.next().find("after"), std::string::npos);
}

}  // namespace
