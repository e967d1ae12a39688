// ca_store.cpp: installing CA certificates into the trusted-CA store and removing them. The store is a
// directory tree in the hashed form that OpenSSL looks certificates up in: the file <hash>, beside it the
// link <hash>.0 to it, and in the "ca/" subdirectory a link to that link. One certificate operation runs at a
// time.
#include <stdio.h>

#include <optional>
#include <string>

#include "cert/cert_file.h"
#include "cert/error_queue.h"
#include "cert/shell.h"
#include "cert/store_entries.h"
#include "core/boundary.h"
#include "core/config.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

constexpr int not_installed = -1;
constexpr int already_installed = -2;
constexpr int is_factory_ca = -3;

std::string hash_name(uint32_t hash) {
  char name[9];
  ::snprintf(name, sizeof name, "%08x", static_cast<unsigned>(hash));
  return name;
}

// The directory, made when it is missing; null when it can be neither opened nor created.
unique_dir open_or_make(const std::string& path) {
  unique_dir directory(::opendir(path.c_str()));
  if (directory) return directory;
  run_shell(shell_command(command_size, "mkdir", {path}));
  return unique_dir(::opendir(path.c_str()));
}

void ensure_all_ca_directory(const std::string& path) {
  if (const unique_dir directory(::opendir(path.c_str())); directory) return;
  if (run_shell(shell_command(command_size, "mkdir", {path})) != 0) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "Can't create directory all ca certs directory\n");
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
  const unique_dir installed = open_or_make(custom);
  if (!installed) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "Can't open custom trust certs directory\n");
    return not_installed;
  }
  ensure_all_ca_directory(custom + "ca/");
  if (holds_hash(installed, custom, hash)) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "the ca file file has existed in custom certs directory\n");
    return already_installed;
  }
  const std::string factory_path = custom + "phoneca/";
  const unique_dir factory = open_or_make(factory_path);
  if (!factory) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "Can't open factory prefabrication directory\n");
    return not_installed;
  }
  if (holds_hash(factory, factory_path, hash)) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "the ca file has existed by factory prefabrication\n");
    return is_factory_ca;
  }
  return 0;
}

int install(const char* path) {
  const uint32_t hash = ca_file_hash(path);
  if (hash == 0) return not_installed;
  const std::string custom = trust_ca_dir().data();
  const std::string file = custom + hash_name(hash);
  const std::string link = file + ".0";
  const auto link_file = shell_command(command_size, "ln -s", {file, link});
  const auto link_all = shell_command(command_size, "ln -s", {link, custom + "ca/" + hash_name(hash) + ".0"});
  if (!link_file || !link_all) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "path of the trust certs directory is too long\n");
    return not_installed;
  }
  if (const int rc = refuse_known_ca(custom, hash); rc < 0) return rc;
  dl_copy_file(path, file.c_str());
  run_shell(link_file);
  run_shell(link_all);
  return 0;
}

// All commands are formed before the first one runs, so that a path that is too long removes nothing rather
// than part.
void remove_ca(const char* path) {
  const uint32_t hash = ca_file_hash(path);
  const std::string custom = trust_ca_dir().data();
  const std::string all = custom + "/ca/";
  const std::string name = hash_name(hash);
  const auto removal = [](const std::string& file) {
    return shell_command(removal_command_size, "rm", {file});
  };
  const auto remove_given = removal(path);
  const std::optional<std::string> remove_names[] = {removal(all + name + ".0"), removal(all + name),
                                                     removal(custom + name + ".0"), removal(custom + name)};
  bool fits = remove_given.has_value();
  for (const auto& command : remove_names) fits = fits && (hash == 0 || command);
  if (!fits) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "path of the ca file is too long\n");
    return;
  }
  run_shell(remove_given);
  if (hash == 0) return;
  qxfr_log(DL_LOG_CMN, DL_LOG_INFO, "hash:%x\n", static_cast<unsigned>(hash));
  for (const auto& command : remove_names) run_shell(command);
}

}  // namespace
}  // namespace fetchrig

int dl_install_ca(const char* path) {
  using namespace fetchrig;
  if (!path) return not_installed;
  const clean_error_queue after;
  return guarded([path] { return install(path); }, [] { return not_installed; });
}

int dl_del_ca(const char* path) {
  using namespace fetchrig;
  if (!path) return 0;
  const clean_error_queue after;
  return guarded(
      [path] {
        remove_ca(path);
        return 0;
      },
      [] { return 0; });
}
