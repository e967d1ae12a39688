// cert_fixture.cpp: temporary directory, log capture and the openssl tool for the certificate tests.
#include "tests/support/cert_fixture.h"

#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>

#include "include/fetchrig.h"

namespace fetchrig::test {
namespace {

std::mutex lines_lock;
std::vector<std::string> lines;  // guarded by lines_lock

// A line reads "QXFR[123]: DCMN<3+error > text".
int keep_line(const char* line, int32_t length) {
  const std::string_view whole(line, static_cast<std::size_t>(length));
  const std::size_t tag = whole.find('<');
  const std::size_t text = whole.find("> ", tag);
  if (tag == whole.npos || text == whole.npos || whole.substr(tag - 4, 4) == "DANY") return 0;
  const std::lock_guard hold(lines_lock);
  lines.push_back(std::string(whole.substr(tag + 1, 1)) + ' ' + std::string(whole.substr(text + 2)));
  return 0;
}

}  // namespace

cert_test::cert_test() {
  std::string name = (std::filesystem::temp_directory_path() / "fetchrig-cert-XXXXXX").string();
  if (!mkdtemp(name.data())) abort();
  root_ = name;
  dl_config_init();
  dl_log_init(0, keep_line);
  dl_set_log_level(0);
  logged();
  dl_set_option(DL_OPT_TRUST_CA_DIR, store().c_str());
}

cert_test::~cert_test() {
  dl_log_init(0, nullptr);
  dl_exit();
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string cert_test::write(std::string_view name, std::string_view content) const {
  std::ofstream(path(name), std::ios::binary) << content;
  return path(name);
}

std::string cert_test::make_cert(std::string_view name, std::string_view subject,
                                 std::string_view more) const {
  const std::string file = path(name);
  std::string arguments = "req -x509 -nodes -days 3650 -subj '" + std::string(subject) + "' -keyout " + file +
                          ".key -out " + file + " " + std::string(more);
  if (more.find("-newkey") == more.npos) arguments += " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1";
  openssl(arguments + " 2>/dev/null");
  return file;
}

std::string cert_test::to_der(std::string_view pem, std::string_view name) const {
  openssl("x509 -in " + std::string(pem) + " -outform DER -out " + path(name));
  return path(name);
}

std::vector<std::string> cert_test::logged() const {
  const std::lock_guard hold(lines_lock);
  return std::exchange(lines, {});
}

bool cert_test::was_logged(std::string_view level_and_text) const {
  const std::lock_guard hold(lines_lock);
  return std::find(lines.begin(), lines.end(), level_and_text) != lines.end();
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string openssl(const std::string& arguments) {
  std::string output;
  FILE* pipe = popen(("openssl " + arguments).c_str(), "r");
  if (!pipe) abort();
  char buffer[4096];
  while (const std::size_t count = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, count);
  EXPECT_EQ(pclose(pipe), 0) << "openssl " << arguments;
  if (output.ends_with('\n')) output.pop_back();
  return output;
}

std::string x509_value(const std::string& path, const std::string& what) {
  const std::string line = openssl("x509 -in '" + path + "' -noout -" + what);
  return line.substr(line.find('=') + 1);
}

}  // namespace fetchrig::test
