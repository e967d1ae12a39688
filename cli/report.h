// SPDX-License-Identifier: MIT
// report.h: what the command tells a person: the library's log as it passes by, and failures in words with
// their code. Not for results, which go to standard output. One thread only, as the whole command.
#ifndef FETCHRIG_CLI_REPORT_H
#define FETCHRIG_CLI_REPORT_H

#include <stdexcept>
#include <string>
#include <string_view>

#include "fetchrig.h"
#include "printable.h"

namespace fetchrig::cli {

// How the command ends. From 3 on the classes of failed transfers: whoever runs the command may rely on them.
enum exit_status {
  exit_done = 0,
  exit_failed = 1,  // what has no class of its own, certificate operations among it
  exit_usage = 2,
  exit_unreachable = 3,  // the host is not found or takes no connection
  exit_timeout = 4,
  exit_tls = 5,
  exit_login = 6,
  exit_refused = 7,  // the server answered that it does not
  exit_too_large = 8,
  exit_local_file = 9,
  exit_protocol = 10,  // an answer that makes no sense, or that was cut
  exit_digest = 11,
};

// Whether the same transfer may go well a little later.
enum class outlook { stays, may_pass };

// A wrong command line: ends the command with exit_usage.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation that failed. The code is the library's, 0 when there is none.
class failure : public std::runtime_error {
 public:
  failure(int code, const std::string& message, exit_status status = exit_failed,
          outlook later = outlook::stays)
      : std::runtime_error(message), code_(code), status_(status), later_(later) {}
  int code() const { return code_; }
  exit_status status() const { return status_; }
  bool may_pass() const { return later_ == outlook::may_pass; }

 private:
  int code_;
  exit_status status_;
  outlook later_;
};

// A local file that cannot be read or written.
failure failed_file(const std::string& message);

// Initialises the library and sends its log here, away from the system log. `verbosity` 1, 2 and 3 show
// notices, progress and debug lines on standard error; warnings are shown always.
void start_log(int verbosity);

// Forgets what the log said so far; done before each operation whose outcome is to be told.
void forget_log();

// The last few error lines, the cause first, joined by "; "; empty when there was none.
std::string logged_errors();

// " (code N)"; empty without a code.
std::string code_words(int code);

// A failure of an operation on `subject` whose codes are its own, told in `words`, with the logged cause.
failure failed_operation(std::string_view subject, int code, std::string_view words);

// Writes "fetchrig: " and the line to standard error.
void tell(std::string_view line);

}  // namespace fetchrig::cli
#endif
