// SPDX-License-Identifier: MIT
// address.cpp: look-ups with the IPv6 rule.
#include "net/address.h"

#include "core/cause.h"
#include "log/log.h"

namespace fetchrig {

address_list look_up_host(const char* host, int ipv6, int socket_type) {
  addrinfo hints = {};
  hints.ai_family = ipv6 ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = socket_type;
  addrinfo* list = nullptr;
  const int error = host ? ::getaddrinfo(host, nullptr, &hints, &list) : EAI_NONAME;
  if (error == 0) return address_list(list);
  note_cause(DL_CAUSE_HOST, error);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "getaddrinfo: %s\n", gai_strerror(error));
  return nullptr;
}

const addrinfo* first_usable(const addrinfo* entry, int ipv6) {
  for (; entry; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET || (entry->ai_family == AF_INET6 && ipv6)) return entry;
  }
  return nullptr;
}

}  // namespace fetchrig
