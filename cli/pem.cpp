// SPDX-License-Identifier: MIT
// pem.cpp: small files, and PEM in memory.
#include "pem.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string_view>
#include <utility>

#include "fetchrig_openssl.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t max_small_file_bytes = std::size_t{16} * 1024 * 1024;  // as in the library

class descriptor {
 public:
  explicit descriptor(int fd) : fd_(fd) {}
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  ~descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

failure about(const std::string& path, const std::string& words) {
  return failed_file(printable(path) + words);
}

bool read_all(int fd, std::string& bytes) {
  std::size_t held = 0;
  while (held < bytes.size()) {
    const ssize_t count = read(fd, bytes.data() + held, bytes.size() - held);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    held += static_cast<std::size_t>(count);
  }
  bytes.resize(held);
  return true;
}

bool write_all(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

unique_bio reader_of(const std::string& content) {
  unique_bio bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  if (!bio) throw std::bad_alloc();
  return bio;
}

unique_bio new_text() {
  unique_bio bio(BIO_new(BIO_s_secmem()));
  if (!bio) throw std::bad_alloc();
  return bio;
}

std::string text_of(BIO* bio) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(bio, &bytes);
  return std::string(bytes, static_cast<std::size_t>(length));
}

int no_passphrase(char*, int, int, void*) {
  return -1;
}

// Whether the bytes begin with an encrypted private key in DER.
bool is_locked_der(const std::string& content) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
  const std::unique_ptr<X509_SIG, openssl_free<X509_SIG_free>> key(
      d2i_X509_SIG(nullptr, &bytes, static_cast<long>(content.size())));
  return key != nullptr;
}

}  // namespace

secret_text::~secret_text() {
  OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

std::optional<secret_text> find_small_file(const std::string& path) {
  // Without waiting, so that a pipe that nobody writes to is told from a file.
  const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0 && errno == ENOENT) return std::nullopt;
  struct stat status;
  if (file.get() < 0 || fstat(file.get(), &status) != 0)
    throw about(path, std::string(": ") + strerror(errno));
  if (!S_ISREG(status.st_mode)) throw about(path, " is not a regular file");
  if (status.st_size > static_cast<off_t>(max_small_file_bytes)) {
    throw about(path, " is too large for a certificate or key");
  }
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  if (!read_all(file.get(), bytes)) throw about(path, " cannot be read");
  return secret_text(std::move(bytes));
}

secret_text read_small_file(const std::string& path) {
  auto content = find_small_file(path);
  if (!content) throw about(path, std::string(": ") + strerror(ENOENT));
  return std::move(*content);
}

void write_new_file(const std::string& path, const std::string& content) {
  descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file.get() < 0) throw about(path, std::string(" cannot be created: ") + strerror(errno));
  // Whatever the umask, the file is read again.
  bool written = fchmod(file.get(), 0600) == 0 && write_all(file.get(), content) && fsync(file.get()) == 0;
  int cause = errno;
  if (close(file.release()) != 0 && written) {
    written = false;
    cause = errno;
  }
  if (written) return;
  unlink(path.c_str());
  throw about(path, std::string(" cannot be written: ") + strerror(cause));
}

unique_x509 der_certificate(const std::string& content) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
  return unique_x509(d2i_X509(nullptr, &bytes, static_cast<long>(content.size())));
}

unique_x509 pem_certificate(const std::string& content) {
  return unique_x509(PEM_read_bio_X509(reader_of(content).get(), nullptr, no_passphrase, nullptr));
}

std::vector<unique_x509> pem_certificates(const std::string& content) {
  const unique_bio reader = reader_of(content);
  std::vector<unique_x509> found;
  while (unique_x509 next{PEM_read_bio_X509(reader.get(), nullptr, no_passphrase, nullptr)})
    found.push_back(std::move(next));
  return found;
}

std::string pem_of(X509* certificate) {
  const unique_bio text = new_text();
  if (PEM_write_bio_X509(text.get(), certificate) != 1) throw std::bad_alloc();
  return text_of(text.get());
}

unique_pkey pem_key(const std::string& content, passphrase source) {
  const auto callback = source == passphrase::none ? no_passphrase : password_cb;
  return unique_pkey(PEM_read_bio_PrivateKey(reader_of(content).get(), nullptr, callback, nullptr));
}

std::string locked_key_words(const std::string& content) {
  if (is_locked_der(content)) return "its private key is encrypted in DER, and only PEM can be opened";
  const bool is_encrypted =
      content.find("BEGIN ENCRYPTED ") != content.npos ||  // PKCS #8, else the older form
      content.find(",ENCRYPTED") != content.npos;
  if (!is_encrypted || pem_key(content, passphrase::from_option_16)) return "";
  return "its private key is encrypted and FETCHRIG_KEY_PASSPHRASE does not open it";
}

std::string locked_key_words_of_file(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return "";
  return locked_key_words(read_small_file(path).bytes());
}

secret_text pem_of(EVP_PKEY* key) {
  const unique_bio text = new_text();
  if (PEM_write_bio_PrivateKey(text.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    throw std::bad_alloc();
  }
  return secret_text(text_of(text.get()));
}

}  // namespace fetchrig::cli
