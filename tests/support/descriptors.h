// descriptors.h: a check that a test leaves no open descriptor behind. The socket to the system's log, which
// the library keeps open on purpose, does not count. No other thread may open or close descriptors at its
// ends.
#ifndef FETCHRIG_TESTS_SUPPORT_DESCRIPTORS_H
#define FETCHRIG_TESTS_SUPPORT_DESCRIPTORS_H

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace test {

// The process's open descriptors and what each stands for.
std::map<int, std::string> open_descriptors();

// Fails the test when, at its end, other descriptors are open than when it was made.
class descriptor_check {
 public:
  ~descriptor_check() { EXPECT_EQ(open_descriptors(), before_) << "descriptors were left open"; }

 private:
  const std::map<int, std::string> before_ = open_descriptors();
};

// A fixture whose tests leak none, the members of classes derived from it included.
class leak_free : public ::testing::Test {
  const descriptor_check check_;
};

}  // namespace test
#endif
