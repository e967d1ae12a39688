// SPDX-License-Identifier: MIT
// device_cert.h: installs, completes and deletes the device certificate, the PEM file that option 2 names: a
// certificate followed by its private key. One certificate operation at a time.
#ifndef FETCHRIG_CERT_DEVICE_CERT_H
#define FETCHRIG_CERT_DEVICE_CERT_H

namespace fetchrig {

// Results of install_device_cert().
enum install_code {
  installed = 0,
  no_private_key = -2,
  no_certificate = -3,
  key_mismatch = -4,
  set_up_failed = -5,
  no_directory = -6,
  path_or_method_or_same = -7,
  same_as_factory = -8,
};

// Puts a copy of the file, which has passed all checks, in the place of the device certificate.
[[nodiscard]] int install_device_cert(const char* path);

// Writes what the file holds of certificate and key, and what it lacks from the present device certificate file, which
// is replaced. Returns 0 or -1.
[[nodiscard]] int install_device_cert_part(const char* path);

void remove_device_cert();

}  // namespace fetchrig
#endif
