// SPDX-License-Identifier: MIT
// url_reference.h: what a URL reference leads to from a base (RFC 3986 section 5). Knows texts. Any thread.
#ifndef FETCHRIG_HTTP_EXTRA_URL_REFERENCE_H
#define FETCHRIG_HTTP_EXTRA_URL_REFERENCE_H

#include <string>
#include <string_view>

namespace fetchrig {

// The target of `reference` as seen from the absolute URL `base`, dots resolved, without a fragment. An authority and a
// query without a path between them get "/". Nothing is decoded or checked.
[[nodiscard]] std::string resolve_reference(std::string_view base, std::string_view reference);

}  // namespace fetchrig
#endif
