// log_capture.h: the library's log lines while it lives, at every level. Make it after the library is
// initialised, which resets the log. One at a time; lines may come from any thread.
#ifndef FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H
#define FETCHRIG_TESTS_SUPPORT_LOG_CAPTURE_H

#include <string>
#include <string_view>
#include <vector>

namespace test {

struct log_message {
  std::string module;  // "HTTP", "FTP " and so on
  int level = -1;
  std::string text;  // without prefix and line feed; "(no line feed)" is added when that is missing
};

class log_capture {
 public:
  log_capture();   // callback only, level 7 for every module; empty
  ~log_capture();  // qxfr_log_exit()
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  std::vector<log_message> records() const;
  // The texts alone, in order; of one level when it is given.
  std::vector<std::string> messages(int level = -1) const;
  // Whether a message is exactly this one; `text` without its line feed.
  bool contains(std::string_view module, int level, std::string_view text) const;
  // How many messages have `part` in their text.
  std::size_t count(std::string_view part) const;
  // All lines as one text, for failure messages and for checking what must not appear.
  std::string all() const;
  void clear();
};

}  // namespace test
#endif
