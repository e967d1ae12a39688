// SPDX-License-Identifier: MIT
// ringtone.cpp: turning the alert text of an incoming call into a ring.
#include "ringtone/ringtone.h"

#include <string.h>

#include <span>
#include <string_view>

#include "core/boundary.h"
#include "core/config.h"
#include "core/text.h"
#include "core/url.h"
#include "http/http_open.h"
#include "http/http_response_body.h"
#include "http/http_status.h"
#include "log/log.h"
#include "log/printable.h"
#include "ringtone/ring_cache.h"

const char* const ring_tab[4] = {"ringtone-", "Bellcore-dr", "MyMelody", nullptr};

// Little-endian: a chunk of 18 bytes, format 7, 1 channel, 8000 samples and bytes per second, blocks of 1.
const unsigned char wave_fmt[26] = {'W', 'A', 'V', 'E',  'f',  'm', 't', ' ',  18,   0, 0, 0, 7,
                                    0,   1,   0,   0x40, 0x1f, 0,   0,   0x40, 0x1f, 0, 0, 1, 0};

namespace fetchrig {
namespace {

constexpr std::size_t wave_fmt_offset = 8;
constexpr int32_t read_size = 512;
constexpr int fetch_failed = -1;

// A session at the start of the ring's body; null when there is none to be had.
unique_http_session open_session(const char* url) {
  dl_http_request request{};
  request.method = DL_METHOD_GET;
  request.url = url;
  char redirect[DL_REDIRECT_SIZE] = {};
  dl_result result{};
  unique_http_session session;
  const http_plan plan = {.request = request, .redirect = redirect, .result = result, .refuse_304 = true};
  if (http_open(plan, session) < 0) {
    log_line(DL_LOG_HTTP, DL_LOG_ERROR, "http open error, code:%d, msg:%s\n", result.code,
             printable(result.message).c_str());
  }
  return session;
}

bool is_wanted_wave(std::span<const char> start) {
  return start.size() >= wave_fmt_offset + sizeof wave_fmt &&
         memcmp(start.data() + wave_fmt_offset, wave_fmt, sizeof wave_fmt) == 0;
}

// A peer that closes early looks like the end of the body, and so does option 6 in a body of no announced length.
bool is_cut_short(const dl_http_session* session) {
  const dl_body_end end = http_body_end(session);
  if (end == DL_BODY_UNMARKED) return session->remaining == 0;
  return end != DL_BODY_WHOLE;
}

// Copies the body into the cache file: what `buffer` holds already, `held` bytes, and then the rest.
int copy_body(dl_http_session* session, std::span<char> buffer, int held, ring_cache_file& file,
              const std::string& path) {
  uint32_t total = 0;
  while (held > 0) {
    const auto count = static_cast<uint32_t>(held);
    total += count;
    if (total > max_ring_bytes) return log_and_return(DL_LOG_HTTP, fetch_failed, "File size exceeded\n");
    if (!file.write(buffer.first(count)))
      return log_and_return(DL_LOG_HTTP, fetch_failed, "can't write file:%s\n", path.c_str());
    dl_result result{};
    held = http_read(session, buffer.data(), static_cast<int32_t>(buffer.size()), &result);
  }
  return held < 0 || is_cut_short(session) ? log_and_return(DL_LOG_HTTP, fetch_failed, "Down load Error\n")
                                           : 0;
}

int download_wave(const char* url, const std::string& path) {
  const unique_http_session session = open_session(url);
  if (!session) return -1;
  if (session->remaining > max_ring_bytes)
    return log_and_return(DL_LOG_HTTP, fetch_failed, "File size exceeded\n");
  char buffer[read_size];
  dl_result result{};
  const int held = http_read(session.get(), buffer, read_size, &result);
  if (held < 0) return log_and_return(DL_LOG_HTTP, fetch_failed, "read error\n");
  if (!is_wanted_wave({buffer, static_cast<std::size_t>(held)}))
    return log_and_return(DL_LOG_HTTP, fetch_failed, "Wrong Wave Format\n");
  ring_cache_file file(path);
  if (!file.open()) return log_and_return(DL_LOG_HTTP, fetch_failed, "can't open file:%s\n", path.c_str());
  if (const int rc = copy_body(session.get(), buffer, held, file, path); rc < 0) return rc;
  return file.finish() ? 0 : log_and_return(DL_LOG_HTTP, fetch_failed, "can't write file:%s\n", path.c_str());
}

int fetch_wave(const char* url, char* path, uint32_t path_size) {
  const std::string cached = ring_cache_path(url);
  const bool held = is_regular_file(cached.c_str());
  if (!held && download_wave(url, cached) < 0) return -1;
  if (path_size > 0) copy_text({path, path_size}, cached);
  return held ? 1 : 0;
}

bool asks_for_name(const char* host) {
  return equal_ignoring_case(host, "127.0.0.1") || equal_ignoring_case(host, placeholder_ring_host);
}

}  // namespace

int ring_prefix_lookup(const char* name, int32_t* ring_number) {
  for (const char* const* prefix = ring_tab; *prefix; ++prefix) {
    if (!starts_ignoring_case(name, *prefix)) continue;
    const std::string_view digits = std::string_view(name).substr(strlen(*prefix));
    if (const auto number = leading_number(digits, INT32_MAX)) *ring_number = static_cast<int32_t>(*number);
    return 1;
  }
  return 0;
}

int ring_name_lookup(const char* name, int32_t* ring_number) {
  if (or_empty(name).empty()) return 0;
  if (ring_prefix_lookup(name, ring_number)) return 1;
  const int number = ring_number_of(name);
  if (number < 0) return 0;
  *ring_number = number;
  return 1;
}

// Without memory the caller still falls back to the ring name, which needs none.
int ring_fetch_wave(const char* url, char* path, uint32_t path_size) {
  return guarded([&] { return fetch_wave(url, path, path_size); }, [] { return -1; });
}

int find_ring(const char* alert, const char* ring_name, int32_t* ring_number, char* path,
              uint32_t path_size) {
  if (or_empty(alert).empty()) return ring_name_lookup(ring_name, ring_number);
  unique_url url;
  const bool is_url = parse_url(url, alert, nullptr, nullptr) == 0;
  if (!is_url) return ring_name_lookup(or_empty(ring_name).empty() ? alert : ring_name, ring_number);
  const bool by_name = asks_for_name(url->host);
  url.reset();
  if (!by_name && ring_fetch_wave(alert, path, path_size) >= 0) return 1;
  return ring_name_lookup(ring_name, ring_number);
}

}  // namespace fetchrig
