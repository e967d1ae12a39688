// ftp_wait.cpp: waiting for a connection.
#include "ftp/ftp_wait.h"

#include <errno.h>

#include "include/fetchrig.h"
#include "log/log.h"
#include "net/socket.h"

namespace fetchrig {

void ftp_log_failed_wait(int error) {
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "dl_select error! errno %d\n", error);
}

bool ftp_wait(int sock, int mode, int timeout_s) {
  const int ready = wait_ready(sock, mode, timeout_s);
  if (ready > 0) return true;
  // A time-out sets no errno; what an earlier call left there would name a cause that there was not.
  ftp_log_failed_wait(ready < 0 ? errno : 0);
  return false;
}

}  // namespace fetchrig
