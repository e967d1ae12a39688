// SPDX-License-Identifier: MIT
// report.cpp: keeping the telling lines of the library's log and wording failures.
#include "report.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <deque>
#include <optional>

#include "cause.h"
#include "terminal_line.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t max_errors_kept = 4;

// Written by start_log() and the log callback, which runs on the command's only thread.
int shown_level = DL_LOG_WARNING;  // lines up to this level go to standard error
std::deque<std::string> recorded_errors;

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

// The meaning of the number that a line on a chain that does not verify ends with.
std::string chain_remark(std::string_view message) {
  dl_cause_info cause = {};
  if (dl_last_cause(&cause) != DL_CAUSE_CHAIN) return "";
  const char* reason = chain_reason(cause.number);
  if (!reason || !message.ends_with(" " + std::to_string(cause.number))) return "";
  return std::string(" (") + reason + ")";
}

// A line for a person: ", errno 13" becomes ": Permission denied".
std::string with_error_words(std::string line) {
  constexpr std::string_view mark = " errno ";
  const std::size_t at = line.rfind(mark);
  if (at == line.npos) return line;
  int error = 0;
  const char* const last = line.c_str() + line.size();
  const char* digits = line.c_str() + at + mark.size();
  const char* end = std::from_chars(digits, last, error).ptr;
  if (error <= 0) return line;
  const std::string rest(end, last);
  line.resize(line.find_last_not_of(",!", at - 1) + 1);
  return line + ": " + strerror(error) + rest;
}

void record(const log_line& line) {
  if (line.level > DL_LOG_ERROR) return;
  recorded_errors.emplace_back(with_error_words(printable(line.message)) + chain_remark(line.message));
  if (recorded_errors.size() > max_errors_kept) recorded_errors.pop_front();
}

// A warning of what the failure will tell: a server's error, a file that is too large.
bool is_told_later() {
  const int cause = dl_last_cause(nullptr);
  return cause == DL_CAUSE_TFTP_ERROR || cause == DL_CAUSE_TOO_LARGE;
}

void show(const log_line& line) {
  const bool chatty = shown_level > DL_LOG_WARNING;
  // An error or a cause ends up in the failure that is told at the end; it is repeated only among the lines around it.
  if (line.level > shown_level || (!chatty && (line.level != DL_LOG_WARNING || is_told_later()))) return;
  const std::string text = printable(line.message);
  if (!chatty) {
    tell("warning: " + text);
    return;
  }
  const std::string_view module = line.module.substr(0, line.module.find(' '));  // "FTP " is padded
  write_line(std::string(module) + ": ", text);
}

int log_callback(const char* text, int32_t length) {
  if (!text || length <= 0) return 0;
  const auto line = parse_log_line({text, static_cast<std::size_t>(length)});
  if (!line || line->module == "DANY") return 0;  // the log module about itself
  try {
    record(*line);
    show(*line);
  } catch (const std::bad_alloc&) {
    // A line lost for lack of memory must not throw through the library, which is plain C to its callers.
  }
  return 0;
}

std::string with_cause(const std::string& message) {
  const std::string cause = logged_errors();
  return cause.empty() ? message : message + ": " + cause;
}

}  // namespace

void start_log(int verbosity) {
  constexpr int levels[] = {DL_LOG_WARNING, DL_LOG_NOTICE, DL_LOG_INFO, DL_LOG_DEBUG};
  shown_level = levels[std::clamp(verbosity, 0, 3)];
  dl_config_init();
  dl_log_init(0, log_callback);
  dl_set_log_module_level(DL_LOG_ANY, static_cast<uint32_t>(shown_level));
}

void forget_log() {
  recorded_errors.clear();
}

std::string logged_errors() {
  std::string all;
  for (const std::string& line : recorded_errors) {
    if (!all.empty()) all += "; ";
    all += line;
  }
  return all;
}

std::string code_words(int code) {
  return code == 0 ? "" : " (code " + std::to_string(code) + ")";
}

failure failed_operation(std::string_view subject, int code, std::string_view words) {
  return failure(code, with_cause(printable(subject) + ": " + std::string(words) + code_words(code)));
}

failure failed_file(const std::string& message) {
  return failure(0, message, exit_local_file);
}

void tell(std::string_view line) {
  write_line("fetchrig: ", line);
}

}  // namespace fetchrig::cli
