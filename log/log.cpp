// SPDX-License-Identifier: MIT
// log.cpp: every message of the library goes through vlog_line(), which filters by module, builds one line of at most
// 382 characters in a fixed buffer and hands it to the outputs. Takes no lock but one around the date; the settings are
// relaxed atomics, so a message logged while a setting changes sees the old or the new value. No call is a point of
// cancellation, or a thread that is cancelled while it writes would keep its share of the socket.
#include "log/log.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include "log/cancel_hold.h"
#include "log/clock.h"
#include "log/syslog_socket.h"

namespace fetchrig {

std::atomic<int> syslog_pause_ms{5000};

namespace {

constexpr uint32_t num_modules = 7;
constexpr int default_level = 4;
constexpr int facility_local0 = 128;

constexpr std::array<const char*, num_modules> module_names = {"DANY", "DMEM", "DCMN", "HTTP",
                                                               "TFTP", "FTP ", "DLNC"};
constexpr std::array<const char*, 10> level_tags = {"<0+emerg >", "<1+alert >", "<2+crit  >", "<3+error >",
                                                    "<4+warnin>", "<5+notice>", "<6+info  >", "<7+debug >",
                                                    "<8+apykky>", "<9+anydbg>"};

using identity_text = std::array<char, 4>;

// The identity as one number, so that it changes in one store.
constexpr uint32_t packed(identity_text text) {
  return std::bit_cast<uint32_t>(text);
}

struct log_state {
  std::atomic<uint32_t> identity{packed({'s', 'l', 'o', 'g'})};
  syslog_socket socket;
  std::atomic<uint32_t> lost{0};           // lines that a blocked system log did not take, not told yet
  std::atomic<int64_t> quiet_until_ms{0};  // with lost lines: when it is tried again
  std::array<std::atomic<int>, num_modules> levels = {default_level, 0, 0, 0, 0, 0, 0};
  std::atomic<bool> to_syslog{false};
  std::atomic<bool> to_console{true};
  std::atomic<bool> with_time{false};
  std::atomic<dl_log_callback> callback{nullptr};
};

// Written by the setting calls, read by every logging thread.
log_state state;

template <typename T>
T get(const std::atomic<T>& field) {
  return field.load(std::memory_order_relaxed);
}
template <typename T>
void set(std::atomic<T>& field, T value) {
  field.store(value, std::memory_order_relaxed);
}

void set_all_levels(int level) {
  for (auto& field : state.levels) set(field, level);
}

// One line under construction; what does not fit is dropped and the terminator always stays.
class line_buffer {
 public:
  void vformat(const char* format, va_list arguments) __attribute__((format(printf, 2, 0))) {
    const std::size_t room = sizeof text_ - length_;
    const int wanted = vsnprintf(text_ + length_, room, format, arguments);
    if (wanted > 0) length_ += std::min(static_cast<std::size_t>(wanted), room - 1);
  }
  void format(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    vformat(format, arguments);
    va_end(arguments);
  }
  const char* text() const { return text_; }
  std::size_t length() const { return length_; }

