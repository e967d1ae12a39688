// log_capture.cpp: takes log lines apart and collects them behind a mutex.
#include "tests/support/log_capture.h"

#include <algorithm>
#include <mutex>

#include "include/fetchrig.h"

namespace test {
namespace {

constexpr std::size_t longest_line = 382;  // longer ones are cut, and lose their line feed

std::mutex lock;  // guards the two below
std::vector<log_message> kept;
std::string raw;

// "QXFR[42]: HTTP<3+error > text\n".
int take_line(const char* bytes, int32_t length) {
  std::string line(bytes, static_cast<std::size_t>(length));
  const std::lock_guard hold(lock);
  raw += line;
  if (line.ends_with('\n')) {
    line.pop_back();
  } else if (line.size() < longest_line) {
    line += "(no line feed)";
  }
  const std::size_t at = line.find("]: ");
  const bool whole = at != std::string::npos && line.size() >= at + 18;
  if (whole) kept.push_back({line.substr(at + 3, 4), line[at + 8] - '0', line.substr(at + 18)});
  if (!whole) kept.push_back({"", -1, line});
  return 0;
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
  const std::lock_guard hold(lock);
  return kept;
}

std::vector<std::string> log_capture::messages(int level) const {
  std::vector<std::string> texts;
  for (const log_message& message : records()) {
    if (level < 0 || message.level == level) texts.push_back(message.text);
  }
  return texts;
}

bool log_capture::contains(std::string_view module, int level, std::string_view text) const {
  return std::ranges::any_of(records(), [&](const log_message& message) {
    return message.module == module && message.level == level && message.text == text;
  });
}

std::size_t log_capture::count(std::string_view part) const {
  return static_cast<std::size_t>(std::ranges::count_if(
      records(), [&](const log_message& message) { return message.text.find(part) != std::string::npos; }));
}

std::string log_capture::all() const {
  const std::lock_guard hold(lock);
  return raw;
}

void log_capture::clear() {
  const std::lock_guard hold(lock);
  kept.clear();
  raw.clear();
}

}  // namespace test
