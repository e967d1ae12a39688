// SPDX-License-Identifier: MIT
// exports.cpp: the exported calls of the HTTP client.
#include "core/boundary.h"
#include "core/text.h"
#include "http/http_answer.h"
#include "http/http_auth.h"
#include "http/http_challenge.h"
#include "http/http_download.h"
#include "http/http_headers.h"
#include "http/http_open.h"
#include "http/http_response_body.h"
#include "http/http_session.h"
#include "http/http_status.h"
#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "log/log.h"

using namespace fetchrig;

namespace {

int refuse(const char* message, dl_result* result) {
  forget_earlier_calls();
  return fail(result, log_and_return(DL_LOG_HTTP, DL_ERR_PARAMETER, "%s", message));
}

int refuse_open(dl_result* result) {
  return refuse("http open with invalid parameter\n", result);
}

int refuse_upload(dl_result* result) {
  return refuse("http post file with invalid parameter\n", result);
}

// Runs the plan and hands the open session to the caller.
int open_into(dl_http_session** place, const http_plan& plan) {
  *place = nullptr;
  const cancel_hold hold;
  unique_http_session session;
  if (http_open(plan, session) < 0) return -1;
  *place = session.release();
  return 0;
}

bool is_complete(const dl_http_request* request, const char* redirect, const dl_result* result) {
  return request && request->url && redirect && result;
}

const dl_http_request* request_of(const dl_http_request_ex* extended) {
  return extended ? extended->request : nullptr;
}

http_plan ordinary_plan(const dl_http_request& request, char* redirect, dl_result& result) {
  return {.request = request, .redirect = redirect, .result = result, .refuse_304 = true};
}

http_plan extended_plan(const dl_http_request_ex& extended, char* redirect, dl_result& result) {
  return {.request = *extended.request,
          .redirect = redirect,
          .result = result,
          .auth_type = static_cast<http_auth_type>(extended.auth_type)};
}

}  // namespace

int dl_http_open(dl_http_session** session, const dl_http_request* request, char* redirect,
                 dl_result* result) {
  if (!session || !is_complete(request, redirect, result)) return refuse_open(result);
  return open_into(session, ordinary_plan(*request, redirect, *result));
}

int dl_http_open_ex(dl_http_session** session, const dl_http_request_ex* request, char* redirect,
                    dl_result* result) {
  if (!session || !is_complete(request_of(request), redirect, result)) return refuse_open(result);
  return open_into(session, extended_plan(*request, redirect, *result));
}

int dl_http_recv_to_file(const dl_http_request* request, const char* local_path, char* redirect,
                         dl_result* result) {
  if (!is_complete(request, redirect, result)) return refuse_open(result);
  return http_recv_to_file(ordinary_plan(*request, redirect, *result), local_path);
}

int dl_http_recv_to_file_ex(const dl_http_request_ex* request, const char* local_path, char* redirect,
                            dl_result* result) {
  if (!is_complete(request_of(request), redirect, result)) return refuse_open(result);
  return http_recv_to_file(extended_plan(*request, redirect, *result), local_path);
}

int dl_http_post_file(dl_http_session** session, const dl_http_request* request, const char* local_path,
                      char* redirect, dl_result* result) {
  if (!session || !is_complete(request, redirect, result) || !local_path) return refuse_upload(result);
  if (request->method != DL_METHOD_POST && request->method != DL_METHOD_PUT) return refuse_upload(result);
  *session = nullptr;
  return http_post_file(
      {.request = *request, .redirect = redirect, .result = *result, .file_path = local_path});
}

int dl_http_post_multi_auth(dl_http_session** session, const dl_http_request* request,
                            const dl_auth_info* credentials, int32_t count, char* redirect,
                            dl_result* result) {
  if (!session || !is_complete(request, redirect, result)) return refuse_upload(result);
  if (request->method != DL_METHOD_POST) return refuse_upload(result);
  http_plan plan{.request = *request, .redirect = redirect, .result = *result};
  if (credentials) {
    plan.auth_type = http_auth_type::credential_list;
    plan.credentials = credentials;
    plan.num_credentials = count;
  }
  return open_into(session, plan);
}

int dl_http_read(dl_http_session* session, char* buffer, int32_t size, dl_result* result) {
  return http_read(session, buffer, size, result);
}

void dl_http_close(dl_http_session* session) {
  http_close(session);
}

const char* dl_http_find_header_by_name(const dl_http_session* session, const char* name) {
  return session ? http_find_header_by_name(session->headers, or_empty(name)) : nullptr;
}

int dl_http_get_status(const dl_http_session* session) {
  return guarded([session] { return http_status(session); }, [] { return 0; });
}

int dl_http_body_end(const dl_http_session* session) {
  return guarded([session] { return int{http_body_end(session)}; }, [] { return int{DL_BODY_OPEN}; });
}

int dl_http_last_status() {
  return last_status();
}

int Curl_input_auth(http_auth_state* state, int proxy, const char* header) {
  if (!state) return HTTP_CHALLENGE_UNKNOWN;
  return read_challenge(side_of(*state, proxy), or_empty(header));
}

int Curl_output_auth(http_auth_state* state, int proxy, const char* method, const char* path) {
  if (!state) return HTTP_ANSWER_SCHEME;
  return build_answer(side_of(*state, proxy), or_empty(method), or_empty(path));
}

int Curl_output_digest(http_auth_state* state, int proxy, const char* method, const char* path) {
  if (!state) return HTTP_ANSWER_SCHEME;
  return build_digest_answer(side_of(*state, proxy), or_empty(method), or_empty(path));
}

int Curl_output_xsi_auth(http_auth_state* state) {
  return state ? build_xsi_answer(side_of(*state, 0)) : int{HTTP_ANSWER_SCHEME};
}

void Curl_digest_cleanup_one(digest_challenge* challenge) {
  if (challenge) release_challenge(*challenge);
}

void get_all_qop_content(const char* parameters, size_t name_len, char* value) {
  if (parameters && value) gather_qop_list(parameters, name_len, value);
}
