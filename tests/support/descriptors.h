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

// Fails the test when, at its end, descriptors are open that were not when it was made.
class descriptor_check {
 public:
  descriptor_check() : before_(open_descriptors()) {}
  ~descriptor_check();
  descriptor_check(const descriptor_check&) = delete;
  descriptor_check& operator=(const descriptor_check&) = delete;

 private:
  std::map<int, std::string> before_;
};

// A fixture whose tests leak none, the members of classes derived from it included.
class leak_free : public ::testing::Test {
 private:
  descriptor_check check_;
};

}  // namespace test
#endif
