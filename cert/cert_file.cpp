// cert_file.cpp: reading certificates and keys whatever their encoding, and turning a DER file into PEM in
// place.
#include "cert/cert_file.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "cert/passphrase.h"
#include "core/openssl_owners.h"
#include "core/owners.h"
#include "include/fetchrig_openssl.h"

namespace fetchrig {
namespace {

constexpr const char* scratch_path = "/tmp/ca_tmp.crt";

// Another user could have put a link under the well-known name, so an old entry goes and a new file is made,
// never opened through a link.
unique_file create_scratch() {
  ::unlink(scratch_path);
  unique_fd fd(::open(scratch_path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return nullptr;
  unique_file file(::fdopen(fd.get(), "wb"));
  if (file) fd.release();
  return file;
}

// Writes the certificate as PEM and closes the file; false unless all of it reached the file. The new file
// takes the access mode of the file at `path`, which it is about to replace.
bool write_scratch(unique_file file, X509* certificate, const char* path) {
  struct stat status;
  if (::stat(path, &status) == 0 && ::fchmod(::fileno(file.get()), status.st_mode & 0777) != 0) return false;
  if (PEM_write_X509(file.get(), certificate) != 1) return false;
  return ::fclose(file.release()) == 0;
}

// Replaces the file at `path` (a link there, not its target) by the certificate in PEM.
bool rewrite_as_pem(const char* path, X509* certificate) {
  qxfr_log(DL_LOG_CMN, DL_LOG_INFO, "convert to PEM code\n");
  unique_file scratch = create_scratch();
  if (!scratch) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "open file err\n");
    return false;
  }
  if (!write_scratch(std::move(scratch), certificate, path)) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "write scratch file errno %d\n", errno);
    ::unlink(scratch_path);
    return false;
  }
  if (::rename(scratch_path, path) != 0) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "rename errno %d", errno);
    return false;
  }
  return true;
}

}  // namespace

int cert_file_format(const char* path) {
  const unique_file file(path ? ::fopen(path, "re") : nullptr);
  if (!file) return encoding_none;
  char line[1024];
  while (::fgets(line, sizeof line, file.get())) {
    if (::strstr(line, "BEGIN")) return encoding_pem;
  }
  return encoding_der;
}

X509* load_cert_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) return PEM_read_bio_X509(bio, nullptr, no_password_cb, nullptr);
  if (encoding == encoding_der) return d2i_X509_bio(bio, nullptr);
  return nullptr;
}

EVP_PKEY* load_key_bio(int encoding, BIO* bio) {
  if (!bio) return nullptr;
  if (encoding == encoding_pem) return PEM_read_bio_PrivateKey(bio, nullptr, password_cb, nullptr);
  if (encoding == encoding_der) return d2i_PrivateKey_bio(bio, nullptr);
  return nullptr;
}

uint32_t ca_file_hash(const char* path) {
  if (path && dl_path_is_directory(path)) {
    qxfr_log(DL_LOG_CMN, DL_LOG_NOTICE, "path is directory, ret\n");
    return 0;
  }
  const unique_bio bio(path ? BIO_new_file(path, "r") : nullptr);
  if (!bio) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "Bio_new_file error ca_file\n");
    return 0;
  }
  const int encoding = cert_file_format(path);
  const unique_x509 certificate(load_cert_bio(encoding, bio.get()));
  if (!certificate) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "unable to load certificate ca_file\n");
    return 0;
  }
  if (encoding == encoding_der && !rewrite_as_pem(path, certificate.get())) return 0;
  return static_cast<uint32_t>(X509_subject_name_hash(certificate.get()));
}

}  // namespace fetchrig
