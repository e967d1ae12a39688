// SPDX-License-Identifier: MIT
// exports.cpp: the exported log calls.
#include <array>

#include "include/fetchrig.h"
#include "log/log.h"

using namespace fetchrig;

int qxfr_vlog(int module, int level, const char* format, va_list arguments) {
  vlog_line(module, level, format, arguments);
  return 0;
}

int qxfr_log(int module, int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vlog_line(module, level, format, arguments);
  va_end(arguments);
  return 0;
}

int qxfr_log_init(const char* identity, uint32_t flags, dl_log_callback callback) {
  log_init(identity, flags, callback);
  return 0;
}

int qxfr_log_exit(void) {
  log_exit();
  return 0;
}

int qxfr_log_set(uint32_t module, int level) {
  return log_set_level(module, level);
}

int qxfr_log_set2(const char* name, int level) {
  return log_set_level(name, level);
}

int qxfr_log_get(uint32_t module) {
  return log_level(module);
}

const char* qxfr_log_name(uint32_t module) {
  return log_module_name(module);
}

int dl_log_init(uint32_t flags, dl_log_callback callback) {
  log_init(log_identity, flags, callback);
  return 0;
}

int dl_set_log_level(uint32_t verbosity) {
  constexpr std::array<int, 4> levels = {DL_LOG_DEBUG, DL_LOG_INFO, DL_LOG_WARNING, DL_LOG_ERROR};
  const int level = verbosity < levels.size() ? levels[verbosity] : int{DL_LOG_NOTICE};
  for (uint32_t module = DL_LOG_ANY; module <= DL_LOG_LNC; ++module) log_set_level(module, level);
  return level;
}

int dl_set_log_module_level(uint32_t module, uint32_t level) {
  return log_set_level(module, static_cast<int>(level));
}

void dl_set_log_callback(dl_log_callback) {}
void dl_set_log_cb_printf(dl_log_callback) {}
