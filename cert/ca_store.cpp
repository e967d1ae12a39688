// SPDX-License-Identifier: MIT
// ca_store.cpp: changes the trusted-CA store.
#include "cert/ca_store.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>

#include "cert/cert_file.h"
#include "cert/directory.h"
#include "cert/shell.h"
#include "cert/store_entries.h"
#include "core/boundary.h"
#include "core/cause.h"
#include "core/config.h"
#include "core/files.h"
#include "core/small_file.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr int not_installed = -1;
constexpr int already_installed = -2;
constexpr int is_factory_ca = -3;

std::string hash_name(uint32_t hash) {
  char name[9];
  snprintf(name, sizeof name, "%08x", static_cast<unsigned>(hash));
  return name;
}

void ensure_all_ca_directory(const std::string& path) {
  if (open_directory(path)) return;
  if (make_directory_by_shell(path) != 0) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't create directory all ca certs directory\n");
  }
}

// Whether an entry of the directory holds a certificate of that hash. Entries in DER are left in PEM.
bool holds_hash(const unique_dir& directory, const std::string& path, uint32_t hash) {
  for (const std::string& name : store_entry_names(directory.get())) {
    if (ca_file_hash((path + name).c_str()) == hash) return true;
  }
  return false;
}

// 0 when no CA of that hash is installed or among the factory CAs.
int refuse_known_ca(const std::string& custom, uint32_t hash) {
  const unique_dir installed = open_or_make_directory(custom);
  if (!installed) {
    return log_and_return(DL_LOG_CMN, not_installed, "Can't open custom trust certs directory\n");
  }
  ensure_all_ca_directory(custom + "ca/");
  if (holds_hash(installed, custom, hash)) {
    return log_and_return(DL_LOG_CMN, already_installed,
                          "the ca file file has existed in custom certs directory\n");
  }
  const std::string factory_path = custom + "phoneca/";
  const unique_dir factory = open_or_make_directory(factory_path);
  if (!factory) {
    return log_and_return(DL_LOG_CMN, not_installed, "Can't open factory prefabrication directory\n");
  }
  if (holds_hash(factory, factory_path, hash)) {
    return log_and_return(DL_LOG_CMN, is_factory_ca, "the ca file has existed by factory prefabrication\n");
  }
  return 0;
}

struct removal {
  std::string file;
  std::optional<std::string> command;  // nothing when it would be too long
};

removal removal_of(const std::string& file) {
  return {file, shell_command(removal_command_size, "rm", {file})};
}

// The removals of every name that a CA of that hash may have in the store, in the order they run in.
std::array<removal, 4> removals_of(const std::string& custom, uint32_t hash) {
  const std::string all = custom + "/ca/", name = hash_name(hash);
  return {removal_of(all + name + ".0"), removal_of(all + name), removal_of(custom + name + ".0"),
          removal_of(custom + name)};
}

bool all_fit(std::span<const removal> removals) {
  return std::all_of(removals.begin(), removals.end(), [](const removal& each) { return each.command; });
}

// Some names are never there, or went with another: that their removal fails is no error.
void run_removal(const removal& each) {
  struct stat status;
  const bool is_there = ::lstat(each.file.c_str(), &status) == 0;
  run_shell(each.command, is_there ? DL_LOG_ERROR : DL_LOG_INFO);
}

// Whether the file has the given one's bytes now. A copy that fails, on a full disk or without memory, leaves nothing
// that was not there before.
bool copy_into_store(const char* path, const std::string& file) {
  struct stat status;
  const bool was_there = ::lstat(file.c_str(), &status) == 0 || errno != ENOENT;
  guarded([&] { copy_file(path, file.c_str()); });
  const int no_access = give_owner_access(file, S_IRUSR | S_IWUSR);
  const small_file from(path), to(file.c_str());
  const int error = from.error() != 0 ? from.error() : to.error() != 0 ? to.error() : no_access;
  if (error == 0 && from.bytes() == to.bytes()) return true;
  note_cause(DL_CAUSE_LOCAL_FILE, error);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't copy the ca file to %s\n", printable(file).c_str());
  if (!was_there) ::unlink(file.c_str());
  return false;
}

}  // namespace

// Commands are formed before anything is done: what can be installed can be removed again.
int install_ca(const char* path) {
  const uint32_t hash = ca_file_hash(path);
  if (hash == 0) return not_installed;
  const std::string custom = trust_ca_dir().data();
  const std::string file = custom + hash_name(hash);
  const std::string link = file + ".0";
  const auto link_file = shell_command(command_size, "ln -s", {file, link});
  const auto link_all = shell_command(command_size, "ln -s", {link, custom + "ca/" + hash_name(hash) + ".0"});
  if (!link_file || !link_all || !all_fit(removals_of(custom, hash))) {
    return log_and_return(DL_LOG_CMN, not_installed, "path of the trust certs directory is too long\n");
  }
  if (const int rc = refuse_known_ca(custom, hash); rc < 0) return rc;
  if (!copy_into_store(path, file)) return 0;  // a failure is in the log only
  run_shell(link_file);
  run_shell(link_all);
  return 0;
}

// All commands are formed before the first one runs, so that a path that is too long removes nothing rather than part.
void remove_ca(const char* path) {
  const uint32_t hash = ca_file_hash(path);
  const removal given = removal_of(path);
  const auto names = removals_of(trust_ca_dir().data(), hash);
  if (!given.command || (hash != 0 && !all_fit(names))) {
    note_cause(DL_CAUSE_COMMAND, -1);
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "path of the ca file is too long\n");
    return;
  }
  run_removal(given);
  if (hash == 0) return;
  log_line(DL_LOG_CMN, DL_LOG_INFO, "hash:%x\n", static_cast<unsigned>(hash));
  for (const removal& each : names) run_removal(each);
}

}  // namespace fetchrig
