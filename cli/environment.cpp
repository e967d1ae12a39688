// SPDX-License-Identifier: MIT
// environment.cpp: reading the environment's variables and files.
#include "environment.h"

#include <errno.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "pem.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

std::string variable(const char* name) {
  const char* value = getenv(name);
  return value ? value : "";
}

bool ends_alike(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && strcasecmp(text.c_str() + text.size() - end.size(), end.c_str()) == 0;
}

// An entry of no_proxy: "*", a host, or a domain for all in it; with ":PORT" for that port alone.
bool is_excepted(const location& where, std::string entry) {
  if (entry == "*") return true;
  const std::size_t close = entry.starts_with('[') ? entry.find(']') : entry.npos;
  const bool bracketed = close != entry.npos;
  std::size_t colon = entry.find(':', bracketed ? close : 0);
  if (!bracketed && colon != entry.rfind(':')) colon = entry.npos;  // an IPv6 address
  const std::string usual_port = where.kind == scheme::https ? "443" : "80";
  const std::string port = where.port.value_or(usual_port);
  if (colon != entry.npos && entry.substr(colon + 1) != port) return false;
  entry.resize(colon == entry.npos ? entry.size() : colon);
  if (bracketed) entry = entry.substr(1, close - 1);
  if (entry.starts_with('.')) entry.erase(0, 1);
  if (entry.empty()) return false;
  return strcasecmp(where.host.c_str(), entry.c_str()) == 0 || ends_alike(where.host, "." + entry);
}

// Other programs may have one of another kind there.
std::string proxy_for_all() {
  const std::string lower = variable("all_proxy");
  const std::string proxy = lower.empty() ? variable("ALL_PROXY") : lower;
  return proxy.find("://") == proxy.npos || strncasecmp(proxy.c_str(), "http://", 7) == 0 ? proxy : "";
}

bool goes_without_proxy(const location& where) {
  const std::string lower = variable("no_proxy");
  std::istringstream rest(lower.empty() ? variable("NO_PROXY") : lower);
  for (std::string entry; std::getline(rest, entry, ',');) {
    if (is_excepted(where, without_blanks(entry))) return true;
  }
  return false;
}

// Whether the file is there, and nobody else's business.
bool is_usable(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return false;
  if (!S_ISREG(status.st_mode)) {
    tell("warning: " + printable(path) + " is not used: it is no regular file");
    return false;
  }
  if (status.st_uid == geteuid() && (status.st_mode & 077) == 0) return true;
  tell("warning: " + printable(path) + " is not used: others have access to it (chmod 600 mends that)");
  return false;
}

}  // namespace

std::string without_blanks(const std::string& text) {
  constexpr const char* blanks = " \t\r";
  const std::size_t start = text.find_first_not_of(blanks);
  return start == text.npos ? "" : text.substr(start, text.find_last_not_of(blanks) + 1 - start);
}

std::string environment_proxy(const location& where) {
  std::string proxy = variable(where.kind == scheme::http ? "http_proxy" : "https_proxy");
  if (proxy.empty() && where.kind == scheme::https) proxy = variable("HTTPS_PROXY");
  if (proxy.empty()) proxy = proxy_for_all();
  return goes_without_proxy(where) ? "" : proxy;
}

std::optional<netrc_login> environment_login(const location& where, const std::optional<std::string>& user) {
  const std::string home = variable("HOME");
  const std::string path = home + "/.netrc";
  if (home.empty() || !is_usable(path)) return std::nullopt;
  const secret_text content = read_small_file(path);
  return find_netrc_login(content.bytes(), where.host, user);
}

}  // namespace fetchrig::cli
