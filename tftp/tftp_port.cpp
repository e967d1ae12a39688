// tftp_port.cpp: drawing local ports.
#include "tftp/tftp_port.h"

namespace fetchrig {

tftp_ports::tftp_ports(unsigned seed) {
  initstate_r(seed, memory_, sizeof memory_, &state_);
}

uint16_t tftp_ports::next() {
  constexpr int first = 1024;
  constexpr int num_ports = 64511;
  int32_t drawn = 0;
  random_r(&state_, &drawn);
  return static_cast<uint16_t>(first + drawn % num_ports);
}

}  // namespace fetchrig
