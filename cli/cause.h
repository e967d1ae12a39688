// SPDX-License-Identifier: MIT
// cause.h: why a transfer failed, in words for a person. The library's codes say in which step a transfer failed,
// its last cause the rest: what the network, OpenSSL or the peer answered. One thread.
#ifndef FETCHRIG_CLI_CAUSE_H
#define FETCHRIG_CLI_CAUSE_H

#include <optional>
#include <string>

#include "credentials.h"
#include "fetchrig.h"
#include "location.h"
#include "report.h"

namespace fetchrig::cli {

// OpenSSL's number for a chain that does not verify in words; null for the rarer ones.
const char* chain_reason(int number);

// What is known of a failure.
struct verdict {
  std::string words;
  exit_status status = exit_failed;
  outlook later = outlook::stays;
};

// What went wrong on the connection, if anything. An alert that ends TLS in mid-body reads like the body's end.
std::optional<verdict> connection_trouble();

// The reply of an FTP server that a failed call of FTP tells of; 0 when it tells of none.
int ftp_reply_number(const dl_result& result);

// The failure of a library call that moves `where`.
failure failed_transfer(const location& where, const credentials& login, const dl_result& result);

}  // namespace fetchrig::cli
#endif
