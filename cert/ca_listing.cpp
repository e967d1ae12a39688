// SPDX-License-Identifier: MIT
// ca_listing.cpp: lists the trusted-CA store.
#include "cert/ca_listing.h"

#include <string.h>
#include <unistd.h>

#include <span>
#include <string>

#include "cert/ca_info.h"
#include "cert/ca_info_ex.h"
#include "cert/directory.h"
#include "cert/store_entries.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/result.h"
#include "core/text.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

void remove_entry(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return;
  log_line(DL_LOG_CMN, DL_LOG_NOTICE, "removed %s, which holds no certificate\n", printable(path).c_str());
}

// Clears the list and fills it with what `describe` finds behind the names; false when the directory cannot be opened.
// The whole path is used throughout, the record's own 64 characters are for display.
template <typename List, typename Describe>
bool list_store(List& list, Describe describe) {
  memset(&list, 0, sizeof list);
  const std::string root = trust_ca_dir().data();
  const unique_dir directory = open_directory(root);
  if (!directory) return false;
  const std::span entries(list.entries);
  for (const std::string& name : store_entry_names(directory.get())) {
    if (list.count == entries.size()) {
      note_cause(DL_CAUSE_LIST_FULL);
      log_line(DL_LOG_CMN, DL_LOG_ERROR, "number of ca file is no less than 10!\n");
      break;
    }
    auto& entry = entries[list.count];
    const std::string path = root + name;
    copy_text(entry.path, path);
    const certificate_read outcome = describe(entry, path.c_str());
    if (outcome == certificate_read::fine) {
      ++list.count;
      continue;
    }
    memset(&entry, 0, sizeof entry);
    if (outcome == certificate_read::unusable) remove_entry(path);
  }
  return true;
}

}  // namespace

int list_trusted_cas(dl_trust_ca_list& list) {
  constexpr int not_opened = -2;
  return list_store(list, describe_ca) ? 0 : not_opened;
}

int list_trusted_cas_ex(dl_trust_ca_list_ex& list, dl_result& result) {
  constexpr int not_described = 1;
  constexpr int not_opened = 2;
  clear_result(result);
  const auto describe = [&result](dl_ca_info_ex& entry, const char* path) {
    clear_result(result);
    const certificate_read outcome = describe_ca_ex(entry, path);
    if (outcome != certificate_read::fine) fail_with_code(&result, not_described);
    return outcome;
  };
  return list_store(list, describe) ? 0 : fail_with_code(&result, not_opened);
}

}  // namespace fetchrig
