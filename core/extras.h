// SPDX-License-Identifier: MIT
// extras.h: what an application has switched on beyond the classic behaviour of the protocols. What a switch does is
// in the extra/ folder of its layer; the classic way asks for it at one seam in each layer. All of it can be left out
// of the build: then everything here is 0 and cannot be set. Any thread; copies are made under the configuration lock.
#ifndef FETCHRIG_CORE_EXTRAS_H
#define FETCHRIG_CORE_EXTRAS_H

#include <stdint.h>

#include "include/fetchrig_types.h"

namespace fetchrig {

// The values of enum dl_extra; the TLS wait limit is core/config.h's.
struct transfer_extras {
  bool redirects = false;
  bool proxy = false;
  bool digest = false;
  bool whole_bodies = false;
  bool resume = false;
  bool ftp_fallbacks = false;
  bool ftp_tls = false;
  bool tftp_ports = false;
  uint32_t tftp_window = 0;
  uint32_t tftp_blksize = 0;
  uint32_t kept_connections = 0;
  uint64_t size_limit = 0;  // bytes; 0: option 6

  // The largest file of a transfer, where option 6 says `option`.
  [[nodiscard]] uint64_t max_file_size(uint32_t option) const {
    return whole_bodies && size_limit != 0 ? size_limit : option;
  }
};

#if FETCHRIG_EXTRAS

// As of one moment: a transfer asks once, when it begins. All off before initialisation.
[[nodiscard]] transfer_extras current_extras();

// Set one of them, a set of them (enum dl_extras), or the size limit; initialise the library first when needed. Return
// 0, or -1 for what is unknown or out of range.
[[nodiscard]] int store_extra(uint32_t extra, uint32_t value);
[[nodiscard]] int store_extras(uint32_t set);
[[nodiscard]] int store_size_limit(uint64_t bytes);

// The value of one of them; 0 for an unknown one.
[[nodiscard]] uint32_t read_extra(uint32_t extra);

// All off, with the start of the library; no other thread uses it yet.
void clear_extras();

// Has `end` called when the library ends, or keeps fewer connections from now on; once, however often it is asked for.
// For what is kept between transfers.
void at_library_end(void (*end)());
// Calls it.
void end_extras();

#else

[[nodiscard]] constexpr transfer_extras current_extras() {
  return {};
}
[[nodiscard]] constexpr int store_extra(uint32_t /*extra*/, uint32_t /*value*/) {
  return -1;
}
[[nodiscard]] constexpr int store_extras(uint32_t /*set*/) {
  return -1;
}
[[nodiscard]] constexpr int store_size_limit(uint64_t /*bytes*/) {
  return -1;
}
[[nodiscard]] constexpr uint32_t read_extra(uint32_t /*extra*/) {
  return 0;
}
constexpr void clear_extras() {}
constexpr void end_extras() {}

#endif

}  // namespace fetchrig
#endif
