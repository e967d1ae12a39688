// SPDX-License-Identifier: MIT
// exports.cpp: the exported calls of the core: configuration, transfers by URL, URLs, files and text. The helpers at
// the end stand in for standard functions and accept null where those would crash; they only compute on their
// arguments, so nothing guards them.
#include <openssl/md5.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/base64.h"
#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/dispatch.h"
#include "core/dispatch_request.h"
#include "core/dispatch_upload.h"
#include "core/extras.h"
#include "core/files.h"
#include "core/owners.h"
#include "core/result.h"
#include "core/text.h"
#include "core/url.h"
#include "include/fetchrig_openssl.h"
#include "log/clock.h"
#include "log/log.h"

using namespace fetchrig;

namespace {

// Runs a call of the dispatcher. Its own failures, out of memory included, leave the result record as it is.
template <typename Work>
int dispatched(const char* name, Work work) {
  const auto logged_work = [&] {
    log_entry(name);
    return work();
  };
  return guarded(logged_work, [] { return -1; });
}

int invalid_parameter() {
  return dispatch_failed("Invalid Param!\n");
}

}  // namespace

// ------------------------------------------------------------------ configuration and results

const char* dl_get_version(void) {
  return library_version;
}

int dl_config_init(void) {
  guarded([] { config_init(); });
  return 0;
}

int32_t dl_set_option(uint32_t option, const void* value) {
  if (!value) return -1;
  return guarded([&] { return store_option(option, value); }, [] { return -1; });
}

int32_t dl_get_option(uint32_t option, char* buffer, uint32_t size) {
  return buffer ? read_option(option, {buffer, size}) : -1;
}

void dl_exit(void) {
  guarded([] { config_exit(); });
}

void dl_set_tls_wait_limit(uint32_t seconds) {
  set_tls_wait_limit(seconds);
}

int dl_set_extra(uint32_t extra, uint32_t value) {
  return guarded([&] { return store_extra(extra, value); }, [] { return -1; });
}

uint32_t dl_get_extra(uint32_t extra) {
  return read_extra(extra);
}

int dl_set_extras(uint32_t set) {
  return guarded([&] { return store_extras(set); }, [] { return -1; });
}

int dl_set_size_limit(uint64_t bytes) {
  return guarded([&] { return store_size_limit(bytes); }, [] { return -1; });
}

int dl_get_error_string(int32_t code, char* buffer, uint32_t size) {
  return snprintf(buffer, buffer ? size : 0, "%s", error_text(code));
}

int dl_last_cause(dl_cause_info* info) {
  const dl_cause_info& cause = last_cause();
  if (info) *info = cause;
  return cause.cause;
}

// ------------------------------------------------------------------ transfers over any protocol

int dl_open(const dl_request* request, dl_handle** handle, char* redirect, dl_result* result) {
  clear_cause();
  return dispatched("dl_open", [&] {
    if (handle) *handle = nullptr;
    if (!request || !request->url || !result || !handle) return invalid_parameter();
    return open_transfer(*handle, *request, redirect, *result);
  });
}

int dl_read(dl_handle* handle, char* buffer, int32_t size, dl_result* result) {
  return dispatched("dl_read", [&] {
    if (!handle || !result || !buffer || size <= 0) return invalid_parameter();
    return read_transfer(*handle, buffer, size, *result);
  });
}

void dl_close(dl_handle* handle) {
  dispatched("dl_close", [&] {
    if (!handle) return invalid_parameter();
    close_transfer(handle);
    return 0;
  });
}

int dl_download(const dl_request* request, const char* local_path, char* redirect, dl_result* result) {
  clear_cause();
  return dispatched("dl_download", [&] {
    if (!request || !request->url || !result || !local_path) return invalid_parameter();
    return download(*request, local_path, redirect, *result);
  });
}

int dl_upload(const dl_request* request, const char* local_path, const char* remote_name, char* redirect,
              dl_result* result, const char* headers, int32_t mode, uint32_t limit_mode) {
  clear_cause();
  return dispatched("dl_upload", [&] {
    if (!result || !request || !request->url || !local_path) return invalid_parameter();
    return upload({*request, local_path, remote_name, redirect, result, headers, mode, limit_mode});
  });
}

// ------------------------------------------------------------------ URLs

dl_url* dl_url_parse(const char* url, const char* user, const char* password, int32_t* code) {
  unique_url parsed;
  const int outcome = parse_url(parsed, url, user, password);
  if (code) *code = outcome;
  return parsed.release();
}

