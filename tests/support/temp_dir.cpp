// temp_dir.cpp: temporary directories, whole files, deterministic content and digests.
#include "tests/support/temp_dir.h"

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace test {

temp_dir::temp_dir() : path_((fs::temp_directory_path() / "fetchrig-test-XXXXXX").string()) {
  if (!mkdtemp(path_.data())) throw std::runtime_error("cannot make " + path_);
}

temp_dir::~temp_dir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string temp_dir::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

std::string temp_dir::make_dir(std::string_view name) const {
  fs::create_directories(file(name));
  return file(name);
}

void write_file(const std::string& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary);
  if (!(out << content << std::flush)) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
  const std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return (std::ostringstream() << in.rdbuf()).str();
}

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

std::string make_bytes(std::size_t size, uint64_t seed) {
  std::string bytes(size, '\0');
  uint64_t state = seed * 0x9e3779b97f4a7c15u + 1;
  for (char& byte : bytes) {  // xorshift64*
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    byte = static_cast<char>(state * 0x2545f4914f6cdd1du >> 56);
  }
  return bytes;
}

std::string summary(std::string_view bytes) {
  return std::to_string(bytes.size()) + " bytes, " + md5_hex(bytes);
}

std::string digest_hex(const EVP_MD* kind, std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, kind, nullptr) != 1)
    throw std::runtime_error("digest failed");
  std::string hex;
  for (unsigned i = 0; i < 2 * length; ++i) hex += "0123456789abcdef"[digest[i / 2] >> (i % 2 ? 0 : 4) & 15];
  return hex;
}

std::string md5_hex(std::string_view data) {
  return digest_hex(EVP_md5(), data);
}

}  // namespace test
