// SPDX-License-Identifier: MIT
// options.cpp: from the command line to the library's options.
#include "options.h"

#include <pthread.h>
#include <stdlib.h>
#include <strings.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <map>
#include <sstream>

#include "environment.h"
#include "fetchrig.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

enum class value_kind { text, number, ring };

struct named_option {
  const char* name;
  std::uint32_t number;
  value_kind kind;
};
constexpr named_option known_options[] = {
    {"user-agent", DL_OPT_USER_AGENT, value_kind::text},
    {"trust-ca-dir", DL_OPT_TRUST_CA_DIR, value_kind::text},
    {"device-cert-file", DL_OPT_DEVICE_CERT_FILE, value_kind::text},
    {"ssl-method", DL_OPT_SSL_METHOD, value_kind::number},
    {"verify-peer", DL_OPT_VERIFY_PEER, value_kind::number},
    {"max-redirects", DL_OPT_MAX_REDIRECTS, value_kind::number},
    {"max-file-size", DL_OPT_MAX_FILE_SIZE, value_kind::number},
    {"net-timeout", DL_OPT_NET_TIMEOUT, value_kind::number},
    {"ipv6", DL_OPT_IPV6, value_kind::number},
    {"ring-entry", DL_OPT_RING_ENTRY, value_kind::ring},
    {"verify-host", DL_OPT_VERIFY_HOST, value_kind::number},
    {"https-ca-dir", DL_OPT_HTTPS_CA_DIR, value_kind::text},
    {"https-cert-file", DL_OPT_HTTPS_CERT_FILE, value_kind::text},
    {"temp-dir", DL_OPT_TEMP_DIR, value_kind::text},
    {"caller-tag", DL_OPT_CALLER_TAG, value_kind::text},
    {"auth-retry-limit", DL_OPT_AUTH_RETRY_LIMIT, value_kind::number},
    {"key-passphrase", DL_OPT_KEY_PASSPHRASE, value_kind::text},
    {"key-seed", DL_OPT_KEY_SEED, value_kind::text},
};

std::optional<std::uint32_t> whole_number(std::string_view text) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

const named_option& find_option(std::string name) {
  std::replace(name.begin(), name.end(), '_', '-');
  const auto number = whole_number(name);
  const auto* found = std::find_if(
      std::begin(known_options), std::end(known_options),
      [&](const named_option& entry) { return number ? entry.number == *number : entry.name == name; });
  if (found == std::end(known_options))
    throw usage_error("--option: no option is called \"" + printable(name) + "\"");
  return *found;
}

// "SLOT:NUMBER:NAME"
void set_ring_option(const std::string& value) {
  const std::size_t first = value.find(':');
  const std::size_t second = first == value.npos ? first : value.find(':', first + 1);
  if (second == value.npos) throw usage_error("--option ring-entry takes SLOT:NUMBER:NAME");
  const auto slot = whole_number(std::string_view(value).substr(0, first));
  const auto number = whole_number(std::string_view(value).substr(first + 1, second - first - 1));
  const std::string name = value.substr(second + 1);
  dl_ring_entry entry = {};
  if (!slot || *slot > 9 || !number || *number > 255 || name.empty() || name.size() >= sizeof entry.name) {
    throw usage_error(
        "--option ring-entry takes SLOT (0 to 9), NUMBER (0 to 255) and NAME (at most 125 characters)");
  }
  entry.slot = static_cast<std::uint8_t>(*slot);
  entry.number = static_cast<std::uint8_t>(*number);
  name.copy(entry.name, name.size());
  dl_set_option(DL_OPT_RING_ENTRY, &entry);
}

void set_raw_option(const std::string& assignment) {
  const std::size_t equals = assignment.find('=');
  if (equals == assignment.npos) throw usage_error("--option takes NAME=VALUE");
  const named_option& option = find_option(assignment.substr(0, equals));
  const std::string value = assignment.substr(equals + 1);
  switch (option.kind) {
    case value_kind::text:
      return set_text_option(option.number, value);
    case value_kind::ring:
      return set_ring_option(value);
    case value_kind::number:
      const auto number = whole_number(value);
      if (!number) throw usage_error("--option " + std::string(option.name) + " takes a number");
      return set_number_option(option.number, *number);
  }
}

const char* option_name(std::uint32_t number) {
  const auto* found = std::find_if(std::begin(known_options), std::end(known_options),
                                   [&](const named_option& entry) { return entry.number == number; });
  return found == std::end(known_options) ? "?" : found->name;
}

