// test_ca.cpp: issues certificates into files.
#include "tests/support/test_ca.h"

namespace test {

test_ca::test_ca(const temp_dir& place, const std::string& name)
    : directory_(place.make_dir(name)),
      root_(make_identity(name, new_ec_key(), {.extensions = ca_extensions})) {
  const std::string pem = pem_of(root_);
  write_file(file(), pem);
  place.make_dir(name + "/hashed");
  write_file(hashed_dir() + hash_name_of(root_), pem);
}

cert_files test_ca::issue(const std::string& file_name, const cert_request& request) const {
  identity_options options = {
      .issuer = &root_, .valid_from_s = request.valid_from_s, .valid_until_s = request.valid_until_s};
  if (!request.alt_names.empty()) {
    options.extensions.emplace_back("subjectAltName", request.alt_names.c_str());
  }
  const identity issued = make_identity(
      request.common_name, request.rsa_bits ? new_rsa_key(request.rsa_bits) : new_ec_key(), options);
  const std::string base = directory_ + "/" + file_name;
  const cert_files files = {base + ".crt", base + ".key", base + ".pem"};
  const std::string cert = pem_of(issued);
  const std::string key =
      pem_of(issued.key.get(), request.passphrase.empty() ? nullptr : request.passphrase.c_str());
  write_file(files.cert, cert);
  write_file(files.key, key);
  write_file(files.both, cert + key);
  return files;
}

}  // namespace test
