// SPDX-License-Identifier: MIT
// dispatch_upload.cpp: the protocol-independent upload.
#include "core/dispatch_upload.h"

#include <string>

#include "core/dispatch_request.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

int upload_http(const upload_job& job, const dl_url_parts& parts) {
  if (!job.headers || !job.redirect) return dispatch_failed("New Url Or Header Null!\n");
  std::string url;
  dl_http_request http = {};
  http.method = job.mode == DL_HTTP_PUT ? DL_METHOD_PUT : DL_METHOD_POST;
  http.headers = job.headers;
  if (dl_url_rebuild(job.request, http, parts, url) < 0) return -1;
  dl_http_session* session = nullptr;
  return dl_http_post_file(&session, &http, job.local_path, job.redirect, job.result);
}

int upload_ftp(const upload_job& job, const dl_url_parts& parts) {
  const char* user = user_for(job.request, parts);
  log_ftp_login(user);
  return dl_ftp_send_file(parts.host.c_str(), parts.port, user, password_for(job.request, parts),
                          job.remote_name, job.local_path, job.mode, job.limit_mode, job.result);
}

}  // namespace

int upload(const upload_job& job) {
  dl_url_parts parts;
  if (dl_url_split(job.request.url, parts) < 0) return dispatch_failed("URL Pasing Fail!\n");
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return upload_http(job, parts);
    case DL_PROTO_TFTP:
      return dl_tftp_send_file(parts.host.c_str(), parts.port, job.remote_name, job.local_path, job.result);
    case DL_PROTO_FTP:
      return upload_ftp(job, parts);
    default:
      return dispatch_failed("Protocol Not Suppport!\n");
  }
}

}  // namespace fetchrig
