// tftp_port.h: which local ports a session tries: those that libc's rand() would name after srand() with the time, so
// that a firewall's rules for them hold. They come from a state of our own: the program's rand() goes on as it was. One
// thread at a time per object.
#ifndef FETCHRIG_TFTP_TFTP_PORT_H
#define FETCHRIG_TFTP_TFTP_PORT_H

#include <stdint.h>
#include <stdlib.h>

namespace fetchrig {

class tftp_ports {
 public:
  explicit tftp_ports(unsigned seed);
  tftp_ports(const tftp_ports&) = delete;
  tftp_ports& operator=(const tftp_ports&) = delete;

  // The next port, 1024 to 65534.
  [[nodiscard]] uint16_t next();

 private:
  char memory_[128] = {};  // the size of the state behind rand()
  random_data state_ = {};
};

}  // namespace fetchrig
#endif
