// SPDX-License-Identifier: MIT
// device_cert.cpp: checks and writes the device certificate.
#include "cert/device_cert.h"

#include <errno.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "cert/cert_file.h"
#include "cert/directory.h"
#include "cert/error_queue.h"
#include "cert/private_file.h"
#include "cert/shell.h"
#include "cert/tls_check.h"
#include "core/config.h"
#include "core/files.h"
#include "core/openssl_owners.h"
#include "log/log.h"

namespace fetchrig {
namespace {

constexpr off_t max_file_bytes = max_small_file_bytes;

// Tags of DER.
constexpr char der_integer = 0x02, der_object_name = 0x06, der_sequence = 0x30;
constexpr char der_version = static_cast<char>(0xA0);

struct device_paths {
  std::string directory;  // of the device certificate
  std::string root;       // its parent
  std::string custom;
  std::string factory;
};

// Everything before the last "/"; nothing without one.
std::optional<std::string_view> parent(std::string_view path) {
  const std::size_t at = path.rfind('/');
  if (at == std::string_view::npos) return std::nullopt;
  return path.substr(0, at);
}

std::optional<device_paths> paths_from(std::string_view device_file) {
  const auto directory = parent(device_file);
  const auto root = directory ? parent(*directory) : std::nullopt;
  if (!root) return std::nullopt;
  const std::string root_path(*root);
  return device_paths{std::string(*directory), root_path, root_path + "/server/WebServer.pem",
                      root_path + "/phonedev/WebServer.pem"};
}

install_code code_for(tls_file_check outcome) {
  switch (outcome) {
    case tls_file_check::fine:
      return installed;
    case tls_file_check::wrong_method:
      return path_or_method_or_same;
    case tls_file_check::no_context:
    case tls_file_check::no_ca_file:
      return set_up_failed;
    case tls_file_check::no_certificate:
      return no_certificate;
    case tls_file_check::no_key:
      return no_private_key;
    case tls_file_check::key_mismatch:
      return key_mismatch;
  }
  return set_up_failed;
}

// The digest of the file's content; empty when it cannot be read, or is none that could have been installed.
std::string content_digest(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) == 0 && (!S_ISREG(status.st_mode) || status.st_size > max_file_bytes)) {
    return {};
  }
  md5_text digits;
  if (file_md5(digits, path.c_str()) != 0) return {};
  return digits.data();
}

struct key_pair {
  unique_x509 certificate;
  unique_pkey key;
};

// What stands in the DER sequence that the bytes begin with, which may be cut; empty without one.
std::string_view inside_sequence(std::string_view bytes) {
  if (bytes.size() < 2 || bytes[0] != der_sequence) return {};
  const std::size_t length = static_cast<unsigned char>(bytes[1]);
  const std::size_t length_bytes = length > 0x80 ? length - 0x80 : 0;
  return bytes.substr(std::min(2 + length_bytes, bytes.size()));
}

// Whether there is a private key in the file, be it encrypted or damaged. In DER it begins with its version; encrypted,
// with the algorithm.
bool holds_key(const cert_source& source) {
  const std::string_view bytes = source.file.bytes(), content = inside_sequence(bytes);
  if (source.encoding == encoding_pem) return bytes.find("PRIVATE KEY-----") != std::string_view::npos;
  return content.starts_with(der_integer) || inside_sequence(content).starts_with(der_object_name);
}

// Whether there is a certificate in the file, be it damaged or of a kind that is not read. In DER it begins with the
// part that is signed, that with the version or, in the first version, with the serial number.
bool holds_certificate(const cert_source& source) {
  const std::string_view bytes = source.file.bytes(), content = inside_sequence(inside_sequence(bytes));
  if (source.encoding == encoding_pem) return bytes.find("CERTIFICATE-----") != std::string_view::npos;
  return content.starts_with(der_version) || content.starts_with(der_integer);
}

// What the file holds of the two. False when it cannot be opened or holds neither, or when one of the two is there
// but cannot be opened: the other one would be paired with the present file's.
bool read_part(key_pair& pair, const char* path) {
  const cert_source source(path);
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file dev cert err\n");
    return false;
  }
  pair.certificate = source.certificate();
  pair.key = source.key();
  if (!pair.certificate && !pair.key) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "load dev cert err\n");
    return false;
  }
  if (!pair.key && holds_key(source)) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "the private key of the given file can't be opened\n");
    return false;
  }
  if (!pair.certificate && holds_certificate(source)) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "the certificate of the given file can't be read\n");
    return false;
  }
  return true;
}

