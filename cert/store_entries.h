// SPDX-License-Identifier: MIT
// store_entries.h: the entries of a hashed certificate directory. The names are taken before any entry is looked at,
// because looking at one may replace or remove it, and a directory that changes may be listed twice over.
#ifndef FETCHRIG_CERT_STORE_ENTRIES_H
#define FETCHRIG_CERT_STORE_ENTRIES_H

#include <dirent.h>

#include <string>
#include <vector>

namespace fetchrig {

// The names that contain ".0", in directory order.
[[nodiscard]] std::vector<std::string> store_entry_names(DIR* directory);

}  // namespace fetchrig
#endif
