// dispatch_upload.cpp: the protocol-independent upload.
#include <string>

#include "core/boundary.h"
#include "core/dispatch_url.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

// What dl_upload() was asked for.
struct upload {
  const dl_request& request;
  const char* local_path;
  const char* remote_name;
  char* redirect;
  dl_result* result;
  const char* headers;
  int32_t mode;
  uint32_t limit_mode;
};

int upload_http(const upload& job, const dl_url_parts& parts) {
  if (!job.headers || !job.redirect) return log_dispatch_error("New Url Or Header Null!\n");
  std::string url;
  dl_http_request http = {};
  http.method = job.mode == DL_HTTP_PUT ? DL_METHOD_PUT : DL_METHOD_POST;
  http.headers = job.headers;
  if (dl_url_rebuild(job.request, http, parts, url) < 0) return -1;
  dl_http_session* session = nullptr;
  return dl_http_post_file(&session, &http, job.local_path, job.redirect, job.result);
}

int upload_ftp(const upload& job, const dl_url_parts& parts) {
  const char* user = user_for(job.request, parts);
  log_ftp_login(user);
  return dl_ftp_send_file(parts.host.c_str(), parts.port, user, password_for(job.request, parts),
                          job.remote_name, job.local_path, job.mode, job.limit_mode, job.result);
}

int send_to(const upload& job, const dl_url_parts& parts) {
  switch (parts.proto) {
    case DL_PROTO_HTTPS:
    case DL_PROTO_HTTP:
      return upload_http(job, parts);
    case DL_PROTO_TFTP:
      return dl_tftp_send_file(parts.host.c_str(), parts.port, job.remote_name, job.local_path, job.result);
    case DL_PROTO_FTP:
      return upload_ftp(job, parts);
    default:
      return log_dispatch_error("Protocol Not Suppport!\n");
  }
}

}  // namespace
}  // namespace fetchrig

using namespace fetchrig;

int dl_upload(const dl_request* request, const char* local_path, const char* remote_name, char* redirect,
              dl_result* result, const char* headers, int32_t mode, uint32_t limit_mode) {
  const auto work = [&] {
    log_entry("dl_upload");
    if (!result || !request || !request->url || !local_path) return log_dispatch_error("Invalid Param!\n");
    dl_url_parts parts;
    if (dl_url_split(request->url, parts) < 0) return log_dispatch_error("URL Pasing Fail!\n");
    return send_to({*request, local_path, remote_name, redirect, result, headers, mode, limit_mode}, parts);
  };
  return guarded(work, [] { return -1; });
}
