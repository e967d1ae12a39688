// SPDX-License-Identifier: MIT
// dispatch.h: downloads over whatever protocol the URL names. The failures of the protocols' clients come back with
// code and text in the result record; those of the dispatcher are logged. One thread at a time per handle.
#ifndef FETCHRIG_CORE_DISPATCH_H
#define FETCHRIG_CORE_DISPATCH_H

#include <stdint.h>

#include "include/fetchrig_types.h"

namespace fetchrig {

// Opens the request's URL for reading. Stores a new handle and returns 0, or returns -1.
[[nodiscard]] int open_transfer(dl_handle*& handle, const dl_request& request, char* redirect,
                                dl_result& result);

// Reads up to `size` bytes. Returns the count, 0 at the end, or -1.
[[nodiscard]] int read_transfer(const dl_handle& handle, char* buffer, int32_t size, dl_result& result);

// Closes the session and releases the handle.
void close_transfer(dl_handle* handle);

// Downloads the request's URL into the file. Returns 0 or -1.
[[nodiscard]] int download(const dl_request& request, const char* local_path, char* redirect,
                           dl_result& result);

}  // namespace fetchrig
#endif
