// SPDX-License-Identifier: MIT
// upload_file.h: what is asked of the local file of an upload. Only a regular file is sent: a directory cannot be read,
// and a device, pipe or socket has neither a size nor a sure end, and may block whoever opens it. Any thread.
#ifndef FETCHRIG_CORE_UPLOAD_FILE_H
#define FETCHRIG_CORE_UPLOAD_FILE_H

namespace fetchrig {

// False, logged for `module` as unreadable, when the path leads to something that is no regular file. True
// also where nothing is: opening it tells.
[[nodiscard]] bool is_upload_file(int module, const char* path);

// Logs that the file could not be read to its end, and notes it as the cause.
void log_unreadable(int module, const char* path, int error);

}  // namespace fetchrig
#endif
