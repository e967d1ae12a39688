// SPDX-License-Identifier: MIT
// config.cpp: the process-wide configuration record and its options, library start-up and tear-down.
#include "core/config.h"

#include <openssl/crypto.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <span>

#include "core/extras.h"
#include "core/openssl_start.h"
#include "core/text.h"
#include "log/log.h"

// Written by config_init(), config_exit() and, under its lock, store_option().
dl_config g_dl_cfg;

namespace fetchrig {
namespace {

// Written by set_tls_wait_limit(), read when a TLS connection is made.
std::atomic<unsigned> tls_wait_limit{0};

template <typename T>
T locked_copy(const T& field) {
  const config_lock lock;
  return field;
}

// A terminated copy of a text field, which the record holds terminated.
option_text locked_text(const char (&field)[512]) {
  option_text copy;
  const config_lock lock;
  std::copy(std::begin(field), std::end(field), copy.begin());
  return copy;
}

struct text_option {
  uint32_t option;
  char (dl_config::*field)[512];
  char (dl_config::*seeds)[512];  // set too while it is empty, or null
};

constexpr text_option text_options[] = {
    {DL_OPT_USER_AGENT, &dl_config::user_agent, nullptr},
    {DL_OPT_TRUST_CA_DIR, &dl_config::trust_ca_dir, &dl_config::https_ca_dir},
    {DL_OPT_DEVICE_CERT_FILE, &dl_config::device_cert_file, &dl_config::https_cert_file},
    {DL_OPT_HTTPS_CA_DIR, &dl_config::https_ca_dir, nullptr},
    {DL_OPT_HTTPS_CERT_FILE, &dl_config::https_cert_file, nullptr},
    {DL_OPT_TEMP_DIR, &dl_config::temp_dir, nullptr},
    {DL_OPT_KEY_PASSPHRASE, &dl_config::key_passphrase, nullptr},
    {DL_OPT_KEY_SEED, &dl_config::key_seed, nullptr},
};

struct number_option {
  uint32_t option;
  uint32_t min;
  uint32_t max;
  uint32_t dl_config::*wide;    // one of the two is set
  uint16_t dl_config::*narrow;  // keeps the low 16 bits
};

constexpr number_option number_options[] = {
    {DL_OPT_SSL_METHOD, 0, 3, &dl_config::ssl_method, nullptr},
    {DL_OPT_VERIFY_PEER, 0, 1, &dl_config::verify_peer, nullptr},
    {DL_OPT_MAX_REDIRECTS, 0, 5, &dl_config::max_redirects, nullptr},
    {DL_OPT_MAX_FILE_SIZE, 0, UINT32_MAX, &dl_config::max_file_size, nullptr},
    {DL_OPT_NET_TIMEOUT, 1, 60, nullptr, &dl_config::net_timeout},
    {DL_OPT_IPV6, 0, 1, nullptr, &dl_config::ipv6_enable},
    {DL_OPT_VERIFY_HOST, 0, 1, &dl_config::verify_host, nullptr},
    {DL_OPT_AUTH_RETRY_LIMIT, 1, UINT32_MAX, nullptr, &dl_config::auth_retry_limit},
};

template <typename Table>
auto find_option(const Table& table, uint32_t option) {
  const auto* found = std::find_if(std::begin(table), std::end(table),
                                   [option](const auto& entry) { return entry.option == option; });
  return found == std::end(table) ? nullptr : found;
}

// Of a longer text before it, a pass phrase say, nothing stays behind the new one.
void overwrite(std::span<char> field, const char* value) {
  copy_text(field, value);
  const auto tail = field.subspan(strnlen(field.data(), field.size()));
  OPENSSL_cleanse(tail.data(), tail.size());
}

void store_text(const text_option& entry, const char* value) {
  const config_lock lock;
  overwrite(g_dl_cfg.*entry.field, value);
  if (entry.seeds && (g_dl_cfg.*entry.seeds)[0] == '\0') overwrite(g_dl_cfg.*entry.seeds, value);
}

int32_t store_number(const number_option& entry, const void* value) {
  uint32_t number = 0;
  memcpy(&number, value, sizeof number);
  if (number < entry.min || number > entry.max) return -1;
  const config_lock lock;
  if (entry.wide) {
    g_dl_cfg.*entry.wide = number;
  } else {
    g_dl_cfg.*entry.narrow = static_cast<uint16_t>(number);
  }
  return 0;
}

int32_t store_ring(const void* value) {
  dl_ring_entry entry;
  memcpy(&entry, value, sizeof entry);
  if (entry.slot >= std::size(g_dl_cfg.rings)) return -1;
  const config_lock lock;
  g_dl_cfg.rings[entry.slot] = entry;
  return 0;
}

void store_caller_tag(const char* value) {
  const config_lock lock;
  overwrite(g_dl_cfg.caller_tag, value);
}

void set_defaults() {
  g_dl_cfg.net_timeout = 1;
  g_dl_cfg.max_file_size = 2097152;
  g_dl_cfg.max_redirects = 5;
  g_dl_cfg.auth_retry_limit = 2;
  copy_text(g_dl_cfg.user_agent, "Korvane");
  copy_text(g_dl_cfg.temp_dir, "/tmp");
}

// Clears the record, pass phrase and seed included, in a way that is not optimised away.
void clear_config() {
  OPENSSL_cleanse(&g_dl_cfg, sizeof g_dl_cfg);
}

// The flag is set when the record is whole: it is read without the lock.
void initialise() {
  log_init(log_identity, DL_LOG_TO_SYSLOG, nullptr);
  clear_config();
  pthread_mutex_init(&g_dl_cfg.lock, nullptr);
  set_defaults();
  clear_extras();
  std::atomic_ref(g_dl_cfg.initialised).store(1, std::memory_order_release);
  openssl_start();
}

// The text that read_option() serves, or null.
const char* readable_text(uint32_t option) {
  switch (option) {
    case DL_OPT_TRUST_CA_DIR:
      return g_dl_cfg.trust_ca_dir;
    case DL_OPT_TEMP_DIR:
      return g_dl_cfg.temp_dir;
    case DL_OPT_CALLER_TAG:
      return g_dl_cfg.caller_tag;
    default:
      return nullptr;
  }
}

}  // namespace

config_lock::config_lock() : mutex_hold(g_dl_cfg.lock) {}

void config_init() {
  if (!config_initialised()) initialise();
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "Init config! libfetchrig Ver:%s\n", library_version);
}

