// url.h: an owner for the records of dl_url_parse(). The parser itself is exported (fetchrig.h). Any thread.
#ifndef FETCHRIG_CORE_URL_H
#define FETCHRIG_CORE_URL_H

#include <memory>

#include "include/fetchrig.h"

namespace fetchrig {

inline constexpr uint32_t scheme_http = 0;
inline constexpr uint32_t scheme_https = 1;

struct url_deleter {
  void operator()(dl_url* url) const { dl_url_free(url); }
};
using unique_url = std::unique_ptr<dl_url, url_deleter>;

}  // namespace fetchrig
#endif
