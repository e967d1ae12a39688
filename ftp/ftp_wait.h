// ftp_wait.h: the one way in which this client waits for one of a session's connections. One thread at a time
// per session.
#ifndef FETCHRIG_FTP_FTP_WAIT_H
#define FETCHRIG_FTP_FTP_WAIT_H

namespace fetchrig {

// Logs that a wait failed: with its errno, or 0 when the time was over.
void ftp_log_failed_wait(int error);

// Waits until `sock` is ready in `mode` (net/connect.h). Returns false after the time-out (logged with errno
// 0) or a failure (logged with its errno).
[[nodiscard]] bool ftp_wait(int sock, int mode, int timeout_s);

}  // namespace fetchrig
#endif
