// command.h: the ground of the command's tests: a working directory of its own in which the built binary runs
// with the arguments a person would type. Standard error is no terminal there, so nothing but failures and
// warnings is told.
#ifndef FETCHRIG_TESTS_SUPPORT_COMMAND_H
#define FETCHRIG_TESTS_SUPPORT_COMMAND_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tests/support/descriptors.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace test {

inline const std::string fetchrig_binary = std::string(FETCHRIG_BINARY_DIR) + "/fetchrig";

class command_test : public leak_free {
 protected:
  // Runs "fetchrig" with the arguments to its end. `environment` holds "NAME=value".
  run_result fetchrig(std::vector<std::string> arguments,
                      const std::vector<std::string>& environment = {}) const {
    arguments.insert(arguments.begin(), fetchrig_binary);
    return run(arguments, {.directory = work_, .environment = environment});
  }
  // A path in the working directory.
  std::string path(std::string_view name) const { return work_ + "/" + std::string(name); }
  std::vector<std::string> work_names() const { return names_in(work_); }

  temp_dir place_;  // beside the working directory, for what belongs to servers
  const std::string work_ = place_.make_dir("work");
};

inline bool holds(const std::string& text, std::string_view part) {
  return text.find(part) != text.npos;
}

// The run ended well and told nothing but `output`.
inline void expect_done(const run_result& result, std::string_view output = "") {
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(output, result.output);
  EXPECT_EQ("", result.errors);
}

// The run ended with `status` and one message, which holds each of `parts`.
inline void expect_failed(const run_result& result, int status, const std::vector<std::string>& parts) {
  EXPECT_EQ(status, result.status);
  EXPECT_EQ(0u, result.errors.find("fetchrig: ")) << result.errors;
  for (const std::string& part : parts)
    EXPECT_TRUE(holds(result.errors, part)) << part << "\n" << result.errors;
}

}  // namespace test
#endif
