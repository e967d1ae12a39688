// log_capture.h: the library's log lines while it lives, at every level. Make it after the library is
// initialised, which resets the log. One at a time, for calls of one thread.
#ifndef FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H
#define FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H

#include <string>
#include <vector>

#include "include/fetchrig.h"

namespace test {

struct log_message {
  std::string module;  // "HTTP", "FTP " and so on
  int level = -1;
  std::string text;  // without prefix and line feed
};

// "QXFR[42]: HTTP<3+error > text\n".
inline log_message parsed_line(std::string line) {
  if (line.ends_with('\n')) line.pop_back();
  const std::size_t at = line.find("]: ");
  if (at == std::string::npos || line.size() < at + 18) return {"", -1, line};
  return {line.substr(at + 3, 4), line[at + 8] - '0', line.substr(at + 18)};
}

class log_capture {
 public:
  // Callback only, level 7 for every module; empty.
  log_capture() {
    dl_log_init(0, take_line);
    dl_set_log_module_level(DL_LOG_ANY, DL_LOG_DEBUG);
    clear();
  }
  ~log_capture() { qxfr_log_exit(); }
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  // The texts alone, in order; of one level when it is given.
  static std::vector<std::string> messages(int level = -1) {
    std::vector<std::string> texts;
    for (const log_message& message : kept_) {
      if (level < 0 || message.level == level) texts.push_back(message.text);
    }
    return texts;
  }
  static void clear() { kept_.clear(); }

 private:
  static int take_line(const char* bytes, int32_t length) {
    constexpr int32_t longest = 382;  // longer lines are cut, and lose their line feed
    const bool whole = length == longest || bytes[length - 1] == '\n';
    kept_.push_back(parsed_line(std::string(bytes, static_cast<std::size_t>(length))));
    if (!whole) kept_.back().text += "(no line feed)";
    return 0;
  }

  static inline std::vector<log_message> kept_;
};

}  // namespace test
#endif
