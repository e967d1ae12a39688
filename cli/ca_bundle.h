// SPDX-License-Identifier: MIT
// ca_bundle.h: a PEM file of trusted CAs in the form the library takes: a hashed directory, made for the run
// and removed with its owner. One thread.
#ifndef FETCHRIG_CLI_CA_BUNDLE_H
#define FETCHRIG_CLI_CA_BUNDLE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "temporary_path.h"

namespace fetchrig::cli {

class ca_bundle {
 public:
  // The library must have been initialised.
  // Throws failure when `pem_file` cannot be read or holds no certificate.
  explicit ca_bundle(const std::string& pem_file);

  const std::string& directory() const { return directory_.path(); }

 private:
  std::optional<std::uint32_t> add(std::string_view certificate);

  private_directory directory_;
};

}  // namespace fetchrig::cli
#endif
