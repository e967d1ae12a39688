// SPDX-License-Identifier: MIT
// tftp_port.cpp: drawing local ports.
#include "tftp/tftp_port.h"

namespace fetchrig {

uint16_t tftp_ports::next() {
  constexpr int first = 1024;
  constexpr int num_ports = 64511;
  return static_cast<uint16_t>(first + values_.next() % num_ports);
}

}  // namespace fetchrig
