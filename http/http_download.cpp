// SPDX-License-Identifier: MIT
// http_download.cpp: a body into a file.
#include "http/http_download.h"

#include <string>

#include "core/boundary.h"
#include "core/config.h"
#include "core/download_file.h"
#include "core/text.h"
#include "core/url.h"
#include "http/extra/http_resume.h"
#include "http/http_response_body.h"
#include "http/http_status.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// The caller's path, or the last part of the URL's path; false when the URL does not parse.
bool choose_local_path(const dl_http_request& request, const char* local_path, std::string& path) {
  if (local_path) {
    path = local_path;
    return true;
  }
  unique_url url;
  if (parse_url(url, request.url, nullptr, nullptr) < 0) return false;
  path = base_name(url->path);
  return true;
}

int receive_file(dl_http_session& session, const char* path, dl_result& result) {
  http_channel channel(session);
  const bool whole = channel.own && channel.own->whole;
  download_file file(DL_LOG_HTTP, http_file_step, whole ? channel.own->whole->limit : max_file_size());
  if (!file.open(path)) return -1;
  const int rc = http_copy_body(channel, file, result);
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "recv : %lld bytes\n", static_cast<long long>(file.total()));
  return rc;
}

int download(const http_plan& plan, const char* local_path) {
  std::string path;
  if (plan.extras.resume && choose_local_path(plan.request, local_path, path) &&
      can_resume(plan, path.c_str()))
    return resume_download(plan, path.c_str());
  unique_http_session session;
  if (http_open(plan, session) < 0) return -1;
  if (!choose_local_path(plan.request, local_path, path)) return -1;
  return receive_file(*session, path.c_str(), plan.result);
}

}  // namespace

int http_copy_body(http_channel& channel, download_file& file, dl_result& result) {
  for (;;) {
    const int count = http_read_some(channel, file.room(), result);
    if (count < 0) return -1;
    if (count == 0) return file.finish(&result);
    if (const int rc = file.accept(static_cast<uint32_t>(count), &result); rc < 0) return rc;
  }
}

int http_recv_to_file(const http_plan& plan, const char* local_path) {
  forget_earlier_calls();
  return guarded_transfer(&plan.result, [&] { return download(plan, local_path); });
}

}  // namespace fetchrig
