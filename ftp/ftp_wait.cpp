// ftp_wait.cpp: waiting for a connection.
#include "ftp/ftp_wait.h"

#include <errno.h>

#include "include/fetchrig.h"
#include "log/log.h"
#include "net/connect.h"

namespace fetchrig {

bool ftp_wait(int sock, int mode, int timeout_s) {
  const int ready = dl_select(sock, mode, timeout_s);
  if (ready > 0) return true;
  // A time-out sets no errno; what an earlier call left there would name a cause that there was not.
  const int error = ready < 0 ? errno : 0;
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "dl_select error! errno %d\n", error);
  return false;
}

}  // namespace fetchrig
