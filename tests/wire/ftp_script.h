// ftp_script.h: pieces of FTP conversations for the scripted peers, and the two peers (control and data) that
// a transfer talks to.
#ifndef FETCHRIG_TESTS_WIRE_FTP_SCRIPT_H
#define FETCHRIG_TESTS_WIRE_FTP_SCRIPT_H

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/options.h"
#include "tests/support/temp_dir.h"

namespace test {

inline connection_script operator+(connection_script first, const connection_script& second) {
  for (const step& next : second) first.push_back(next);
  return first;
}

// Nothing said: the peer waits until the client closes.
inline const connection_script idle;

// One command and the answer to it.
inline connection_script turn(const std::string& command, const std::string& answer) {
  return {expect(command + "\r\n"), send(answer + "\r\n")};
}

inline const connection_script greeting = {send("220 ready\r\n")};
inline connection_script anonymous_login() {
  return greeting + turn("USER anonymous", "331 ?") + turn("PASS", "230 in") + turn("TYPE I", "200 ok");
}

inline std::string pasv_answer(uint16_t port, const std::string& address = "127,0,0,1") {
  return "227 Entering Passive Mode (" + address + "," + std::to_string(port / 256) + "," +
         std::to_string(port % 256) + ").";
}

// A server whose data connection plays `data`; its control connection logs in, answers PASV, and goes on with
// `control`. The client must say all that these expect and nothing else.
struct ftp_peers {
  explicit ftp_peers(const connection_script& control_script, const connection_script& data_script = {},
                     delivery mode = delivery::whole)
      : data({data_script}, {.mode = mode}),
        script(anonymous_login() + turn("PASV", pasv_answer(data.port())) + control_script),
        control({script}, {.mode = mode}) {}
  ~ftp_peers() {
    EXPECT_TRUE(data.finish());
    EXPECT_TRUE(control.finish());
    std::string commands;
    for (const step& next : script) {
      if (next.what == action::expect) commands += next.bytes;
    }
    EXPECT_EQ(commands, control.received(0));
  }

  tcp_peer data;
  connection_script script;
  tcp_peer control;
};

// Holds one peer's script until something else has happened.
class gate {
 public:
  step wait() {
    return call([opened = opened_.get_future().share()] { opened.wait_for(std::chrono::seconds(10)); });
  }
  void open() { opened_.set_value(); }

 private:
  std::promise<void> opened_;
};

// The library with a captured log, nothing leaked. Waits are long, so that a busy machine fails no test; one
// about a silent server makes them short.
class ftp_test : public leak_free {
 protected:
  ftp_test() { set_option(DL_OPT_NET_TIMEOUT, 20); }
  void wait_briefly() { set_option(DL_OPT_NET_TIMEOUT, 1); }

  library library_;
  log_capture log_;
  temp_dir dir_;
  dl_result result_ = {};

  // Whether the FTP module logged these texts at this level, in this order, and no others.
  void expect_log(int level, const std::vector<std::string>& texts) {
    std::vector<std::string> found;
    for (const log_message& line : log_.records()) {
      if (line.module == "FTP " && line.level == level) found.push_back(line.text);
    }
    EXPECT_EQ(texts, found) << log_.all();
  }
  void expect_result(int code, const std::string& message) {
    EXPECT_EQ(code, result_.code);
    EXPECT_EQ(message, result_.message);
  }
};

}  // namespace test
#endif
