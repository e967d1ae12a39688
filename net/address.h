// SPDX-License-Identifier: MIT
// address.h: looking hosts up, and which of their addresses may be used. No state; any thread.
#ifndef FETCHRIG_NET_ADDRESS_H
#define FETCHRIG_NET_ADDRESS_H

#include <netdb.h>

#include <memory>

namespace fetchrig {

struct address_list_deleter {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, address_list_deleter>;

// The addresses of `host` (or null) for sockets of that type: IPv4 alone when `ipv6` is 0, else both. Null, logged,
// when there are none.
[[nodiscard]] address_list look_up_host(const char* host, int ipv6, int socket_type);

// The first address from `entry` on that may be used: IPv4, and IPv6 when `ipv6` is not 0. Null without one.
[[nodiscard]] const addrinfo* first_usable(const addrinfo* entry, int ipv6);

}  // namespace fetchrig
#endif
