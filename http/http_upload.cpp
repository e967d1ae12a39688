// http_upload.cpp: sending a file by PUT or multipart POST, and posting with a list of credentials.
#include "core/boundary.h"
#include "http/http_open.h"
#include "include/fetchrig.h"

using namespace fetchrig;

int dl_http_post_file(dl_http_session** session, const dl_http_request* request, const char* local_path,
                      char* redirect, dl_result* result) {
  const bool complete = result && request && session && redirect && request->url && local_path;
  if (!complete || (request->method != DL_METHOD_POST && request->method != DL_METHOD_PUT)) {
    return http_refuse("http post file with invalid parameter\n", result);
  }
  *session = nullptr;
  return guarded_transfer(result, [&] {
    unique_http_session closed_at_return;
    return http_open_plan(
        {.request = *request, .redirect = redirect, .result = result, .file_path = local_path},
        closed_at_return);
  });
}

int dl_http_post_multi_auth(dl_http_session** session, const dl_http_request* request,
                            const dl_auth_info* credentials, int32_t count, char* redirect,
                            dl_result* result) {
  const bool complete = result && request && session && redirect && request->url;
  if (!complete || request->method != DL_METHOD_POST) {
    return http_refuse("http post file with invalid parameter\n", result);
  }
  *session = nullptr;
  http_plan plan{.request = *request, .redirect = redirect, .result = result};
  if (credentials) {
    plan.auth_type = http_auth_type::credential_list;
    plan.credentials = credentials;
    plan.num_credentials = count;
  }
  return guarded_transfer(result, [&] {
    unique_http_session opened;
    if (http_open_plan(plan, opened) < 0) return -1;
    *session = opened.release();
    return 0;
  });
}
