// http_download.cpp: downloading a body into a file, and looking up a header.
#include <string.h>

#include <algorithm>
#include <array>
#include <string>

#include "core/boundary.h"
#include "core/config.h"
#include "core/download_file.h"
#include "core/result.h"
#include "core/text.h"
#include "core/url.h"
#include "http/http_headers.h"
#include "http/http_response_body.h"
#include "include/fetchrig.h"
#include "log/log.h"

namespace fetchrig {
namespace {

// The block size in which totals and the size limit are judged.
constexpr uint32_t block_bytes = 512;

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

int copy_body(http_channel& channel, download_file& file, dl_result& result) {
  for (;;) {
    const int count = http_read_some(channel, file.room(), result);
    if (count < 0) return -1;
    if (count == 0) return file.finish(&result);
    if (const int rc = file.accept(static_cast<uint32_t>(count), &result); rc < 0) return rc;
  }
}

int receive_file(dl_http_session& session, const char* path, dl_result& result) {
  download_file file(DL_LOG_HTTP, block_bytes, max_file_size());
  if (!file.open(path)) return -1;
  http_channel channel(session);
  const int rc = copy_body(channel, file, result);
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "recv : %d bytes\n", static_cast<int>(file.total()));
  return rc;
}

int download(dl_http_session* opened, const dl_http_request& request, const char* local_path,
             dl_result& result) {
  const unique_http_session session(opened);
  std::string path;
  return choose_local_path(request, local_path, path) ? receive_file(*session, path.c_str(), result) : -1;
}

}  // namespace
}  // namespace fetchrig

using namespace fetchrig;

int dl_http_recv_to_file(const dl_http_request* request, const char* local_path, char* redirect,
                         dl_result* result) {
  return guarded_transfer(result, [&] {
    dl_http_session* session = nullptr;
    if (dl_http_open(&session, request, redirect, result) < 0) return -1;
    return download(session, *request, local_path, *result);
  });
}

int dl_http_recv_to_file_ex(const dl_http_request_ex* request, const char* local_path, char* redirect,
                            dl_result* result) {
  return guarded_transfer(result, [&] {
    dl_http_session* session = nullptr;
    if (dl_http_open_ex(&session, request, redirect, result) < 0) return -1;
    return download(session, *request->request, local_path, *result);
  });
}

const char* dl_http_find_header_by_name(const dl_http_session* session, const char* name) {
  if (!session || !session->headers || !name || name[0] == '\0') return nullptr;
  std::array<char, 128> lower_name = {};
  copy_text(lower_name, name);
  lower_in_place(lower_name);
  return http_find_header(session->headers, lower_name.data());
}
