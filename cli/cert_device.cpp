// cert_device.cpp: "fetchrig cert device", the certificate and key with which the device identifies itself.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "cert_answer.h"
#include "cert_options.h"
#include "fetchrig.h"
#include "pem.h"
#include "report.h"

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

// A part goes into the directory whose path ends with the first "server" in the device certificate's.
std::string part_words(const cert_options& options) {
  constexpr std::string_view mark = "server";
  const std::string path = options.device_cert_path();
  const std::size_t at = path.find(mark);
  if (at == path.npos) return "cannot be installed: the path of the device certificate must hold \"server\"";
  if (dl_last_cause(nullptr) != DL_CAUSE_DIRECTORY) return "cannot be installed";
  return "cannot be installed: the path of the device certificate up to its first \"server\", " +
         printable(path.substr(0, at + mark.size())) + ", must be a directory";
}

answer install(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  const int rc = dl_install_ser_ca(options.file.c_str());
  if (rc != 0) throw failed_operation(options.file, rc, install_words(rc));
  if (!same_content(options.file, device_cert)) {
    throw failed_operation(device_cert, 0, "could not be written, nothing was installed");
  }
  answer told;
  told.json = {{"installed", device_cert}};
  told.text = "installed " + printable(device_cert) + "\n";
  return told;
}

answer install_part(const device_options& options) {
  const std::string& device_cert = options.common.device_cert_file();
  const int rc = dl_install_ser_ca_separate(options.file.c_str());
  if (rc != 0) throw failed_operation(options.file, rc, part_words(options.common));
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
  if (rc != 0 && rc != -3) throw failed_operation(device_cert, rc, "no certificate can be read");
  dl_ca_info_ex full = {};
  dl_result result = {};
  if (dl_get_ca_info_ex(device_cert.c_str(), &full, 1, &result) != 0) {
    throw failed_operation(device_cert, result.code, "no certificate can be read");
  }
  answer told = describe_certificate(full, true);
  told.json["file"] = device_cert;
  told.json["key_belongs"] = rc == 0;
  if (rc == 0) return told;
  told.text += "The file holds no private key that belongs to the certificate.\n";
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