 private:
  char text_[383] = {};
  std::size_t length_ = 0;
};

// libc takes a lock of its own to tell the date, which fork() does not reset in the child: no thread may hold it then.
pthread_mutex_t date_lock = PTHREAD_MUTEX_INITIALIZER;

void add_syslog_prefix(line_buffer& line, int level) {
  const time_t now = time(nullptr);
  char date[64] = {};
  pthread_mutex_lock(&date_lock);
  if (!ctime_r(&now, date)) date[0] = '\0';
  pthread_mutex_unlock(&date_lock);
  line.format("<%d>%.15s ", level + facility_local0, strlen(date) > 19 ? date + 4 : "");
}

void add_time_stamp(line_buffer& line) {
  const timeval now = time_of_day();
  const auto micros = static_cast<int>(now.tv_usec);
  line.format("%03d.%03d.%03d:", static_cast<int>(now.tv_sec % 1000), micros / 1000, micros % 1000);
}

// Everything before the message. Returns where the console's part begins.
std::size_t start_line(line_buffer& line, std::size_t module, int level) {
  if (get(state.to_syslog)) add_syslog_prefix(line, level);
  const auto identity = std::bit_cast<identity_text>(get(state.identity));
  line.format("%.4s[%d]: ", identity.data(), static_cast<int>(::getpid()));
  const std::size_t console_from = line.length();
  line.format("%s%s ", module_names[module], level_tags[static_cast<std::size_t>(level)]);
  if (get(state.with_time)) add_time_stamp(line);
  return console_from;
}

log_write put_to_syslog(const line_buffer& line, bool may_wait) {
  log_write outcome = log_write::foreign;
  for (int attempts = 0; attempts < 2 && outcome == log_write::foreign; ++attempts) {
    if (get(state.to_syslog)) state.socket.open();
    outcome = state.socket.write(line.text(), line.length(), may_wait);
  }
  if (outcome == log_write::blocked) set(state.quiet_until_ms, now_ms() + get(syslog_pause_ms));
  return outcome;
}

bool tell_lost(uint32_t lost) {
  line_buffer line;
  start_line(line, DL_LOG_ANY, DL_LOG_WARNING);
  line.format("%u lines lost, the system log was blocked\n", static_cast<unsigned>(lost));
  return put_to_syslog(line, false) == log_write::sent;
}

// A system log that nobody reads costs its callers one wait: the lines of the next seconds are dropped, then
// it is tried without waiting, until it takes the number of what was lost.
void emit_to_syslog(const line_buffer& line) {
  if (get(state.lost) > 0 && now_ms() < get(state.quiet_until_ms)) {
    state.lost.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const uint32_t lost = state.lost.exchange(0, std::memory_order_relaxed);
  const bool told = lost == 0 || tell_lost(lost);
  const bool blocked = told && put_to_syslog(line, lost == 0) == log_write::blocked;
  if (!told) state.lost.fetch_add(lost, std::memory_order_relaxed);
  if (!told || blocked) state.lost.fetch_add(1, std::memory_order_relaxed);
}

void emit(const line_buffer& line, std::size_t console_from) {
  if (get(state.to_syslog) || state.socket.is_open()) emit_to_syslog(line);
  if (get(state.to_console)) {
    fwrite(line.text() + console_from, 1, line.length() - console_from, stdout);
    fflush(stdout);
  }
  if (const dl_log_callback callback = get(state.callback)) {
    callback(line.text(), static_cast<int32_t>(line.length()));
  }
}

// The first characters of a name, lower-cased, up to a space; the rest empty.
std::array<char, 5> name_key(const char* name) {
  std::array<char, 5> key = {};
  for (std::size_t i = 0; i < key.size() && name[i] != '\0' && name[i] != ' '; ++i) {
    key[i] = name[i] >= 'A' && name[i] <= 'Z' ? static_cast<char>(name[i] - 'A' + 'a') : name[i];
  }
  return key;
}

void log_open_syslog(const char* identity) {
  const char* from = identity ? identity : "slog";
  identity_text text = {' ', ' ', ' ', ' '};
  for (std::size_t i = 0; i < text.size() && from[i] != '\0'; ++i) text[i] = from[i];
  set(state.identity, packed(text));
  state.socket.open();
}

void before_fork() {
  pthread_mutex_lock(&date_lock);
}
void after_fork() {
  pthread_mutex_unlock(&date_lock);
}
void after_fork_in_child() {
  after_fork();
  state.socket.forget_writers();
}
__attribute__((constructor)) void on_load() {
  pthread_atfork(before_fork, after_fork, after_fork_in_child);
}
// At the end of the process, or when the library is unloaded from it.
__attribute__((destructor)) void on_unload() {
  state.socket.close();
}

}  // namespace

void vlog_line(int module, int level, const char* format, va_list arguments) {
  const auto index = static_cast<uint32_t>(module);
  if (index >= num_modules || level > get(state.levels[index])) return;
  if (level < 0 || static_cast<std::size_t>(level) >= level_tags.size() || !format) return;
  const cancel_hold hold;
  line_buffer line;
  const std::size_t console_from = start_line(line, index, level);
  line.vformat(format, arguments);
  emit(line, console_from);
}

void log_line(int module, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vlog_line(module, level, format, arguments);
  va_end(arguments);
}

int log_and_return(int module, int code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vlog_line(module, DL_LOG_ERROR, format, arguments);
  va_end(arguments);
  return code;
}

void log_init(const char* identity, uint32_t flags, dl_log_callback callback) {
  const cancel_hold hold;
  set_all_levels(default_level);
  state.socket.close();
  const bool to_syslog = flags & DL_LOG_TO_SYSLOG;
  const bool to_console = flags & DL_LOG_TO_CONSOLE;
  const bool with_time = flags & DL_LOG_WITH_TIME;
  set(state.to_syslog, to_syslog);
  set(state.to_console, to_console);
  set(state.with_time, with_time);
  set(state.callback, callback);
  if (to_syslog) log_open_syslog(identity);
  log_line(DL_LOG_ANY, DL_LOG_EMERG, "%s log :sys=%d,cons=%d,time=%d,E=%d,W=%d,N=%d,I=%d,D=%d\n",
           identity ? identity : "slog", to_syslog, to_console, with_time, DL_LOG_ERROR, DL_LOG_WARNING,
           DL_LOG_NOTICE, DL_LOG_INFO, DL_LOG_DEBUG);
}

void log_exit() {
  const cancel_hold hold;
  set_all_levels(default_level);
  state.socket.close();
  set(state.to_console, true);
  set(state.to_syslog, false);
  set(state.with_time, false);
  set(state.callback, static_cast<dl_log_callback>(nullptr));
}

int log_set_level(uint32_t module, int level) {
  if (module >= num_modules) return -1;
  log_line(DL_LOG_ANY, DL_LOG_EMERG, "%s=%d\n", module_names[module], level);
  if (module != DL_LOG_ANY) return state.levels[module].exchange(level, std::memory_order_relaxed);
  set_all_levels(level);
  return 0;
}

int log_set_level(const char* name, int level) {
  constexpr int no_such_module = -22;
  if (!name) return no_such_module;
  const auto key = name_key(name);
  for (uint32_t module = 0; module < num_modules; ++module) {
    if (name_key(module_names[module]) == key) return log_set_level(module, level);
  }
  return no_such_module;
}

int log_level(uint32_t module) {
  return module < num_modules ? get(state.levels[module]) : -1;
}

const char* log_module_name(uint32_t module) {
  return module < num_modules ? module_names[module] : nullptr;
}

}  // namespace fetchrig
