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

enum exit_status { exit_done = 0, exit_failed = 1, exit_usage = 2 };

// A wrong command line: ends the command with exit_usage.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation that failed: ends the command with exit_failed.
// The code is the library's, 0 when there is none.
class failure : public std::runtime_error {
 public:
  failure(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

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
