// upload_file.cpp: the local file of an upload.
#include "core/upload_file.h"

#include <errno.h>
#include <sys/stat.h>

#include "core/cause.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {

bool is_upload_file(int module, const char* path) {
  struct stat status = {};
  if (stat(path, &status) != 0 || S_ISREG(status.st_mode)) return true;
  log_unreadable(module, path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  return false;
}

void log_unreadable(int module, const char* path, int error) {
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(module, DL_LOG_ERROR, "Can't read %s, errno %d\n", printable(path).c_str(), error);
}

}  // namespace fetchrig