void dl_url_free(dl_url* url) {
  free_url(url);
}

int scheme_default_port(uint32_t scheme) {
  return default_port(scheme);
}

char* strdupdelim(const char* start, const char* end) {
  if (!start || end < start) return nullptr;
  return duplicate_text({start, static_cast<size_t>(end - start)}).release();
}

void str2lower(char* text, int count, char stop) {
  if (text && count > 0) lower_in_place({text, static_cast<size_t>(count)}, stop);
}

// ------------------------------------------------------------------ files and dial-pad texts

int isfromdialpad(const char* text) {
  for (; *text != '\0'; ++text) {
    if (!is_digit(*text) && *text != '#' && *text != '*') return 0;
  }
  return 1;
}

int dl_path_is_directory(const char* path) {
  return guarded([path] { return is_directory(path) ? 1 : 0; }, [] { return 0; });
}

int32_t dl_get_file_size(const char* path) {
  return guarded([path] { return file_size(path); }, [] { return -1; });
}

int dl_copy_file(const char* source, const char* target) {
  if (!source || !target) return -1;
  return guarded([&] { return copy_file(source, target); }, [] { return -1; });
}

int dl_get_file_md5(const char* path, char* digest) {
  const auto work = [&] {
    if (!digest) return log_and_return(DL_LOG_CMN, -1, "MD5 error\n");
    md5_text digits;
    const int rc = file_md5(digits, path);
    if (rc == 0) memcpy(digest, digits.data(), digits.size());
    return rc;
  };
  return guarded(work, [] { return -1; });
}

// ------------------------------------------------------------------ helpers

size_t Curl_base64_encode(const char* input, size_t size, char** out) {
  if (!out) return 0;
  unique_text text;
  const size_t length = base64_encode(text, input ? std::string_view(input, size) : std::string_view());
  *out = text.release();
  return length;
}

size_t Curl_base64_decode(const char* text, unsigned char** out) {
  if (!out) return 0;
  unique_malloc<unsigned char> bytes;
  const size_t size = text ? base64_decode(bytes, text) : 0;
  *out = bytes.release();
  return size;
}

void Curl_md5it(unsigned char* digest, const unsigned char* text) {
  if (!digest) return;
  const auto* bytes = text ? text : reinterpret_cast<const unsigned char*>("");
  MD5(bytes, strlen(reinterpret_cast<const char*>(bytes)), digest);
}

int curl_mvprintf(const char* format, va_list arguments) {
  return curl_mvfprintf(stdout, format, arguments);
}

int curl_mvfprintf(FILE* stream, const char* format, va_list arguments) {
  if (!stream || !format) return -1;
  const cancel_hold hold;
  return vfprintf(stream, format, arguments);
}

int curl_mvsprintf(char* buffer, const char* format, va_list arguments) {
  if (!buffer || !format) return -1;
  return vsprintf(buffer, format, arguments);
}

int curl_mvsnprintf(char* buffer, size_t size, const char* format, va_list arguments) {
  if (!format || (!buffer && size > 0)) return -1;
  return vsnprintf(buffer, size, format, arguments);
}

char* curl_mvaprintf(const char* format, va_list arguments) {
  char* text = nullptr;
  if (!format || vasprintf(&text, format, arguments) < 0) return nullptr;
  return text;
}

int curl_mprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvprintf(format, arguments);
  va_end(arguments);
  return written;
}

int curl_mfprintf(FILE* stream, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvfprintf(stream, format, arguments);
  va_end(arguments);
  return written;
}

int curl_msprintf(char* buffer, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvsprintf(buffer, format, arguments);
  va_end(arguments);
  return written;
}

int curl_msnprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int written = curl_mvsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return written;
}

char* curl_maprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* const text = curl_mvaprintf(format, arguments);
  va_end(arguments);
  return text;
}

// Null equals null alone.
int Curl_raw_equal(const char* first, const char* second) {
  return Curl_raw_nequal(first, second, SIZE_MAX);
}

int Curl_raw_nequal(const char* first, const char* second, size_t max) {
  if (!first || !second) return first == second ? 1 : 0;
  return equal_ignoring_case({first, strnlen(first, max)}, {second, strnlen(second, max)}) ? 1 : 0;
}

char* Curl_strtok_r(char* text, const char* separators, char** rest) {
  if (!separators || !rest || (!text && !*rest)) return nullptr;
  return strtok_r(text, separators, rest);
}

timeval curlx_tvnow(void) {
  return time_of_day();
}

void Curl_safefree(void* memory) {
  free(memory);
}
