// SPDX-License-Identifier: MIT
// base64.h: base64 with the standard alphabet and padding (RFC 4648). Any thread.
#ifndef FETCHRIG_CORE_BASE64_H
#define FETCHRIG_CORE_BASE64_H

#include <cstddef>
#include <string_view>

#include "core/owners.h"

namespace fetchrig {

// Encodes into a new terminated text. Returns its length; without memory, 0 and a null text.
std::size_t base64_encode(unique_text& text, std::string_view bytes);

// Decodes into a new buffer with a terminator behind the bytes. Returns their number; for a text that is not
// base64 throughout, and without memory, 0 and null.
std::size_t base64_decode(unique_malloc<unsigned char>& bytes, std::string_view text);

}  // namespace fetchrig
#endif