// Adds to the pair what it lacks and the present device certificate file has. False when that cannot be read
// just now, or has a part that cannot be opened: it would be lost.
bool complete_from_present(key_pair& pair, const char* path) {
  if (is_special_file(path)) return true;
  const cert_source source(path);
  if (!source.stream) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file dev cert err\n");
    return source.error == ENOENT || source.error == ENOTDIR;
  }
  const bool is_empty = source.file.bytes().empty();
  ERR_clear_error();
  if (!pair.certificate) {
    pair.certificate = source.certificate();
    if (!pair.certificate && !is_empty && (ran_out_of_memory() || holds_certificate(source))) {
      log_line(DL_LOG_CMN, DL_LOG_ERROR, "the present device certificate can't be read\n");
      return false;
    }
  }
  if (pair.key) return true;
  pair.key = source.key();
  if (!pair.key && !is_empty && (ran_out_of_memory() || holds_key(source))) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "the private key of the present device certificate can't be opened\n");
    return false;
  }
  return true;
}

// The directory that option 2 leads through: all up to the end of its first "server".
bool make_server_directory(std::string_view device_file) {
  constexpr std::string_view mark = "server";
  const std::size_t at = device_file.find(mark);
  if (at == std::string_view::npos) {
    log_line(DL_LOG_CMN, DL_LOG_ERROR, "server cert dir err");
    return false;
  }
  const std::string directory(device_file.substr(0, at + mark.size()));
  if (open_or_make_directory(directory, make_directory_by_call)) return true;
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Can't open serverdir\n");
  return false;
}

}  // namespace

int install_device_cert(const char* path) {
  if (SSL_library_init() != 1) return log_and_return(DL_LOG_CMN, set_up_failed, "SSL_library_init error\n");
  const option_text device_file = device_cert_file();
  const int method = ssl_method();
  const auto paths = paths_from(device_file.data());
  if (!paths) return log_and_return(DL_LOG_CMN, path_or_method_or_same, "Wrong server ca path\n");
  const small_file file(path ? path : "");
  if (const install_code code = code_for(check_tls_file(file, method)); code != installed) return code;
  if (!open_or_make_directory(paths->root))
    return log_and_return(DL_LOG_CMN, no_directory, "Can't open trust_path\n");
  if (!open_or_make_directory(paths->directory))
    return log_and_return(DL_LOG_CMN, no_directory, "Can't open serverdir\n");

  const std::string digest = content_digest(path);
  if (digest == content_digest(paths->custom)) {
    return log_and_return(DL_LOG_CMN, path_or_method_or_same, "cert file same to custom device cert file\n");
  }
  if (digest == content_digest(paths->factory)) {
    return log_and_return(DL_LOG_CMN, same_as_factory,
                          "cert file same to factory prefabrication device cert flie\n");
  }
  // A failure is in the log only; the old file is then as it was.
  (void)write_private_file(device_file.data(), file.bytes(), at_link::replace_target);
  return installed;
}

int install_device_cert_part(const char* path) {
  const option_text device_file = device_cert_file();
  key_pair pair;
  if (!read_part(pair, path)) return -1;
  if (!complete_from_present(pair, device_file.data())) return -1;
  if (!make_server_directory(device_file.data())) return -1;
  // The usual way to replace both is one after the other, so this state is allowed but worth knowing.
  if (pair.certificate && pair.key && X509_check_private_key(pair.certificate.get(), pair.key.get()) != 1) {
    log_line(DL_LOG_CMN, DL_LOG_WARNING, "device certificate and private key do not belong together\n");
  }
  const unique_bio text = pem_text(pair.certificate.get(), pair.key.get());
  if (!text) return log_and_return(DL_LOG_CMN, -1, "Can't encode the device certificate\n");
  return write_private_file(device_file.data(), text_of(text.get()), at_link::replace_target) ? 0 : -1;
}

void remove_device_cert() {
  run_shell(shell_command(command_size, "rm", {device_cert_file().data()}));
}

}  // namespace fetchrig
