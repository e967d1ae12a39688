// cert_place.h: the surroundings of one certificate test: an initialised library whose log is collected, and
// a fresh directory that goes away with it. One at a time per process.
#ifndef FETCHRIG_TESTS_SUPPORT_CERT_PLACE_H
#define FETCHRIG_TESTS_SUPPORT_CERT_PLACE_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>

#include "include/fetchrig.h"

namespace test {

class cert_place {
 public:
  // `log_level`: lines of that level and below are collected.
  explicit cert_place(uint32_t log_level = DL_LOG_INFO) {
    char name[] = "/tmp/fetchrig-cert-XXXXXX";
    if (!mkdtemp(name)) throw std::runtime_error("no temporary directory");
    directory_ = name;
    dl_config_init();
    dl_log_init(0, collect);
    dl_set_log_module_level(DL_LOG_ANY, log_level);
    lines().clear();
  }
  ~cert_place() {
    dl_exit();
    dl_log_init(0, nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  cert_place(const cert_place&) = delete;
  cert_place& operator=(const cert_place&) = delete;

  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  // Writes the file, making its directories, and returns its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    const std::string full = path(name);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << bytes;
    return full;
  }

  // The content; "(absent)" without the file.
  std::string read(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    if (!file) return "(absent)";
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Whether a message that begins with `text` was collected.
  static bool logged(const std::string& text) { return lines().find("> " + text) != std::string::npos; }
  static bool logged_nothing() { return lines().empty(); }
  static const std::string& log() { return lines(); }
  static void forget_log() { lines().clear(); }

 private:
  static std::string& lines() {
    static std::string collected;
    return collected;
  }
  static int collect(const char* line, int32_t length) {
    static std::mutex lock;
    const std::lock_guard<std::mutex> held(lock);
    lines().append(line, static_cast<std::size_t>(length));
    return 0;
  }

  std::string directory_;
};

}  // namespace test
#endif
