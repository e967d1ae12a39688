// options.h: the library between dl_config_init() and dl_exit(), and setters that fail the test when the
// library refuses a value.
#ifndef FETCHRIG_TESTS_SUPPORT_OPTIONS_H
#define FETCHRIG_TESTS_SUPPORT_OPTIONS_H

#include <stdint.h>

#include <string>

#include "include/fetchrig.h"

namespace test {

// The library with its default options; one at a time.
class library {
 public:
  library();
  ~library();
  library(const library&) = delete;
  library& operator=(const library&) = delete;
};

void set_option(dl_option option, uint32_t value);
void set_option(dl_option option, const std::string& text);
void set_ring(uint8_t slot, uint8_t number, const std::string& name);

}  // namespace test
#endif
