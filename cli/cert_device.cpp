// SPDX-License-Identifier: MIT
// cert_device.cpp: "fetchrig cert device", the certificate and key with which the device identifies itself.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cert_answer.h"
#include "cert_options.h"
#include "fetchrig.h"
#include "options.h"
#include "pem.h"
#include "report.h"
#include "silenced_stream.h"

namespace fetchrig::cli {
namespace {

struct device_options {
  cert_options common;
  std::string file;  // what is to be installed
};

std::string install_words(int code) {
  constexpr const char* words[] = {
      "the file holds no private key that can be loaded",
      "the file holds no certificate",
      "the private key does not belong to the certificate",
      "the file cannot be loaded",
      "the directory of the device certificate cannot be opened or created",
      "it is installed already, or the path of the device certificate is less than two directories deep",
      "it is the factory certificate",
  };
  const int index = -code - 2;
  return index >= 0 && index < static_cast<int>(std::size(words)) ? words[index] : "cannot be installed";
}

// The state of the device certificate file in words, empty when all is well. A certificate and a key that are
// installed one after the other pass through such states.
std::string pair_remark() {
  dl_ca_info record = {};
  switch (dl_get_ser_ca_info(&record)) {
    case 0:
      return "";
    case -3:
      return "the file holds no private key that belongs to the certificate";
    default:
      return "the file holds no certificate";
  }
}

// The library says that it installed a file also when the copy went wrong.
bool same_content(const std::string& file, const std::string& other) {
  return read_small_file(file).bytes() == read_small_file(other).bytes();
}

failure with_code(const std::string& message, int code) {
  return failure(code, message + code_words(code));
}

// The library's failure, when reading the file tells why.
void refuse_unreadable(const std::string& path, int code) {
  try {
    read_small_file(path);
  } catch (const failure& why) {
    throw with_code(why.what(), code);
  }
}

void refuse_locked(const std::string& path, int code) {
  const std::string words = locked_key_words_of_file(path);
  if (!words.empty()) throw with_code(printable(path) + ": " + words, code);
}

std::string parent_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

// Why a directory cannot be opened; empty when it can.
std::string directory_trouble(const std::string& path) {
  if (path.empty()) return ": the path is less than two directories deep";
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return ": " + printable(path) + ": " + strerror(errno);
  close(fd);
  return "";
}

[[noreturn]] void refuse_installation(const device_options& options, int code) {
  refuse_unreadable(options.file, code);
  if (code == -2) refuse_locked(options.file, code);
  std::string words = install_words(code);
  if (code == -6) {
    const std::string directory = parent_of(options.common.device_cert_path());
    const std::string trouble = directory_trouble(parent_of(directory));
    words += trouble.empty() ? directory_trouble(directory) : trouble;
    forget_log();
  }
  throw failed_operation(options.file, code, words);
}

answer install(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  int rc = 0;
  {
    const silenced_stream shell(stderr, options.common.verbosity == 0);
    rc = dl_install_ser_ca(options.file.c_str());
  }
  if (rc != 0) refuse_installation(options, rc);
  if (!same_content(options.file, device_cert)) {
    throw failed_operation(device_cert, 0, "could not be written, nothing was installed");
  }
  answer told;
  told.json = {{"installed", device_cert}};
  told.text = "installed " + printable(device_cert) + "\n";
  return told;
}

// The library looks for "server" in the text of the path, in which what was typed is to count, not the folders above.
std::string part_path(const cert_options& options) {
  const std::string& typed = options.device_cert_file();
  return typed.find('/') == typed.npos ? "./" + typed : typed;
}

// A part goes into the directory whose path ends with the first "server" in the device certificate's. The library
// makes that directory whatever follows.
void check_part_path(const std::string& path) {
  constexpr std::string_view mark = "server";
  const std::string words = "a part cannot be installed: the path of the device certificate ";
  const std::size_t at = path.find(mark);
  if (at == path.npos) throw failure(-1, printable(path) + ": " + words + "must hold \"server\"");
  const std::string directory = path.substr(0, at + mark.size());
  struct stat status;
  const bool found = stat(directory.c_str(), &status) == 0;
  if (found ? S_ISDIR(status.st_mode) : path[directory.size()] == '/') return;
  throw failure(-1, printable(path) + ": " + words + "up to its first \"server\", " + printable(directory) +
                        ", must be a directory");
}

bool holds_certificate_alone(const std::string& path) {
  const secret_text content = read_small_file(path);
  const std::string& bytes = content.bytes();
  return (pem_certificate(bytes) || der_certificate(bytes)) && !pem_key(bytes, passphrase::from_option_16);
}

[[noreturn]] void refuse_part(const device_options& options, int code) {
  refuse_unreadable(options.file, code);
  refuse_locked(options.file, code);
  if (holds_certificate_alone(options.file)) refuse_locked(options.common.device_cert_file(), code);
  throw failed_operation(options.file, code, "cannot be installed");
}

answer install_part(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  const std::string path = part_path(options.common);
  check_part_path(path);
  set_text_option(DL_OPT_DEVICE_CERT_FILE, path);
  const int rc = dl_install_ser_ca_separate(options.file.c_str());
  if (rc != 0) refuse_part(options, rc);
  if (access(device_cert.c_str(), F_OK) != 0) throw failed_operation(device_cert, 0, "could not be written");
  const std::string remark = pair_remark();
  answer told;
  told.json = {{"installed", device_cert}, {"complete", remark.empty()}};
  if (!remark.empty()) told.json["remark"] = remark;
  told.text = "installed " + printable(device_cert) + "\n" + (remark.empty() ? "" : "  but " + remark + "\n");
  return told;
}

answer show(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  dl_ca_info record = {};
  const int rc = dl_get_ser_ca_info(&record);
  if (rc != 0) refuse_unreadable(device_cert, rc);
  if (rc != 0 && rc != -3) throw failed_operation(device_cert, rc, "no certificate can be read");
  dl_ca_info_ex full = {};
  dl_result result = {};
  if (dl_get_ca_info_ex(device_cert.c_str(), &full, 1, &result) != 0) {
    throw failed_operation(device_cert, result.code, "no certificate can be read");
  }
  answer told = describe_certificate(full, device_cert, true);
  told.json["file"] = device_cert;
  told.json["key_belongs"] = rc == 0;
  if (rc == 0) return told;
  const std::string locked = locked_key_words_of_file(device_cert);
  if (!locked.empty()) told.json["remark"] = locked;
  told.text += "The file holds no private key that belongs to the certificate" +
               (locked.empty() ? "" : ": " + locked) + ".\n";
  told.status = exit_failed;
  return told;
}

answer remove_file(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  if (access(device_cert.c_str(), F_OK) != 0) throw failure(0, printable(device_cert) + " does not exist");
  dl_del_ser_ca();
  if (access(device_cert.c_str(), F_OK) == 0) throw failed_operation(device_cert, 0, "could not be removed");
  answer told;
  told.json = {{"removed", device_cert}};
  told.text = "removed " + printable(device_cert) + "\n";
  return told;
}

struct device_command {
  const char* name;
  const char* help;
  bool takes_file;
  answer (*run)(const device_options&);
};
constexpr device_command device_commands[] = {
    {"install", "Install a PEM file with certificate and private key", true, install},
    {"install-part", "Install a certificate or a key alone, keeping the other part", true, install_part},
    {"show", "Describe the device certificate and check its key", false, show},
    {"remove", "Delete the device certificate file", false, remove_file},
};

}  // namespace

void add_cert_device(CLI::App& cert, action& chosen) {
  CLI::App* device = cert.add_subcommand("device", "The certificate the device identifies itself with");
  device->require_subcommand(1);
  for (const device_command& command : device_commands) {
    const auto options = std::make_shared<device_options>();
    CLI::App* app = device->add_subcommand(command.name, command.help);
    if (command.takes_file) app->add_option("FILE", options->file)->required();
    add_device_option(*app, options->common);
    add_json_option(*app, options->common);
    app->callback([options, run = command.run, &chosen] {
      chosen = [options, run] {
        configure(options->common);
        return tell_answer(options->common.json, [&] { return run(*options); });
      };
    });
  }
}

}  // namespace fetchrig::cli
