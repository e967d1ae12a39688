// options.h: the library between dl_config_init() and dl_exit(), and setters that fail the test when the
// library refuses a value.
#ifndef FETCHRIG_TESTS_SUPPORT_OPTIONS_H
#define FETCHRIG_TESTS_SUPPORT_OPTIONS_H

#include <gtest/gtest.h>

#include <string>

#include "include/fetchrig.h"

namespace test {

// The library with its default options; one at a time.
class library {
 public:
  library() {
    dl_config_init();
    dl_log_init(0, nullptr);  // the machine's own log stays out of the tests
    dl_set_tls_wait_limit(0);
  }
  ~library() { dl_exit(); }
  library(const library&) = delete;
  library& operator=(const library&) = delete;
};

inline void set_option(dl_option option, uint32_t value) {
  EXPECT_EQ(0, dl_set_option(option, &value)) << "option " << option << " = " << value;
}
inline void set_option(dl_option option, const std::string& text) {
  EXPECT_EQ(0, dl_set_option(option, text.c_str())) << "option " << option << " = " << text;
}

}  // namespace test
#endif
