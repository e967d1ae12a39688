// SPDX-License-Identifier: MIT
// tftp_port.h: which local ports a session tries: those that libc's rand() would name after srand() with the time, so
// that a firewall's rules for them hold; the program's rand() goes on as it was. One thread at a time per object.
#ifndef FETCHRIG_TFTP_TFTP_PORT_H
#define FETCHRIG_TFTP_TFTP_PORT_H

#include <stdint.h>

#include "core/libc_rand.h"

namespace fetchrig {

class tftp_ports {
 public:
  explicit tftp_ports(unsigned seed) : values_(seed) {}

  // The next port, 1024 to 65534.
  [[nodiscard]] uint16_t next();

 private:
  libc_rand values_;
};

}  // namespace fetchrig
#endif
