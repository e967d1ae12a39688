// SPDX-License-Identifier: MIT
// hashed_directory.cpp: telling the names of a hashed directory from others.
#include "hashed_directory.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "fetchrig.h"
#include "printable.h"

namespace fetchrig::cli {
namespace {

bool holds_hashed_names(const std::string& directory) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(directory, error);
  return std::any_of(begin(entries), end(entries),
                     [](const auto& entry) { return is_hashed_name(entry.path().filename().string()); });
}

}  // namespace

bool is_hashed_name(std::string_view name) {
  constexpr std::size_t hash_len = 8;
  return name.size() > hash_len + 1 && name[hash_len] == '.' &&
         name.find_first_not_of("0123456789abcdefABCDEF") == hash_len &&
         name.find_first_not_of("0123456789", hash_len + 1) == name.npos;
}

std::string hashed_directory_fault(const std::string& directory) {
  if (!dl_path_is_directory(directory.c_str())) return "; " + printable(directory) + " is not a directory";
  if (holds_hashed_names(directory)) return "";
  return "; " + printable(directory) + " is not hashed (\"openssl rehash\" does it)";
}

}  // namespace fetchrig::cli
