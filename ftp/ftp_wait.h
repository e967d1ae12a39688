// SPDX-License-Identifier: MIT
// ftp_wait.h: what is logged when a wait for one of a session's connections fails. Any thread.
#ifndef FETCHRIG_FTP_FTP_WAIT_H
#define FETCHRIG_FTP_FTP_WAIT_H

namespace fetchrig {

// Logs that a wait failed, and notes it as the cause: with its errno, or 0 when the time was over.
void ftp_log_failed_wait(int error);

}  // namespace fetchrig
#endif
