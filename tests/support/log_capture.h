// log_capture.h: the library's log lines while it lives, at every level. Make it after the library is
// initialised, which resets the log. One at a time; lines may come from any thread.
#ifndef FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H
#define FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "include/fetchrig.h"

namespace test {

struct log_message {
  std::string module;  // "HTTP", "FTP " and so on
  int level = -1;
  std::string text;  // without prefix and line feed; "(no line feed)" is added when that is missing
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

  std::vector<log_message> records() const {
    const std::lock_guard hold(lock_);
    return kept_;
  }
  // The texts alone, in order; of one level when it is given.
  std::vector<std::string> messages(int level = -1) const {
    std::vector<std::string> texts;
    for (const log_message& message : records()) {
      if (level < 0 || message.level == level) texts.push_back(message.text);
    }
    return texts;
  }
  // Whether a message is exactly this one; `text` without its line feed.
  bool contains(std::string_view module, int level, std::string_view text) const {
    return std::ranges::any_of(records(), [&](const log_message& message) {
      return message.module == module && message.level == level && message.text == text;
    });
  }
  // All lines as one text, for failure messages and for checking what must not appear.
  std::string all() const {
    const std::lock_guard hold(lock_);
    return raw_;
  }
  void clear() {
    const std::lock_guard hold(lock_);
    kept_.clear();
    raw_.clear();
  }

 private:
  static constexpr std::size_t longest_line = 382;  // longer ones are cut, and lose their line feed

  static int take_line(const char* bytes, int32_t length) {
    std::string line(bytes, static_cast<std::size_t>(length));
    const std::lock_guard hold(lock_);
    raw_ += line;
    if (line.size() < longest_line && !line.ends_with('\n')) line += "(no line feed)\n";
    kept_.push_back(parsed_line(line));
    return 0;
  }

  static inline std::mutex lock_;  // guards the two below
  static inline std::vector<log_message> kept_;
  static inline std::string raw_;
};

}  // namespace test
#endif
