// SPDX-License-Identifier: MIT
// result.h: filling the caller's result record. The codes and their texts are in one table in result.cpp. Any thread.
#ifndef FETCHRIG_CORE_RESULT_H
#define FETCHRIG_CORE_RESULT_H

#include "include/fetchrig_types.h"

namespace fetchrig {

// The text of `code`, a constant; "Unknown Error" for codes without one.
[[nodiscard]] const char* error_text(int code);

// Clears all 260 bytes.
void clear_result(dl_result& result);

// Stores the code and its text and returns -1. A null record is allowed.
int fail(dl_result* result, int code);

// Stores the code alone, the message stays as it is, and returns -1. A null record is allowed.
int fail_with_code(dl_result* result, int code);

// Stores the code and a text of its own (cut to `max_len` characters, 255 at most) and returns -1.
int fail_with_text(dl_result* result, int code, const char* text, unsigned max_len = 255);

// The size-limit failure: -8 and "exceed max size %d", a limit of option 6 being a signed number there. Returns -1.
int fail_exceeded(dl_result* result, uint64_t max_file_size);

}  // namespace fetchrig
#endif
