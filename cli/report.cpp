// report.cpp: keeping the telling lines of the library's log and wording failures.
#include "report.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <deque>
#include <optional>

#include "cause.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t max_errors_kept = 4;
constexpr std::size_t max_remarks_kept = 16;

struct recorded_log {
  int shown_level = DL_LOG_WARNING;  // lines up to this level go to standard error
  std::deque<std::string> errors;
  std::vector<std::string> remarks;
  // Counted before anything can run out of memory: a remark that could not be kept still counts.
  std::size_t remarks_seen = 0;
  std::size_t lines_lost = 0;
};

constexpr std::string_view remark_mark = "verify cb error ";

// Written by the log callback, which runs on the command's only thread.
recorded_log recorded;

struct log_line {
  std::string_view module;
  int level;
  std::string_view message;
};

// "QXFR[42]: HTTP<3+error > text\n": the module name has 4 characters, the level's tag 10, then a blank.
std::optional<log_line> parse_log_line(std::string_view line) {
  constexpr std::size_t module_len = 4, prefix_len = 15;
  const std::size_t start = line.find("]: ");
  if (start == line.npos) return std::nullopt;
  line.remove_prefix(start + 3);
  if (line.size() < prefix_len || line[module_len] != '<') return std::nullopt;
  const int level = line[module_len + 1] - '0';
  std::string_view message = line.substr(prefix_len);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.remove_suffix(1);
  return log_line{line.substr(0, module_len), level, message};
}

// What OpenSSL's number for a chain that does not verify means.
std::string chain_words(std::string_view message) {
  constexpr std::string_view verdict = "Certificate doesn't verify and error is ";
  if (!message.starts_with(verdict)) return "";
  int number = 0;
  message.remove_prefix(verdict.size());
  std::from_chars(message.data(), message.data() + message.size(), number);
  const char* reason = chain_reason(number);
  return reason ? std::string(" (") + reason + ")" : "";
}

void record(const log_line& line) {
  if (line.level <= DL_LOG_ERROR) {
    recorded.errors.emplace_back(printable(line.message) + chain_words(line.message));
    if (recorded.errors.size() > max_errors_kept) recorded.errors.pop_front();
  }
  if (line.message.starts_with(remark_mark) && recorded.remarks.size() < max_remarks_kept) {
    const std::size_t words = line.message.find("lookup:");
    recorded.remarks.emplace_back(
        printable(words == line.message.npos ? line.message : line.message.substr(words + 7)));
  }
}

void show(const log_line& line, bool tells_cause) {
  const bool chatty = recorded.shown_level > DL_LOG_WARNING;
  // An error or a cause ends up in the failure that is told at the end; it is repeated only among the lines
  // around it.
  if (line.level > recorded.shown_level || (!chatty && (line.level != DL_LOG_WARNING || tells_cause))) return;
  const std::string text = printable(line.message);
  if (!chatty) {
    tell("warning: " + text);
    return;
  }
  const std::string_view module = line.module.substr(0, line.module.find(' '));  // "FTP " is padded
  fprintf(stderr, "%.*s: %s\n", static_cast<int>(module.size()), module.data(), text.c_str());
}

int log_callback(const char* text, int32_t length) {
  if (!text || length <= 0) return 0;
  const auto line = parse_log_line({text, static_cast<std::size_t>(length)});
  if (!line || line->module == "DANY") return 0;  // the log module about itself
  if (line->message.starts_with(remark_mark)) ++recorded.remarks_seen;
  try {
    record(*line);
    show(*line, learn_cause(line->message));
  } catch (const std::bad_alloc&) {
    // It must not throw through the library, which is plain C to its callers.
    ++recorded.lines_lost;
  }
  return 0;
}

std::string with_cause(std::string message) {
  const std::string cause = logged_errors();
  return cause.empty() ? message : message + ": " + cause;
}

}  // namespace

void start_log(int verbosity) {
  constexpr int levels[] = {DL_LOG_WARNING, DL_LOG_NOTICE, DL_LOG_INFO, DL_LOG_DEBUG};
  recorded.shown_level = levels[std::clamp(verbosity, 0, 3)];
  dl_config_init();
  dl_log_init(0, log_callback);
  // Notices carry causes of failures, which are wanted whatever is shown.
  dl_set_log_module_level(DL_LOG_ANY,
                          static_cast<uint32_t>(std::max<int>(recorded.shown_level, DL_LOG_NOTICE)));
}

void forget_log() {
  recorded.errors.clear();
  recorded.remarks.clear();
  recorded.remarks_seen = recorded.lines_lost = 0;
}

std::string logged_errors() {
  std::string all;
  for (const std::string& line : recorded.errors) {
    if (!all.empty()) all += "; ";
    all += line;
  }
  return all;
}

const std::vector<std::string>& verification_remarks() {
  return recorded.remarks;
}

bool verification_was_clean() {
  return recorded.remarks_seen == 0 && recorded.lines_lost == 0;
}

failure failed_operation(std::string_view subject, int code, std::string_view words) {
  std::string message = printable(subject) + ": " + std::string(words);
  if (code != 0) message += " (code " + std::to_string(code) + ")";
  return failure(code, with_cause(message));
}

void tell(std::string_view line) {
  fprintf(stderr, "fetchrig: %.*s\n", static_cast<int>(line.size()), line.data());
}

}  // namespace fetchrig::cli
