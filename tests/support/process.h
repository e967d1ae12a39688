// process.h: runs a command line and takes what it prints. One thread at a time.
#ifndef FETCHRIG_TESTS_SUPPORT_PROCESS_H
#define FETCHRIG_TESTS_SUPPORT_PROCESS_H

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace test {

struct run_result {
  int status;  // the exit status, -1 when there is none
  std::string output;
};

// By sh; standard error goes where the test's goes.
inline run_result run(const std::string& command_line) {
  FILE* const pipe = popen(command_line.c_str(), "re");
  run_result ended = {-1, ""};
  if (!pipe) return ended;
  for (int c = getc(pipe); c != EOF; c = getc(pipe)) ended.output += static_cast<char>(c);
  const int status = pclose(pipe);
  if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
  return ended;
}

}  // namespace test
#endif
