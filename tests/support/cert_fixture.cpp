// cert_fixture.cpp: the openssl tool and the library's log for the certificate tests.
#include "tests/support/cert_fixture.h"

#include <openssl/err.h>

#include <algorithm>

#include "tests/support/process.h"

namespace fetchrig::test {

cert_test::cert_test() {
  ::test::set_option(DL_OPT_TRUST_CA_DIR, store());
  log_.clear();
}

cert_test::~cert_test() {
  EXPECT_EQ(ERR_peek_error(), 0u) << "an error is left for the thread's next TLS call";
}

std::string cert_test::write(std::string_view name, std::string_view content) const {
  ::test::write_file(path(name), content);
  return path(name);
}

std::string cert_test::make_cert(std::string_view name, std::string_view subject,
                                 std::string_view more) const {
  const std::string file = path(name);
  std::string arguments = "req -x509 -nodes -days 3650 -subj '" + std::string(subject) + "' -keyout " + file +
                          ".key -out " + file + " " + std::string(more);
  if (more.find("-newkey") == more.npos) arguments += " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1";
  openssl(arguments);
  return file;
}

std::string cert_test::to_der(std::string_view pem, std::string_view name) const {
  openssl("x509 -in " + std::string(pem) + " -outform DER -out " + path(name));
  return path(name);
}

std::vector<std::string> cert_test::logged() {
  constexpr std::string_view open_end = "(no line feed)";
  std::vector<std::string> lines;
  for (const auto& message : log_.records()) {
    std::string line = std::to_string(message.level) + ' ' + message.text;
    if (line.ends_with(open_end))
      line.resize(line.size() - open_end.size());
    else
      line += '\n';
    lines.push_back(line);
  }
  log_.clear();
  return lines;
}

bool cert_test::was_logged(std::string_view level_and_text) {
  const auto lines = logged();
  return std::find(lines.begin(), lines.end(), level_and_text) != lines.end();
}

std::string openssl(const std::string& arguments) {
  auto ended = ::test::run({"sh", "-c", "exec openssl " + arguments});
  EXPECT_EQ(ended.status, 0) << "openssl " << arguments << "\n" << ended.errors;
  if (ended.output.ends_with('\n')) ended.output.pop_back();
  return ended.output;
}

std::string x509_value(const std::string& path, const std::string& what) {
  const std::string line = openssl("x509 -in '" + path + "' -noout -" + what);
  return line.substr(line.find('=') + 1);
}

}  // namespace fetchrig::test
