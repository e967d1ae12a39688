// ca_listing.cpp: describing every certificate of the trusted-CA store. An entry that holds no certificate, a
// link to nothing above all, is removed from the disk on the way.
#include <string.h>
#include <unistd.h>

#include <span>
#include <string>

#include "cert/ca_info.h"
#include "cert/error_queue.h"
#include "cert/store_entries.h"
#include "core/boundary.h"
#include "core/config.h"
#include "core/result.h"
#include "core/text.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

// Fills the list with what `describe` finds behind the names; false when the directory cannot be opened. The
// whole path is used throughout, the record's own 64 characters are for display.
template <typename List, typename Describe>
bool list_store(List& list, Describe describe) {
  const clean_error_queue after;
  const std::string root = trust_ca_dir().data();
  const unique_dir directory(::opendir(root.c_str()));
  if (!directory) return false;
  const std::span entries(list.entries);
  for (const std::string& name : store_entry_names(directory.get())) {
    if (list.count == entries.size()) {
      log_line(DL_LOG_CMN, DL_LOG_ERROR, "number of ca file is no less than 10!\n");
      break;
    }
    auto& entry = entries[list.count];
    const std::string path = root + name;
    copy_text(entry.path, path);
    const certificate_read outcome = describe(path.c_str(), entry);
    if (outcome == certificate_read::fine) {
      ++list.count;
      continue;
    }
    memset(&entry, 0, sizeof entry);
    if (outcome == certificate_read::unusable && ::unlink(path.c_str()) == 0) {
      log_line(DL_LOG_CMN, DL_LOG_NOTICE, "removed %s, which holds no certificate\n",
               printable(path).c_str());
    }
  }
  return true;
}

certificate_read describe_with_code(const char* path, dl_ca_info_ex& entry, dl_result& result) {
  clear_result(result);
  const certificate_read outcome = describe_ca_ex(path, entry, 0);
  if (outcome != certificate_read::fine) result.code = 1;
  return outcome;
}

int list_store_ex(dl_trust_ca_list_ex& list, dl_result& result) {
  const bool opened = list_store(list, [&result](const char* path, dl_ca_info_ex& entry) {
    return describe_with_code(path, entry, result);
  });
  if (opened) return 0;
  result.code = 2;
  return -1;
}

}  // namespace
}  // namespace fetchrig

int dl_get_trust_ca_info(dl_trust_ca_list* list) {
  using namespace fetchrig;
  if (!list) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Invalid Parameter\n");
    return -1;
  }
  memset(list, 0, sizeof *list);
  return guarded([list] { return list_store(*list, describe_ca) ? 0 : -2; }, [] { return -2; });
}

int dl_get_trust_ca_info_ex(dl_trust_ca_list_ex* list, dl_result* result) {
  using namespace fetchrig;
  if (!list || !result) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Invalid Parameter\n");
    if (result) result->code = 1;
    return -1;
  }
  memset(list, 0, sizeof *list);
  clear_result(*result);
  const auto out_of_memory = [result] {
    result->code = 2;
    return -1;
  };
  return guarded([&] { return list_store_ex(*list, *result); }, out_of_memory);
}
