// cause.h: why a transfer failed, in words for a person. The library's codes say in which step a transfer
// failed; its log lines say the rest: what the network, OpenSSL or the peer answered. One thread.
#ifndef FETCHRIG_CLI_CAUSE_H
#define FETCHRIG_CLI_CAUSE_H

#include <string>
#include <string_view>

#include "credentials.h"
#include "fetchrig.h"
#include "location.h"
#include "report.h"

namespace fetchrig::cli {

// Learns from a line of the library's log, as it passes by. Returns whether it tells a cause.
bool learn_cause(std::string_view message);

// OpenSSL's number for a chain that does not verify in words; null for the rarer ones.
const char* chain_reason(int number);

// True when the log told that a remote file has more bytes than the library can count.
bool is_beyond_counting();
// True when the last HTTP answer ended inside its header, which is known of a closed session in no other way.
bool answer_was_cut();

// What the log told of trouble on the connection, empty when nothing. An alert that ends TLS in mid-body
// reads like the body's end.
const std::string& connection_trouble();

// The failure of a library call that moves `where`.
failure failed_transfer(const location& where, const credentials& login, const dl_result& result);

}  // namespace fetchrig::cli
#endif
