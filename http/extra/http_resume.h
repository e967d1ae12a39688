// SPDX-License-Identifier: MIT
// http_resume.h: downloads that go on with what an earlier one left (RFC 9110 section 14), with DL_EXTRA_RESUME: a
// range is asked for on the condition that the source is still the same (If-Range with a strong validator); what comes
// is taken for the rest only when everything says so, else the file is fetched anew. The part waits in
// core/extra/partial_file.h. One thread at a time.
#ifndef FETCHRIG_HTTP_EXTRA_HTTP_RESUME_H
#define FETCHRIG_HTTP_EXTRA_HTTP_RESUME_H

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "http/http_open.h"

namespace fetchrig {

// The strong validator of a stored header block: an entity tag, or the time of the last change where that lies a minute
// before the response (section 8.8.2.2); empty without one.
[[nodiscard]] std::string strong_validator(const char* headers);

// "Sun, 06 Nov 1994 08:49:37 GMT" in seconds since 1970; nothing for another text.
[[nodiscard]] std::optional<int64_t> http_date(std::string_view text);

// The value of "Content-Range".
struct content_range {
  uint64_t first, last, total;
};
[[nodiscard]] std::optional<content_range> parse_content_range(std::string_view text);

#if FETCHRIG_EXTRAS

// Whether a download into this file can be gone on with: by a GET that asks for no range itself.
[[nodiscard]] bool can_resume(const http_plan& plan, const char* path);

// Downloads the rest, or all of it. Returns 0, or -1 with the plan's result filled; the part stays for the next call.
[[nodiscard]] int resume_download(const http_plan& plan, const char* path);

#else

[[nodiscard]] inline bool can_resume(const http_plan& /*plan*/, const char* /*path*/) {
  return false;
}
[[nodiscard]] inline int resume_download(const http_plan& /*plan*/, const char* /*path*/) {
  return -1;
}

#endif

}  // namespace fetchrig
#endif
