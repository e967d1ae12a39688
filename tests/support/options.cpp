// options.cpp: initialisation and options with their results checked.
#include "tests/support/options.h"

#include <gtest/gtest.h>

namespace test {

library::library() {
  dl_config_init();
  dl_log_init(0, nullptr);  // the machine's own log stays out of the tests
  dl_set_tls_wait_limit(0);
}

library::~library() {
  dl_exit();
}

void set_option(dl_option option, uint32_t value) {
  EXPECT_EQ(0, dl_set_option(option, &value)) << "option " << option << " = " << value;
}

void set_option(dl_option option, const std::string& text) {
  EXPECT_EQ(0, dl_set_option(option, text.c_str())) << "option " << option << " = " << text;
}

void set_ring(uint8_t slot, uint8_t number, const std::string& name) {
  dl_ring_entry entry = {};
  entry.slot = slot;
  entry.number = number;
  name.copy(entry.name, sizeof entry.name - 1);
  EXPECT_EQ(0, dl_set_option(DL_OPT_RING_ENTRY, &entry)) << name;
}

}  // namespace test
