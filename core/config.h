// config.h: reading the configuration. Every function copies what it returns under the configuration lock and
// has released the lock when it returns, so no lock is ever held across I/O. Any thread.
#ifndef FETCHRIG_CORE_CONFIG_H
#define FETCHRIG_CORE_CONFIG_H

#include <array>

#include "include/fetchrig_types.h"

namespace fetchrig {

inline constexpr const char* library_version = "5.3.0.4";

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

// 1 after initialisation; read without the lock, as initialisation precedes all other use.
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

// The limit of dl_set_tls_wait_limit(), seconds; 0: none.
[[nodiscard]] unsigned tls_wait_limit_seconds();

}  // namespace fetchrig
#endif
