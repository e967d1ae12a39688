// SPDX-License-Identifier: MIT
// client_key.h: the private key of a client certificate that is to be issued: the one in the key file, or a
// new random one. A file that is there already is never changed, replaced or removed. Option 16 must be set
// before. One thread.
#ifndef FETCHRIG_CLI_CLIENT_KEY_H
#define FETCHRIG_CLI_CLIENT_KEY_H

#include <memory>
#include <string>

#include "scratch_copy.h"
#include "temporary_path.h"

namespace fetchrig::cli {

class client_key {
 public:
  // Throws failure when the file is there and the library could not use its key, which it would then replace.
  explicit client_key(const std::string& path);
  client_key(const client_key&) = delete;
  client_key& operator=(const client_key&) = delete;

  bool found() const { return found_; }
  // Writes a random RSA key to the file, which is not there yet. The file goes again with this owner, or by a
  // signal that ends the command, unless keep() was called.
  void make_random(int bits);
  // What the library is to read, or to write when nothing was found or made: the file itself, or an
  // unencrypted copy of its key.
  const char* library_path() const { return copy_ ? copy_->path() : path_.c_str(); }
  // Whether the certificate in `path` is for the key in the file.
  bool belongs_to(const std::string& certificate_path) const;
  void keep() { made_.keep(); }

 private:
  std::string path_;
  std::unique_ptr<scratch_copy> copy_;
  bool found_ = false;
  temporary_path made_;
};

// Why the file must not be replaced by a new certificate with its key; empty when it may be. A private key goes
// only with the certificate it belongs to.
std::string why_irreplaceable(const std::string& certificate_path);

}  // namespace fetchrig::cli
#endif
