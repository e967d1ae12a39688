// SPDX-License-Identifier: MIT
// options.h: the command's settings for connections and transfers, and how they become the library's options.
// The defaults are the safe ones: the chain and the host name of an HTTPS server are verified against the
// system's CAs and every wait has a limit.
#ifndef FETCHRIG_CLI_OPTIONS_H
#define FETCHRIG_CLI_OPTIONS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ca_bundle.h"
#include "location.h"

namespace CLI {
class App;
}

namespace fetchrig::cli {

// What everything that may open a connection takes.
struct connection_options {
  std::optional<std::string> ca_dir;  // the system's, when neither is given
  std::string ca_file;
  std::string client_cert;
  bool insecure = false;
  bool no_verify_host = false;
  bool ipv6 = false;
  bool classic = false;                    // without the library's extras
  std::optional<std::uint32_t> timeout_s;  // limit of every wait; has a default of its own for TFTP
  std::uint32_t tls_method = 3;
  std::vector<std::string> raw_options;  // "NAME=VALUE"
  int verbosity = 0;
};

// What get and put take besides.
struct transfer_options {
  connection_options connection;
  std::optional<std::string> user;
  std::optional<std::string> password;
  std::optional<std::string> proxy;             // empty: none; not given: that of the environment
  std::vector<std::string> headers;             // "Name: value"
  std::optional<std::uint64_t> max_size_bytes;  // not given: the most there is
  bool ftp_tls = false;
  std::optional<std::uint32_t> tftp_window;
  std::optional<std::uint32_t> tftp_block_size;
  unsigned retries = 0;
  double retry_delay_s = 1;
  bool no_env = false;
  bool json = false;
  bool quiet = false;

  // Nothing is drawn where the log goes, too.
  bool wants_progress() const { return !quiet && connection.verbosity == 0; }
};

void add_connection_options(CLI::App& app, connection_options& options);
void add_transfer_options(CLI::App& app, transfer_options& options);
void add_verbosity(CLI::App& app, int& verbosity);

// Initialise the library and set its options; a value it refuses throws usage_error. What they return, or
// null, is to be kept while connections are made.
[[nodiscard]] std::unique_ptr<ca_bundle> configure(const connection_options& options);
[[nodiscard]] std::unique_ptr<ca_bundle> configure(const transfer_options& options, const location& where);

// Throws usage_error for a proxy that is given that cannot lead to the URL.
void check_proxy(const transfer_options& options, const location& where);
// The proxy for the URL, or empty.
std::string proxy_for(const transfer_options& options, const location& where);

// Sets text option `option` (enum dl_option), refusing what the library would cut.
void set_text_option(std::uint32_t option, const std::string& value);
void set_number_option(std::uint32_t option, std::uint32_t value);
// Takes the pass phrase of private keys from the environment.
void take_key_passphrase();

// What is in force: the library's extras, the limits of sizes, waits and redirects, the directories of trusted CAs.
bool extras_are_on();
bool ipv6_is_allowed();
std::uint64_t size_limit_bytes();
std::uint32_t wait_limit_s();
std::uint32_t redirect_limit();
std::vector<std::string> ca_directories();

// The header lines for the library, each ended by CRLF; throws usage_error for one that is no header line.
std::string header_block(const std::vector<std::string>& headers);

}  // namespace fetchrig::cli
#endif
