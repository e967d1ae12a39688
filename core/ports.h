// SPDX-License-Identifier: MIT
// ports.h: port numbers: their bound, and the default of each protocol.
#ifndef FETCHRIG_CORE_PORTS_H
#define FETCHRIG_CORE_PORTS_H

#include <stdint.h>

namespace fetchrig {

inline constexpr uint32_t max_port = 65535;

inline constexpr uint16_t http_port = 80;
inline constexpr uint16_t https_port = 443;
inline constexpr uint16_t ftp_port = 21;
inline constexpr uint16_t tftp_port = 69;

}  // namespace fetchrig
#endif
