// SPDX-License-Identifier: MIT
// cert_options.h: what the certificate subcommands have in common: where the trusted-CA store and the device
// certificate are, and in which form to answer.
#ifndef FETCHRIG_CLI_CERT_OPTIONS_H
#define FETCHRIG_CLI_CERT_OPTIONS_H

#include <string>

#include "commands.h"

namespace fetchrig::cli {

struct cert_options {
  std::string store;        // as typed; may lack its last "/"
  std::string device_cert;  // path of the device certificate file
  bool json = false;
  int verbosity = 0;

  // The store's directory with a "/" at its end; throws usage_error when none was named.
  std::string store_dir() const;
  // Throws usage_error when none was named.
  const std::string& device_cert_file() const;
  // The same file by a path of two directories at least: the library takes both from the path's text.
  std::string device_cert_path() const;
};

void add_json_option(CLI::App& app, cert_options& options);
void add_store_option(CLI::App& app, cert_options& options);
void add_device_option(CLI::App& app, cert_options& options);

// Initialises the library for certificate operations.
void configure(const cert_options& options);

// The groups of subcommands under "cert".
void add_cert_files(CLI::App& cert, action& chosen);     // info, verify
void add_cert_generate(CLI::App& cert, action& chosen);  // generate
void add_cert_store(CLI::App& cert, action& chosen);     // list, install, remove
void add_cert_device(CLI::App& cert, action& chosen);    // device ...

}  // namespace fetchrig::cli
#endif