constexpr const char* system_ca_dir = "/etc/ssl/certs";
constexpr std::uint32_t default_timeout_s = 30;
// A TFTP server says an error once, after which the wait for data still runs out.
constexpr std::uint32_t default_tftp_timeout_s = 5;

constexpr std::uint32_t usual_redirects = 5;

// Beyond the 32 bits of its option; 0: the option holds.
std::uint64_t large_size_limit_bytes = 0;

constexpr char list_separator = ':';  // of directories, as OpenSSL takes them

std::vector<std::string> split_directories(const std::string& list) {
  std::vector<std::string> directories;
  std::istringstream rest(list);
  for (std::string directory; std::getline(rest, directory, list_separator);) {
    if (!directory.empty()) directories.push_back(directory);
  }
  return directories;
}

// Without --ca-dir a --ca-file is all that is trusted.
std::unique_ptr<ca_bundle> set_trusted_cas(const connection_options& options) {
  auto bundle = options.ca_file.empty() ? nullptr : std::make_unique<ca_bundle>(options.ca_file);
  std::string directories = bundle ? bundle->directory() : options.ca_dir.value_or(system_ca_dir);
  if (bundle && options.ca_dir) directories += list_separator + *options.ca_dir;
  set_text_option(DL_OPT_HTTPS_CA_DIR, directories);
  return bundle;
}

std::unique_ptr<ca_bundle> set_connection_options(const connection_options& options,
                                                  std::uint32_t timeout_s) {
  const std::uint32_t verify = options.insecure ? 0 : 1;
  start_log(options.verbosity);
  // A library that was built without extras stays classic.
  dl_set_extras(options.classic ? DL_EXTRAS_NONE : DL_EXTRAS_RECOMMENDED);
  auto bundle = set_trusted_cas(options);
  set_text_option(DL_OPT_HTTPS_CERT_FILE, options.client_cert);
  set_number_option(DL_OPT_SSL_METHOD, options.tls_method);
  set_number_option(DL_OPT_VERIFY_PEER, verify);
  set_number_option(DL_OPT_VERIFY_HOST, options.no_verify_host ? 0 : verify);
  set_number_option(DL_OPT_NET_TIMEOUT, timeout_s);
  set_number_option(DL_OPT_IPV6, options.ipv6 ? 1 : 0);
  set_number_option(DL_OPT_MAX_REDIRECTS, usual_redirects);
  take_key_passphrase();
  return bundle;
}

// Raw options come last: they are the ones a person set by hand.
void set_raw_options(const connection_options& options) {
  for (const std::string& assignment : options.raw_options) set_raw_option(assignment);
  dl_set_tls_wait_limit(wait_limit_s());
}

// https goes through a tunnel, one of the extras: a library that was built without them does not take the switch.
bool goes_by_proxy(const transfer_options& options, const location& where) {
  if (where.kind != scheme::https) return where.kind == scheme::http;
  return !options.connection.classic && dl_set_extra(DL_EXTRA_PROXY, 1) == 0;
}

// After the raw options: one of them may have lowered the limit.
void set_large_size_limit(std::uint64_t bytes) {
  large_size_limit_bytes = 0;
  dl_set_size_limit(0);
  if (bytes <= UINT32_MAX || size_limit_bytes() != UINT32_MAX) return;
  if (dl_set_size_limit(bytes) == 0) large_size_limit_bytes = bytes;
}

// The message of an option check, empty when all is well.
std::string check_ca_dir(const std::string& list) {
  for (const std::string& directory : split_directories(list)) {
    if (!dl_path_is_directory(directory.c_str())) return printable(directory) + " is not a directory";
  }
  return list.empty() ? "a directory is needed" : "";
}

// What is asked for by name is had, or the command stops.
void need_extra(std::uint32_t extra, std::optional<std::uint32_t> value) {
  if (value && dl_set_extra(extra, *value) != 0)
    throw usage_error("this library was built without what the options ask for");
}

void set_extras(const transfer_options& options, const location& where) {
  if (options.ftp_tls || where.is_secured) need_extra(DL_EXTRA_FTP_TLS, 1);
  need_extra(DL_EXTRA_TFTP_WINDOW, options.tftp_window);
  need_extra(DL_EXTRA_TFTP_BLOCK_SIZE, options.tftp_block_size);
}

