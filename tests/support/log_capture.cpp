// log_capture.cpp: collects log lines behind a mutex and takes them apart.
#include "tests/support/log_capture.h"

#include <mutex>

#include "include/fetchrig.h"

namespace test {
namespace {

constexpr std::size_t longest_line = 382;  // longer ones are cut, and lose their line feed

std::mutex lines_lock;           // guards `lines`
std::vector<std::string> lines;  // written by the callback and by clear()

int take_line(const char* line, int32_t length) {
  const std::lock_guard hold(lines_lock);
  lines.emplace_back(line, static_cast<std::size_t>(length));
  return 0;
}

// "QXFR[42]: HTTP<3+error > text\n", perhaps after a syslog prefix.
log_message parsed(const std::string& line) {
  log_message message;
  const std::size_t at = line.find("]: ");
  if (at == std::string::npos || line.size() < at + 18) {
    message.text = line;
    return message;
  }
  message.module = line.substr(at + 3, 4);
  message.level = line[at + 8] - '0';
  message.text = line.substr(at + 18);
  if (!message.text.empty() && message.text.back() == '\n') {
    message.text.pop_back();
  } else if (line.size() < longest_line) {
    message.text += "(no line feed)";
  }
  return message;
}

}  // namespace

log_capture::log_capture() {
  dl_log_init(0, take_line);
  dl_set_log_module_level(DL_LOG_ANY, DL_LOG_DEBUG);
  clear();
}

log_capture::~log_capture() {
  qxfr_log_exit();
}

std::vector<log_message> log_capture::records() const {
  const std::lock_guard hold(lines_lock);
  std::vector<log_message> all;
  for (const std::string& line : lines) all.push_back(parsed(line));
  return all;
}

std::vector<std::string> log_capture::messages() const {
  std::vector<std::string> texts;
  for (log_message& message : records()) texts.push_back(std::move(message.text));
  return texts;
}

std::vector<std::string> log_capture::messages(int level) const {
  std::vector<std::string> texts;
  for (log_message& message : records()) {
    if (message.level == level) texts.push_back(std::move(message.text));
  }
  return texts;
}

bool log_capture::contains(std::string_view module, int level, std::string_view text) const {
  for (const log_message& message : records()) {
    if (message.module == module && message.level == level && message.text == text) return true;
  }
  return false;
}

std::size_t log_capture::count(std::string_view part) const {
  std::size_t found = 0;
  for (const std::string& text : messages()) found += text.find(part) != std::string::npos;
  return found;
}

std::string log_capture::all() const {
  const std::lock_guard hold(lines_lock);
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

void log_capture::clear() {
  const std::lock_guard hold(lines_lock);
  lines.clear();
}

}  // namespace test
