// SPDX-License-Identifier: MIT
// store_entries.cpp: listing a hashed certificate directory.
#include "cert/store_entries.h"

#include <string_view>

namespace fetchrig {

std::vector<std::string> store_entry_names(DIR* directory) {
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string_view name(entry->d_name);
    if (name.find(".0") != std::string_view::npos) names.emplace_back(name);
  }
  return names;
}

}  // namespace fetchrig
