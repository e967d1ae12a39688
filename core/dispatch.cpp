// SPDX-License-Identifier: MIT
// dispatch.cpp: the URL picks the protocol; the work is its client's.
#include "core/dispatch.h"

#include <stdlib.h>

#include <string>

#include "core/dispatch_request.h"
#include "core/owners.h"
#include "core/result.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

int open_http(dl_handle& handle, const dl_request& request, const dl_url_parts& parts, char* redirect,
              dl_result& result) {
  if (!redirect) return dispatch_failed("New Url NULL!\n");
  std::string url;
  dl_http_request http = {};
  http.method = DL_METHOD_GET;
  if (dl_url_rebuild(request, http, parts, url) < 0) return -1;
  dl_http_session* session = nullptr;
  const int rc = dl_http_open(&session, &http, redirect, &result);
  handle.session = session;
  return rc;
}

int open_tftp(dl_handle& handle, const dl_url_parts& parts, dl_result& result) {
  dl_tftp_session* session = nullptr;
  const int rc = dl_tftp_open(&session, parts.host.c_str(), parts.port, parts.path.c_str(), &result);
  handle.session = session;
  return rc;
}

int open_ftp(dl_handle& handle, const dl_request& request, const dl_url_parts& parts, dl_result& result) {
  dl_ftp_session* session = nullptr;
  const int rc = dl_ftp_open(&session, parts.host.c_str(), parts.port, user_for(request, parts),
                             password_for(request, parts), parts.path.c_str(), &result);
  handle.session = session;
  return rc;
}

int open_session(dl_handle& handle, const dl_request& request, const dl_url_parts& parts, char* redirect,
                 dl_result& result) {
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return open_http(handle, request, parts, redirect, result);
    case DL_PROTO_TFTP:
      return open_tftp(handle, parts, result);
    default:
      return open_ftp(handle, request, parts, result);
  }
}

int download_http(const dl_request& request, const dl_url_parts& parts, const char* local_path,
                  char* redirect, dl_result& result) {
  if (!redirect) return dispatch_failed("New Url Null!\n");
  std::string url;
  dl_http_request http = {};
  http.method = DL_METHOD_GET;
  if (dl_url_rebuild(request, http, parts, url) < 0) return -1;
  return dl_http_recv_to_file(&http, local_path, redirect, &result);
}

int download_ftp(const dl_request& request, const dl_url_parts& parts, const char* local_path,
                 dl_result& result) {
  const char* user = user_for(request, parts);
  log_ftp_login(user);
  return dl_ftp_recv_to_file(parts.host.c_str(), parts.port, user, password_for(request, parts),
                             parts.path.c_str(), local_path, &result);
}

}  // namespace

int open_transfer(dl_handle*& handle, const dl_request& request, char* redirect, dl_result& result) {
  clear_result(result);
  auto opened = zeroed_record<dl_handle>();
  if (!opened) return dispatch_failed("Memory exhault!\n");
  dl_url_parts parts;
  if (dl_url_split(request.url, parts) < 0) return dispatch_failed("URL Parsing Fail!\n");
  opened->proto = parts.proto;
  if (open_session(*opened, request, parts, redirect, result) != 0) return -1;
  handle = opened.release();
  return 0;
}

int read_transfer(const dl_handle& handle, char* buffer, int32_t size, dl_result& result) {
  switch (handle.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return dl_http_read(static_cast<dl_http_session*>(handle.session), buffer, size, &result);
    case DL_PROTO_TFTP:
      return dl_tftp_read(static_cast<dl_tftp_session*>(handle.session), buffer, size, &result);
    case DL_PROTO_FTP:
      return dl_ftp_read(static_cast<dl_ftp_session*>(handle.session), buffer, size, &result);
    default:
      return dispatch_failed("Protocol Type Not Support!\n");
  }
}

void close_transfer(dl_handle* handle) {
  switch (handle->proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      dl_http_close(static_cast<dl_http_session*>(handle->session));
      break;
    case DL_PROTO_TFTP:
      dl_tftp_close(static_cast<dl_tftp_session*>(handle->session));
      break;
    case DL_PROTO_FTP:
      dl_ftp_close(static_cast<dl_ftp_session*>(handle->session));
      break;
    default:
      break;
  }
  free(handle);
}

int download(const dl_request& request, const char* local_path, char* redirect, dl_result& result) {
  dl_url_parts parts;
  if (dl_url_split(request.url, parts) < 0) return dispatch_failed("URL Pasing Fail!\n");
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return download_http(request, parts, local_path, redirect, result);
    case DL_PROTO_TFTP:
      return dl_tftp_recv_to_file(parts.host.c_str(), parts.port, parts.path.c_str(), local_path, &result);
    case DL_PROTO_FTP:
      return download_ftp(request, parts, local_path, result);
    default:
      return dispatch_failed("Protocol Not Suppport!\n");
  }
}

}  // namespace fetchrig
