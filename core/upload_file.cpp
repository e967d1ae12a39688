// SPDX-License-Identifier: MIT
// upload_file.cpp: the local file of an upload.
#include "core/upload_file.h"

#include <sys/stat.h>

#include "core/cause.h"
#include "core/files.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {

bool is_upload_file(int module, const char* path) {
  struct stat status = {};
  const int error = ::stat(path, &status) == 0 ? why_not_regular(status) : 0;
  if (error != 0) log_unreadable(module, path, error);
  return error == 0;
}

void log_unreadable(int module, const char* path, int error) {
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(module, DL_LOG_ERROR, "Can't read %s, errno %d\n", printable(path).c_str(), error);
}

}  // namespace fetchrig
