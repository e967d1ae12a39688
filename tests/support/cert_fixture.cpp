// cert_fixture.cpp: the openssl tool and the library's log for the certificate tests.
#include "tests/support/cert_fixture.h"

#include <openssl/err.h>
#include <signal.h>

#include <algorithm>

#include "tests/support/process.h"

namespace test {

cert_test::cert_test() {
  set_option(DL_OPT_TRUST_CA_DIR, store());
  forget_log();
}

cert_test::~cert_test() {
  EXPECT_EQ(ERR_peek_error(), 0u) << "an error is left for the thread's next TLS call";
}

std::string cert_test::write(std::string_view name, std::string_view content) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  write_file(path(name), content);
  return path(name);
}

std::string cert_test::read(std::string_view name) const {
  return fs::exists(path(name)) ? read_file(path(name)) : "(absent)";
}

std::vector<std::string> cert_test::logged() const {
  constexpr std::string_view open_end = "(no line feed)";
  std::vector<std::string> lines;
  for (const log_message& message : log_.records()) {
    std::string line = std::to_string(message.level) + ' ' + message.text;
    if (line.ends_with(open_end))
      line.resize(line.size() - open_end.size());
    else
      line += '\n';
    lines.push_back(line);
  }
  return lines;
}

bool cert_test::was_logged(std::string_view text) const {
  return std::ranges::any_of(logged(), [text](std::string_view line) {
    return line.starts_with(text) || line.substr(2).starts_with(text);
  });
}

full_disk::full_disk() : signal_before_(signal(SIGXFSZ, SIG_IGN)) {
  EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
  const rlimit small{10, before_.rlim_max};
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
}

full_disk::~full_disk() {
  setrlimit(RLIMIT_FSIZE, &before_);
  signal(SIGXFSZ, signal_before_);
}

std::string openssl(const std::string& arguments) {
  run_result ended = run("openssl " + arguments);
  EXPECT_EQ(ended.status, 0) << "openssl " << arguments;
  if (ended.output.ends_with('\n')) ended.output.pop_back();
  return ended.output;
}

}  // namespace test
