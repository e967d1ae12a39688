// SPDX-License-Identifier: MIT
// dispatch_request.cpp: from the caller's request to what a protocol's client takes.
#include "core/dispatch_request.h"

#include "core/boundary.h"
#include "core/config.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

int authority_failed(const char* message = nullptr) {
  if (message) dispatch_failed(message);
  return dispatch_failed("Login_Host_Port Info Parsing Fail!\n");
}

// The lines of one URL: white space before the authority has been skipped wherever one was looked at.
int log_outcome(url_fault fault) {
  if (fault == url_fault::scheme) return dispatch_failed("Protocol Not Support!\n");
  if (fault == url_fault::only_scheme) return dispatch_failed("URL Invalid!\n");
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Skip Space Success!\n");
  if (fault == url_fault::empty_login) return authority_failed("Login Info Invalid!\n");
  if (fault == url_fault::empty_host) return authority_failed("Host Info Invalid!\n");
  if (fault == url_fault::authority) return authority_failed();
  return fault == url_fault::none ? 0 : -1;
}

void log_parts(const char* url, const dl_url_parts& parts) {
  log_line(DL_LOG_CMN, DL_LOG_INFO,
           "url = %s, protl = %d, host = %s, port = %d, path = %s, user = %s, passwd = ******\n",
           printable_url(url).c_str(), static_cast<int>(parts.proto), printable(parts.host.c_str()).c_str(),
           static_cast<int>(parts.port), printable(parts.path.c_str()).c_str(),
           printable(parts.user ? parts.user->c_str() : nullptr).c_str());
}

}  // namespace

int dl_url_split(const char* url, dl_url_parts& parts) {
  log_entry("dl_url_parse");
  if (const int rc = log_outcome(split_url(parts, url, ipv6_enabled())); rc < 0) return rc;
  log_parts(url, parts);
  return 0;
}

int dl_url_rebuild(const dl_request& request, dl_http_request& http, const dl_url_parts& parts,
                   std::string& url) {
  const auto work = [&] {
    url = clean_url(parts);
    return 0;
  };
  if (const int rc = guarded(work, [] { return dispatch_failed("Memory Exhualt!\n"); }); rc < 0) return rc;
  log_line(DL_LOG_CMN, DL_LOG_INFO, "URL After Modify = %s\n", printable(url.c_str()).c_str());
  http.url = url.c_str();
  http.user = user_for(request, parts);
  http.password = password_for(request, parts);
  http.proxy = request.proxy;
  return 0;
}

const char* user_for(const dl_request& request, const dl_url_parts& parts) {
  return parts.user ? parts.user->c_str() : request.user;
}

const char* password_for(const dl_request& request, const dl_url_parts& parts) {
  return parts.password ? parts.password->c_str() : request.password;
}

void log_entry(const char* function) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "Enter Func %s....\n", function);
}

void log_ftp_login(const char* user) {
  log_line(DL_LOG_CMN, DL_LOG_INFO, "FTP Login Info:uername=%s passwd=%s\n", printable(user).c_str(),
           "******");
}

int dispatch_failed(const char* message) {
  return log_and_return(DL_LOG_CMN, -1, "%s", message);
}

}  // namespace fetchrig
