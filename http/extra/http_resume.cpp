// SPDX-License-Identifier: MIT
// http_resume.cpp: ranges, and what tells one version of a file from the next.
#include "http/extra/http_resume.h"

#include <string.h>
#include <time.h>

#include <array>

#include "core/cursor.h"
#include "core/dispatch_url.h"
#include "core/extra/partial_file.h"
#include "core/result.h"
#include "core/text.h"
#include "http/http_download.h"
#include "http/http_headers.h"
#include "http/http_response_body.h"
#include "http/http_status.h"
#include "log/log.h"

namespace fetchrig {
namespace {

using std::string_view;

constexpr int status_partial = 206;
constexpr int status_range_refused = 416;
// Two changes within one second have one date.
constexpr int64_t settled_s = 60;

string_view value_of(const char* headers, string_view name) {
  const char* const line = http_find_header(headers, name);
  return line ? trim_white_space(string_view(line).substr(name.size() + 1)) : string_view();
}

// Two digits, or four.
std::optional<int> digits(cursor& in, std::size_t count) {
  const auto text = in.take(count);
  const auto number = text ? whole_number(*text, 9999) : std::nullopt;
  return number ? std::optional<int>(static_cast<int>(*number)) : std::nullopt;
}

std::optional<int> month(cursor& in) {
  constexpr string_view names = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const auto name = in.take(3);
  const auto at = name ? names.find(*name) : string_view::npos;
  if (at == string_view::npos || at % 3 != 0) return std::nullopt;
  return static_cast<int>(at / 3);
}

// What one user is shown under a URL may not be what another one is.
std::string url_with_user(const dl_http_request& request) {
  string_view text = request.url, user = or_empty(request.user);
  text = text.substr(0, text.find('#'));
  const auto scheme = text.find("://");
  const std::size_t host = scheme == string_view::npos ? 0 : scheme + 3;
  const auto authority = text.substr(host, text.find_first_of("/?", host) - host);
  const auto login = authority.rfind('@');
  const std::size_t skipped = login == string_view::npos ? 0 : login + 1;
  if (user.empty() && skipped > 0) user = authority.substr(0, authority.find_first_of(":@"));
  std::string whole(text.substr(0, host));
  if (!user.empty()) whole.append(user).append("@");
  return whole.append(text.substr(host + skipped));
}

// One download with its part.
class resumed_download {
 public:
  explicit resumed_download(const http_plan& plan) : plan_(plan), url_(url_with_user(plan.request)) {}

  int run(const char* path);

 private:
  enum class answer { rest, whole, unusable };

  int ask(unique_http_session& session, bool ranged);
  answer judge(const dl_http_session& session, bool ranged) const;
  bool is_rest(const dl_http_session& session) const;
  part_source source_of(const dl_http_session& session) const;
  int receive(dl_http_session& session);

