// SPDX-License-Identifier: MIT
// cert_store.h: the operations on the trusted-CA store.
#ifndef FETCHRIG_CLI_CERT_STORE_H
#define FETCHRIG_CLI_CERT_STORE_H

#include <string>

#include "cert_answer.h"
#include "cert_options.h"

namespace fetchrig::cli {

struct store_options {
  cert_options common;
  std::string target;  // a file, or the hash or name of an installed certificate
  bool prune = false;
  bool relocatable = false;
};

answer list_store(const store_options& options);
answer install_cas(const store_options& options);
answer remove_ca(const store_options& options);

}  // namespace fetchrig::cli
#endif
