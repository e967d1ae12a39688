// SPDX-License-Identifier: MIT
// location.h: the URL a person typed, taken apart as far as the command needs it: scheme, credentials, file
// name. The library parses hosts and ports itself. Stateless; any thread.
#ifndef FETCHRIG_CLI_LOCATION_H
#define FETCHRIG_CLI_LOCATION_H

#include <optional>
#include <string>
#include <string_view>

namespace fetchrig::cli {

enum class scheme { http, https, ftp, tftp };

struct location {
  scheme kind = scheme::tftp;
  bool has_scheme = false;
  bool is_secured = false;  // ftpes: FTP under TLS
  std::string
      url;  // without credentials; HTTP: without the fragment; FTP and TFTP: with a decoded path; ftpes as ftp
  std::string shown;                // as typed, without credentials; HTTP: the same as `url`
  std::string host;                 // without port and brackets
  std::optional<std::string> port;  // as typed
  std::string path;  // from the first "/"; HTTP: without query and fragment; "/" when the URL has none
  std::optional<std::string> user;
  std::optional<std::string> password;

  bool is_http() const { return kind == scheme::http || kind == scheme::https; }
};

// Takes `url` apart; credentials are taken as they stand, without decoding. Throws usage_error for an empty
// URL, control characters and schemes the library does not know.
location parse_location(std::string_view url);

// Whether host and port are fit for a connection.
bool has_usable_address(const location& where);

// The part of `path` after its last "/", which may be empty.
std::string last_part(std::string_view path);

// The name under which what the URL names is saved: its last part, decoded, and "_" for what a name had better not
// hold: "/", a dot at the start, what would steer a terminal. Empty when the URL names no file.
std::string saved_name(const location& where);

// "%20" and the like as the bytes they stand for; a "%" before anything else stays.
std::string percent_decoded(std::string_view text);

// `name` with everything but letters, digits and "-._~" written as "%NN", as one part of a URL's path.
std::string percent_encoded(std::string_view name);

bool has_control_characters(std::string_view text);

}  // namespace fetchrig::cli
#endif
