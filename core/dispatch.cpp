// dispatch.cpp: the protocol-independent downloads. The URL picks the protocol; the work is its client's.
#include <stdlib.h>

#include <string>

#include "core/boundary.h"
#include "core/dispatch_url.h"
#include "core/owners.h"
#include "core/result.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

// Calls `work` with a GET request for the rebuilt URL.
template <typename Work>
int with_http_request(const dl_request& request, const dl_url_parts& parts, Work work) {
  std::string url;
  dl_http_request http = {};
  http.method = DL_METHOD_GET;
  if (dl_url_rebuild(request, http, parts, url) < 0) return -1;
  return work(http);
}

template <typename Session>
int keep_session(int rc, Session* session, dl_handle& handle) {
  handle.session = session;
  return rc;
}

int open_http(const dl_request& request, const dl_url_parts& parts, dl_handle& handle, char* redirect,
              dl_result* result) {
  if (!redirect) return log_dispatch_error("New Url NULL!\n");
  return with_http_request(request, parts, [&](const dl_http_request& http) {
    dl_http_session* session = nullptr;
    const int rc = dl_http_open(&session, &http, redirect, result);
    return keep_session(rc, session, handle);
  });
}

int open_tftp(const dl_url_parts& parts, dl_handle& handle, dl_result* result) {
  dl_tftp_session* session = nullptr;
  const int rc = dl_tftp_open(&session, parts.host.c_str(), parts.port, parts.path.c_str(), result);
  return keep_session(rc, session, handle);
}

int open_ftp(const dl_request& request, const dl_url_parts& parts, dl_handle& handle, dl_result* result) {
  dl_ftp_session* session = nullptr;
  const int rc = dl_ftp_open(&session, parts.host.c_str(), parts.port, user_for(request, parts),
                             password_for(request, parts), parts.path.c_str(), result);
  return keep_session(rc, session, handle);
}

int open_session(const dl_request& request, const dl_url_parts& parts, dl_handle& handle, char* redirect,
                 dl_result* result) {
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return open_http(request, parts, handle, redirect, result);
    case DL_PROTO_TFTP:
      return open_tftp(parts, handle, result);
    default:
      return open_ftp(request, parts, handle, result);
  }
}

int download_http(const dl_request& request, const dl_url_parts& parts, const char* local_path,
                  char* redirect, dl_result* result) {
  if (!redirect) return log_dispatch_error("New Url Null!\n");
  return with_http_request(request, parts, [&](const dl_http_request& http) {
    return dl_http_recv_to_file(&http, local_path, redirect, result);
  });
}

int download_ftp(const dl_request& request, const dl_url_parts& parts, const char* local_path,
                 dl_result* result) {
  const char* user = user_for(request, parts);
  log_ftp_login(user);
  return dl_ftp_recv_to_file(parts.host.c_str(), parts.port, user, password_for(request, parts),
                             parts.path.c_str(), local_path, result);
}

int run_open(const dl_request* request, dl_handle** handle, char* redirect, dl_result* result) {
  log_entry("dl_open");
  if (handle) *handle = nullptr;
  if (!request || !request->url || !result || !handle) return log_dispatch_error("Invalid Param!\n");
  clear_result(*result);
  auto opened = zeroed_record<dl_handle>();
  if (!opened) return log_dispatch_error("Memory exhault!\n");
  dl_url_parts parts;
  if (dl_url_split(request->url, parts) < 0) return log_dispatch_error("URL Parsing Fail!\n");
  opened->proto = parts.proto;
  if (open_session(*request, parts, *opened, redirect, result) != 0) return -1;
  *handle = opened.release();
  return 0;
}

int run_read(dl_handle* handle, char* buffer, int32_t size, dl_result* result) {
  log_entry("dl_read");
  if (!handle || !result || !buffer || size <= 0) return log_dispatch_error("Invalid Param!\n");
  switch (handle->proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return dl_http_read(static_cast<dl_http_session*>(handle->session), buffer, size, result);
    case DL_PROTO_TFTP:
      return dl_tftp_read(static_cast<dl_tftp_session*>(handle->session), buffer, size, result);
    case DL_PROTO_FTP:
      return dl_ftp_read(static_cast<dl_ftp_session*>(handle->session), buffer, size, result);
    default:
      return log_dispatch_error("Protocol Type Not Support!\n");
  }
}

void run_close(dl_handle* handle) {
  log_entry("dl_close");
  if (!handle) {
    log_dispatch_error("Invalid Param!\n");
    return;
  }
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
  ::free(handle);
}

int run_download(const dl_request* request, const char* local_path, char* redirect, dl_result* result) {
  log_entry("dl_download");
  if (!request || !request->url || !result || !local_path) return log_dispatch_error("Invalid Param!\n");
  dl_url_parts parts;
  if (dl_url_split(request->url, parts) < 0) return log_dispatch_error("URL Pasing Fail!\n");
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return download_http(*request, parts, local_path, redirect, result);
    case DL_PROTO_TFTP:
      return dl_tftp_recv_to_file(parts.host.c_str(), parts.port, parts.path.c_str(), local_path, result);
    case DL_PROTO_FTP:
      return download_ftp(*request, parts, local_path, result);
    default:
      return log_dispatch_error("Protocol Not Suppport!\n");
  }
}

}  // namespace
}  // namespace fetchrig

using namespace fetchrig;

// A failure of the dispatcher's own leaves the result record as it is.
static int dispatch_failed() {
  return -1;
}

int dl_open(const dl_request* request, dl_handle** handle, char* redirect, dl_result* result) {
  return guarded([&] { return run_open(request, handle, redirect, result); }, dispatch_failed);
}

int dl_read(dl_handle* handle, char* buffer, int32_t size, dl_result* result) {
  return guarded([&] { return run_read(handle, buffer, size, result); }, dispatch_failed);
}

void dl_close(dl_handle* handle) {
  guarded([handle] { run_close(handle); });
}

int dl_download(const dl_request* request, const char* local_path, char* redirect, dl_result* result) {
  return guarded([&] { return run_download(request, local_path, redirect, result); }, dispatch_failed);
}