  const http_plan& plan_;
  const std::string url_;
  partial_file part_{DL_LOG_HTTP};
};

int resumed_download::run(const char* path) {
  clear_result(plan_.result);
  if (!part_.open(path)) return fail(&plan_.result, DL_ERR_READ);
  bool ranged = part_.held() > 0 && part_.source().url == url_ && !part_.source().validator.empty();
  for (;;) {
    unique_http_session session;
    const int rc = ask(session, ranged);
    const bool refused = rc < 0 && plan_.result.code == status_range_refused;
    if (rc < 0 && !(ranged && refused)) return -1;
    const answer got = rc < 0 ? answer::unusable : judge(*session, ranged);
    if (got == answer::whole && part_.start_anew(source_of(*session)) != 0)
      return fail(&plan_.result, DL_ERR_READ);
    if (got != answer::unusable) return receive(*session);
    if (!ranged) return fail(&plan_.result, DL_ERR_READ);
    log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "the rest cannot be had, all of it again\n");
    ranged = false;
  }
}

int resumed_download::ask(unique_http_session& session, bool ranged) {
  http_plan plan = plan_;
  std::optional<http_range> range;
  if (ranged) {
    range = http_range{"bytes=" + std::to_string(part_.held()) + "-", part_.source().validator};
    plan.range = &*range;
  }
  return http_open(plan, session);
}

resumed_download::answer resumed_download::judge(const dl_http_session& session, bool ranged) const {
  if (http_status(&session) != status_partial) return answer::whole;
  return ranged && is_rest(session) ? answer::rest : answer::unusable;
}

// Everything that the response tells says that it is the rest of what is held.
bool resumed_download::is_rest(const dl_http_session& session) const {
  const part_source& held = part_.source();
  const auto range = parse_content_range(value_of(session.headers, "content-range"));
  if (!range || range->first != part_.held() || range->last + 1 != range->total) return false;
  const whole_body& body = *find_http_private(&session)->whole;
  if (body.framed != whole_body::framing::length || body.left != range->last + 1 - range->first) return false;
  if (held.size != part_source::unknown_size && held.size != range->total) return false;
  const string_view tag = value_of(session.headers, "etag");
  if (held.validator.starts_with('"')) return tag == held.validator;
  const string_view changed = value_of(session.headers, "last-modified");
  return changed.empty() || changed == held.validator;
}

part_source resumed_download::source_of(const dl_http_session& session) const {
  const auto length = whole_number(value_of(session.headers, "content-length"), INT64_MAX);
  return {url_, strong_validator(session.headers), length.value_or(part_source::unknown_size)};
}

int resumed_download::receive(dl_http_session& session) {
  http_channel channel(session);
  download_file file(DL_LOG_HTTP, http_file_step, channel.own->whole->limit);
  file.open(part_);
  const int rc = http_copy_body(channel, file, plan_.result);
  log_line(DL_LOG_HTTP, DL_LOG_NOTICE, "recv : %lld bytes\n", static_cast<long long>(file.total()));
  if (channel.own->whole->too_long) part_.drop();
  return rc;
}

}  // namespace

std::optional<int64_t> http_date(string_view text) {
  cursor in(text);
  tm time = {};
  if (!in.take_until(' ')) return std::nullopt;
  const auto day = digits(in, 2);
  if (!day || !in.skip(" ")) return std::nullopt;
  const auto in_month = month(in);
  if (!in_month || !in.skip(" ")) return std::nullopt;
  const auto year = digits(in, 4);
  if (!year || !in.skip(" ")) return std::nullopt;
  const auto hour = digits(in, 2);
  if (!hour || !in.skip(":")) return std::nullopt;
  const auto minute = digits(in, 2);
  if (!minute || !in.skip(":")) return std::nullopt;
  const auto second = digits(in, 2);
  if (!second || !in.skip(" GMT") || !in.empty()) return std::nullopt;
  time.tm_mday = *day;
  time.tm_mon = *in_month;
  time.tm_year = *year - 1900;
  time.tm_hour = *hour;
  time.tm_min = *minute;
  time.tm_sec = *second;
  return int64_t{timegm(&time)};
}

std::string strong_validator(const char* headers) {
  const string_view tag = value_of(headers, "etag");
  if (tag.size() >= 2 && tag.starts_with('"') && tag.ends_with('"')) return std::string(tag);
  const string_view changed = value_of(headers, "last-modified");
  const auto changed_s = http_date(changed), sent_s = http_date(value_of(headers, "date"));
  if (!changed_s || !sent_s || *sent_s - *changed_s < settled_s) return {};
  return std::string(changed);
}

std::optional<content_range> parse_content_range(string_view text) {
  cursor in(text);
  if (!in.skip("bytes ")) return std::nullopt;
  const auto first = in.number(INT64_MAX);
  if (!first || !in.skip("-")) return std::nullopt;
  const auto last = in.number(INT64_MAX);
  if (!last || !in.skip("/")) return std::nullopt;
  const auto total = in.number(INT64_MAX);
  if (!total || !in.empty() || *first > *last || *last >= *total) return std::nullopt;
  return content_range{*first, *last, *total};
}

bool can_resume(const http_plan& plan, const char* path) {
  const char* const headers = plan.request.headers;
  const bool asks_itself = headers && strcasestr(headers, "range:");
  const bool is_recordable = !has_line_break(or_empty(plan.request.user));
  return plan.request.method == DL_METHOD_GET && !asks_itself && is_recordable && partial_file::fits(path);
}

int resume_download(const http_plan& plan, const char* path) {
  return resumed_download(plan).run(path);
}

}  // namespace fetchrig
