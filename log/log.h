// SPDX-License-Identifier: MIT
// log.h: what the library logs with, and the settings behind the exported log calls. A message passes when its
// level is at most its module's level; the line is cut to 382 characters. The codes, modules, levels and records
// that every layer speaks of come with it. Not for text from outside as a format. Takes no lock; any thread.
#ifndef FETCHRIG_LOG_LOG_H
#define FETCHRIG_LOG_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "include/fetchrig_types.h"

namespace fetchrig {

// What the library calls itself in the system log.
inline constexpr const char* log_identity = "QXFR";

// Writes one message to the outputs.
void log_line(int module, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
void vlog_line(int module, int level, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// The same at error level; returns `code`, so that a failure is told and left in one statement.
int log_and_return(int module, int code, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Selects the outputs (enum dl_log_flags) and the callback, and sets every level to 4. The system log gets the
// identity's first 4 characters, padded with spaces; null stands for "slog".
void log_init(const char* identity, uint32_t flags, dl_log_callback callback);

// Back to the console alone, every level at 4; the identity stays.
void log_exit();

// Sets the level of one module, or of all for module 0. Returns 0 for module 0, the previous level for 1 to 6, and
// -1, with nothing changed, for a larger number.
int log_set_level(uint32_t module, int level);

// The same for a module's name in any letter case; -22 when no module has it.
int log_set_level(const char* name, int level);

// The module's level, or -1 for a number above 6.
[[nodiscard]] int log_level(uint32_t module);

// The module's name, a constant, or null for a number above 6.
[[nodiscard]] const char* log_module_name(uint32_t module);

}  // namespace fetchrig
#endif
