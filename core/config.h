// SPDX-License-Identifier: MIT
// config.h: the configuration: its start and end, setting options and reading them. The record itself, g_dl_cfg,
// belongs to config.cpp, and its lock to process_lock.cpp too; all others use these functions. Every function that
// reads copies what it returns under the configuration lock and has released the lock when it returns, so no lock is
// ever held across I/O. Any thread, once the library is initialised.
#ifndef FETCHRIG_CORE_CONFIG_H
#define FETCHRIG_CORE_CONFIG_H

#include <array>
#include <span>

#include "core/process_lock.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// The configuration lock, held for a few stores and loads. After initialisation only.
class config_lock : mutex_hold {
 public:
  config_lock();
};

inline constexpr const char* library_version = FETCHRIG_VERSION;

// A copied text option, always terminated.
using option_text = std::array<char, 512>;

// The settings of one HTTPS connection.
struct tls_options {
  option_text cert_file;
  option_text ca_dir;
  int method;
  int verify_peer;
  int verify_host;
};

// The settings that an FTP or TFTP transfer begins with.
struct net_options {
  uint32_t max_file_size;
  int net_timeout_s;
  int ipv6;
};

// Starts the log, sets the defaults and prepares OpenSSL, unless that has been done; tells the log the version.
void config_init();
// Undoes it, but for the log; every option is lost. Harmless without initialisation.
void config_exit();

// Sets an option from a value of its own form (enum dl_option), which is not null; initialises first when needed.
// Returns 0, or -1 for an unknown option or a number out of range.
[[nodiscard]] int32_t store_option(uint32_t option, const void* value);
// Copies text option 1, 13 or 14 as strncpy() would. Returns 0, or -1 for another option or before initialisation.
[[nodiscard]] int32_t read_option(uint32_t option, std::span<char> buffer);

// True after initialisation; read without the lock, as initialisation precedes all other use.
[[nodiscard]] bool config_initialised();

[[nodiscard]] int net_timeout_seconds();       // option 7
[[nodiscard]] int ipv6_enabled();              // option 8: 0 or 1
[[nodiscard]] uint32_t max_file_size();        // option 6, bytes
[[nodiscard]] uint32_t max_redirects();        // option 5
[[nodiscard]] uint32_t auth_retry_limit();     // option 15
[[nodiscard]] int ssl_method();                // option 3
[[nodiscard]] tls_options https_options();     // options 12, 11, 3, 4, 10
[[nodiscard]] net_options net_settings();      // options 6, 7, 8, as of one moment
[[nodiscard]] option_text user_agent();        // option 0
[[nodiscard]] option_text trust_ca_dir();      // option 1
[[nodiscard]] option_text device_cert_file();  // option 2
[[nodiscard]] option_text key_passphrase();    // option 16; wipe the copy after use
[[nodiscard]] option_text key_seed();          // option 25; wipe the copy after use

// The number of the first ring entry (slot order) whose name equals `name` in any letter case, or -1.
[[nodiscard]] int ring_number_of(const char* name);

// How long TLS may wait without progress; 0: no limit. Not an option: it outlives config_exit().
[[nodiscard]] unsigned tls_wait_limit_seconds();
void set_tls_wait_limit(unsigned seconds);

}  // namespace fetchrig
#endif
