// SPDX-License-Identifier: MIT
// http_extras.h: the policy of an exchange by what an application has switched on: DL_EXTRA_REDIRECTS, DL_EXTRA_PROXY,
// DL_EXTRA_DIGEST.
#ifndef FETCHRIG_HTTP_EXTRA_HTTP_EXTRAS_H
#define FETCHRIG_HTTP_EXTRA_HTTP_EXTRAS_H

#include <memory>

#include "core/extras.h"
#include "http/http_policy.h"

namespace fetchrig {

#if FETCHRIG_EXTRAS

// Makes the request's policy; none is made when nothing of it is switched on. Returns 0, or a negative code for a proxy
// whose URL does not parse.
[[nodiscard]] int make_http_policy(std::unique_ptr<http_policy>& policy, const transfer_extras& extras,
                                   const dl_http_request& request);

#else

[[nodiscard]] inline int make_http_policy(std::unique_ptr<http_policy>& /*policy*/,
                                          const transfer_extras& /*extras*/,
                                          const dl_http_request& /*request*/) {
  return 0;
}

#endif

}  // namespace fetchrig
#endif
