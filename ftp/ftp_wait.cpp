// SPDX-License-Identifier: MIT
// ftp_wait.cpp: the log line of a failed wait.
#include "ftp/ftp_wait.h"

#include "core/cause.h"
#include "log/log.h"

namespace fetchrig {

void ftp_log_failed_wait(int error) {
  note_symptom(DL_CAUSE_WAIT, error);
  log_line(DL_LOG_FTP, DL_LOG_ERROR, "dl_select error! errno %d\n", error);
}

}  // namespace fetchrig
