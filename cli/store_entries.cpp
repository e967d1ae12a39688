// SPDX-License-Identifier: MIT
// store_entries.cpp: looking at names and links.
#include "store_entries.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "hashed_directory.h"
#include "location.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

namespace fs = std::filesystem;

// Where the link leads, as it is written; empty for what is no link.
std::string target_of(const std::string& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

bool is_absolute(const std::string& target) {
  return target.starts_with('/');
}

// Whether the target is, or before the store was moved was, the entry of that name in the store.
bool is_own(const std::string& store, const std::string& target) {
  std::error_code error;
  const std::string here = store + last_part(target);
  if (!name_exists(here)) return false;
  return !fs::exists(target, error) || fs::equivalent(fs::path(target).parent_path(), store, error);
}

// A new link takes the old one's place, so that there is one at any time.
void replace_link(const std::string& link, const std::string& target) {
  const std::string made = link + ".new";
  unlink(made.c_str());
  if (symlink(target.c_str(), made.c_str()) == 0 && rename(made.c_str(), link.c_str()) == 0) return;
  const int error = errno;
  unlink(made.c_str());
  throw failure(0, printable(link) + " cannot be replaced: " + strerror(error));
}

void relocate(const std::string& store, const std::string& directory, const std::string& up) {
  const std::string place = store + directory;
  for (const std::string& name : listed_names(place)) {
    const std::string link = place + name;
    const std::string target = target_of(link);
    if (is_absolute(target) && is_own(store, target)) replace_link(link, up + last_part(target));
  }
}

}  // namespace

bool name_exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::vector<std::string> listed_names(const std::string& store) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(store, error), end; entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.find(".0") != name.npos) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> foreign_among(const std::vector<std::string>& names) {
  std::vector<std::string> foreign;
  std::remove_copy_if(names.begin(), names.end(), std::back_inserter(foreign), is_hashed_name);
  return foreign;
}

std::string foreign_words(const std::vector<std::string>& foreign) {
  return "holds names that are no entries of a store: " + joined(foreign);
}

std::vector<std::string> names_of(const std::string& store, const std::string& hash) {
  return {store + hash + ".0", store + "ca/" + hash + ".0", store + hash, store + "ca/" + hash};
}

std::string joined(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? "" : ", ") + printable(name);
  return all;
}

std::string opening_trouble(const std::string& store) {
  return access(store.c_str(), R_OK | X_OK) == 0 ? "" : std::string(": ") + strerror(errno);
}

std::string link_kind(const std::string& store, const std::string& entry) {
  const std::string here = target_of(store + entry), among_all = target_of(store + "ca/" + entry);
  if (is_absolute(here) || is_absolute(among_all)) return "absolute";
  return here.empty() && among_all.empty() ? "none" : "relative";
}

void make_relocatable(const std::string& store) {
  relocate(store, "", "");
  relocate(store, "ca/", "../");
}

}  // namespace fetchrig::cli