// A wrong one would read like a fault of the URL that is fetched.
void check_proxy_url(const std::string& proxy) {
  constexpr std::string_view prefix = "http://";
  if (proxy.empty()) return;
  if (strncasecmp(proxy.c_str(), prefix.data(), prefix.size()) != 0)
    throw usage_error("the URL of a proxy begins with http://");
  const std::size_t login = proxy.rfind('@', proxy.find('/', prefix.size()));
  const std::string address = proxy.substr(login == proxy.npos ? prefix.size() : login + 1);
  try {
    if (has_usable_address(parse_location(std::string(prefix) + address))) return;
  } catch (const usage_error&) {
  }
  throw usage_error("the URL of the proxy is wrong: http://" + printable(address));
}

// A copy of an option, taken under the lock of the options.
template <typename Copy>
auto locked(Copy copy) {
  pthread_mutex_lock(&g_dl_cfg.lock);
  auto value = copy(g_dl_cfg);
  pthread_mutex_unlock(&g_dl_cfg.lock);
  return value;
}

}  // namespace

void add_verbosity(CLI::App& app, int& verbosity) {
  app.add_flag("-v,--verbose", verbosity, "Show the log on standard error; -vv and -vvv show more");
}

void add_connection_options(CLI::App& app, connection_options& options) {
  const std::map<std::string, std::uint32_t> methods = {{"auto", 3}, {"tls1.0", 0}};
  app.add_option("--ca-dir", options.ca_dir,
                 "Hashed directory of the CAs that HTTPS servers are verified against; /etc/ssl/certs")
      ->check(CLI::Validator(check_ca_dir, "DIR"));
  app.add_option("--ca-file", options.ca_file,
                 "PEM file of such CAs; without --ca-dir they alone are trusted")
      ->check(CLI::ExistingFile);
  app.add_option("--cert", options.client_cert, "PEM file with a client certificate and its private key")
      ->check(CLI::ExistingFile);
  app.add_flag("--insecure", options.insecure, "Verify nothing of an HTTPS server");
  app.add_flag("--no-verify-host", options.no_verify_host, "Do not require the certificate to name the host");
  app.add_flag("--ipv6", options.ipv6, "Allow IPv6 addresses and look-ups");
  app.add_flag("--classic", options.classic,
               "Keep to the protocols as they were: none of the library's extras");
  app.add_option("--timeout", options.timeout_s, "Limit of every wait, in seconds; 30, for TFTP 5")
      ->check(CLI::Range(1, 60));
  app.add_option("--tls-method", options.tls_method, "auto, tls1.0, or the library's number 0 to 3")
      ->transform(CLI::Transformer(methods, CLI::ignore_case))
      ->check(CLI::Range(0, 3))
      ->type_name("METHOD");
  app.add_option("--option", options.raw_options, "Set a library option by its name or number; repeatable")
      ->type_name("NAME=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  add_verbosity(app, options.verbosity);
}

void add_transfer_options(CLI::App& app, transfer_options& options) {
  app.add_option("--user", options.user, "User name for HTTP or FTP");
  app.add_option("--password", options.password,
                 "Its password; better left to FETCHRIG_PASSWORD or to the question at the terminal");
  app.add_option(
      "--proxy", options.proxy,
      "URL of an HTTP proxy for http and https URLs, \"\" for none; else http_proxy or https_proxy");
  app.add_option("--header", options.headers, "Header line for HTTP; repeatable")
      ->type_name("\"NAME: VALUE\"")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option(
         "--max-size", options.max_size_bytes,
         "Largest file taken or sent, in bytes; K, M and G multiply by 1024; no limit, with --classic 4 GiB")
      ->transform(CLI::AsSizeValue(false));
  app.add_flag("--ftp-tls", options.ftp_tls, "FTP under TLS or not at all, as for ftpes URLs");
  app.add_option("--tftp-window", options.tftp_window, "Blocks that a TFTP server may send at a time; 16")
      ->check(CLI::Range(1, 32767))
      ->type_name("N");
  app.add_option("--tftp-block-size", options.tftp_block_size,
                 "Bytes in a TFTP block; 1432, which fits an Ethernet frame")
      ->check(CLI::Range(8, 65464))
      ->type_name("N");
  app.add_option("--retry", options.retries, "Try again so often after a failure that may pass")
      ->check(CLI::Range(0, 100))
      ->type_name("N");
  app.add_option("--retry-delay", options.retry_delay_s,
                 "Longest wait before the first new try, in seconds; doubled for each one after it")
      ->check(CLI::Range(0.0, 3600.0))
      ->check([](const std::string& typed) {
        return std::isnan(strtod(typed.c_str(), nullptr)) ? "--retry-delay: a number is needed" : "";
      })
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_flag("--no-env", options.no_env, "Use neither http_proxy, https_proxy, all_proxy nor ~/.netrc");
  app.add_flag("--json", options.json, "Answer in JSON, one object a transfer");
  app.add_flag("-q,--quiet", options.quiet, "Show no progress");
  add_connection_options(app, options.connection);
}

std::unique_ptr<ca_bundle> configure(const connection_options& options) {
  auto bundle = set_connection_options(options, options.timeout_s.value_or(default_timeout_s));
  set_raw_options(options);
  return bundle;
}

std::unique_ptr<ca_bundle> configure(const transfer_options& options, const location& where) {
  const std::uint32_t usual_s = where.kind == scheme::tftp ? default_tftp_timeout_s : default_timeout_s;
  auto bundle = set_connection_options(options.connection, options.connection.timeout_s.value_or(usual_s));
  const std::uint64_t most_bytes = extras_are_on() ? INT64_MAX : UINT32_MAX;
  const std::uint64_t max_bytes = options.max_size_bytes.value_or(most_bytes);
  if (max_bytes > most_bytes)
    throw usage_error("--max-size is at most " + std::to_string(most_bytes) + " bytes");
  set_number_option(DL_OPT_MAX_FILE_SIZE,
                    static_cast<std::uint32_t>(std::min<std::uint64_t>(max_bytes, UINT32_MAX)));
  set_extras(options, where);
  set_raw_options(options.connection);
  set_large_size_limit(max_bytes);
  return bundle;
}

void check_proxy(const transfer_options& options, const location& where) {
  if (!options.proxy.value_or("").empty() && !goes_by_proxy(options, where)) {
    throw usage_error(where.is_http() ? "with --classic --proxy is for http URLs"
                                      : "--proxy is for http and https URLs");
  }
  check_proxy_url(proxy_for(options, where));
}

std::string proxy_for(const transfer_options& options, const location& where) {
  const bool by_environment = !options.no_env && goes_by_proxy(options, where);
  std::string proxy = by_environment ? environment_proxy(where) : "";
  if (options.proxy) proxy = *options.proxy;
  return proxy.empty() || proxy.find("://") != proxy.npos ? proxy : "http://" + proxy;
}

void set_text_option(std::uint32_t option, const std::string& value) {
  const std::size_t max_len = option == DL_OPT_CALLER_TAG ? 20 : 511;
  if (value.size() > max_len)
    throw usage_error(std::string("the value for ") + option_name(option) + " is too long");
  dl_set_option(option, value.c_str());
}

void set_number_option(std::uint32_t option, std::uint32_t value) {
  if (dl_set_option(option, &value) == 0) return;
  throw usage_error(std::string(option_name(option)) + " cannot be " + std::to_string(value));
}

void take_key_passphrase() {
  const char* passphrase = getenv("FETCHRIG_KEY_PASSPHRASE");
  if (passphrase) set_text_option(DL_OPT_KEY_PASSPHRASE, passphrase);
}

bool extras_are_on() {
  return dl_get_extra(DL_EXTRA_WHOLE_BODIES) != 0;
}

bool ipv6_is_allowed() {
  return locked([](const dl_config& config) { return config.ipv6_enable; }) != 0;
}

std::uint64_t size_limit_bytes() {
  if (large_size_limit_bytes != 0) return large_size_limit_bytes;
  return locked([](const dl_config& config) { return config.max_file_size; });
}

std::uint32_t wait_limit_s() {
  return locked([](const dl_config& config) { return config.net_timeout; });
}

std::uint32_t redirect_limit() {
  return locked([](const dl_config& config) { return config.max_redirects; });
}

std::vector<std::string> ca_directories() {
  return split_directories(locked([](const dl_config& config) { return std::string(config.https_ca_dir); }));
}

std::string header_block(const std::vector<std::string>& headers) {
  std::string block;
  for (const std::string& line : headers) {
    const std::size_t colon = line.find(':');
    const bool named = colon != line.npos && colon > 0 && line.find_first_of(" \t") > colon;
    if (!named || has_control_characters(line)) throw usage_error("--header takes \"Name: value\"");
    block += line + "\r\n";
  }
  return block;
}

}  // namespace fetchrig::cli