void config_exit() {
  if (!config_initialised()) return;
  end_extras();
  openssl_stop();
  pthread_mutex_destroy(&g_dl_cfg.lock);
  clear_config();
}

int32_t store_option(uint32_t option, const void* value) {
  if (!config_initialised()) config_init();
  if (const auto* entry = find_option(number_options, option)) return store_number(*entry, value);
  if (option == DL_OPT_RING_ENTRY) return store_ring(value);
  const auto* text = static_cast<const char*>(value);
  if (option == DL_OPT_CALLER_TAG) {
    store_caller_tag(text);
    return 0;
  }
  const auto* entry = find_option(text_options, option);
  if (!entry) return -1;
  store_text(*entry, text);
  return 0;
}

int32_t read_option(uint32_t option, std::span<char> buffer) {
  const char* field = config_initialised() ? readable_text(option) : nullptr;
  if (!field) return -1;
  const config_lock lock;
  // strncpy's contract: the rest zero, unterminated when the text fills the buffer.
  const std::size_t length = strnlen(field, buffer.size());
  memcpy(buffer.data(), field, length);
  memset(buffer.data() + length, 0, buffer.size() - length);
  return 0;
}

bool config_initialised() {
  return std::atomic_ref(g_dl_cfg.initialised).load(std::memory_order_acquire) == 1;
}

int net_timeout_seconds() {
  return locked_copy(g_dl_cfg.net_timeout);
}
int ipv6_enabled() {
  return locked_copy(g_dl_cfg.ipv6_enable);
}
uint32_t max_file_size() {
  return locked_copy(g_dl_cfg.max_file_size);
}
uint32_t max_redirects() {
  return locked_copy(g_dl_cfg.max_redirects);
}
uint32_t auth_retry_limit() {
  return locked_copy(g_dl_cfg.auth_retry_limit);
}
int ssl_method() {
  return static_cast<int>(locked_copy(g_dl_cfg.ssl_method));
}
option_text user_agent() {
  return locked_text(g_dl_cfg.user_agent);
}
option_text trust_ca_dir() {
  return locked_text(g_dl_cfg.trust_ca_dir);
}
option_text device_cert_file() {
  return locked_text(g_dl_cfg.device_cert_file);
}
option_text key_passphrase() {
  return locked_text(g_dl_cfg.key_passphrase);
}
option_text key_seed() {
  return locked_text(g_dl_cfg.key_seed);
}

tls_options https_options() {
  tls_options options;
  const config_lock lock;
  std::copy(std::begin(g_dl_cfg.https_cert_file), std::end(g_dl_cfg.https_cert_file),
            options.cert_file.begin());
  std::copy(std::begin(g_dl_cfg.https_ca_dir), std::end(g_dl_cfg.https_ca_dir), options.ca_dir.begin());
  options.method = static_cast<int>(g_dl_cfg.ssl_method);
  options.verify_peer = static_cast<int>(g_dl_cfg.verify_peer);
  options.verify_host = static_cast<int>(g_dl_cfg.verify_host);
  return options;
}

net_options net_settings() {
  const config_lock lock;
  return {g_dl_cfg.max_file_size, g_dl_cfg.net_timeout, g_dl_cfg.ipv6_enable};
}

int ring_number_of(const char* name) {
  const std::string_view wanted = name;
  const config_lock lock;
  for (const auto& entry : g_dl_cfg.rings) {
    const std::string_view stored(entry.name, strnlen(entry.name, sizeof entry.name));
    if (equal_ignoring_case(wanted, stored)) return entry.number;
  }
  return -1;
}

unsigned tls_wait_limit_seconds() {
  return tls_wait_limit.load(std::memory_order_relaxed);
}

void set_tls_wait_limit(unsigned seconds) {
  tls_wait_limit.store(seconds, std::memory_order_relaxed);
}

}  // namespace fetchrig
