// SPDX-License-Identifier: MIT
// transfer.h: what get and put share: one transfer with its login and its repetitions, and how its outcome is told, to
// a person or as one JSON object on a line of standard output. One thread.
#ifndef FETCHRIG_CLI_TRANSFER_H
#define FETCHRIG_CLI_TRANSFER_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "credentials.h"
#include "location.h"
#include "options.h"

namespace fetchrig::cli {

// What a server told, as far as it came.
struct server_facts {
  int status = 0;         // of HTTP; 0: none came
  std::string final_url;  // after redirects; empty: there was none
  std::vector<std::string> headers;
  std::optional<std::int64_t> modified_s;  // since 1970: when the file was last changed
};

struct outcome {
  std::string file;  // the local one; "-" for the standard streams
  std::uint64_t bytes = 0;
  bool skipped = false;    // a file that was there is left as it is
  bool repeatable = true;  // false: what may have been done already would be done twice
  std::string summary;     // for a person, after a success
  server_facts server;
};

// One try; throws failure.
using attempt = std::function<void(const location& where, const credentials& login, outcome& told)>;

// Sets the library's options for `where`, tries until it is done or must be given up, and tells the outcome. Returns
// the exit status.
int run_transfer(const location& where, const transfer_options& options, outcome& told,
                 const attempt& attempt_once);

}  // namespace fetchrig::cli
#endif
