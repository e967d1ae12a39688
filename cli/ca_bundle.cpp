// SPDX-License-Identifier: MIT
// ca_bundle.cpp: taking a PEM file of CAs apart, one certificate a file, each named after its subject's hash.
#include "ca_bundle.h"

#include <stdio.h>

#include <map>

#include "fetchrig.h"
#include "pem.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::string_view part_name = "part.pem";

// Takes the next certificate off the front of `rest`, with the lines around it.
std::optional<std::string_view> next_certificate(std::string_view& rest) {
  constexpr std::string_view begin = "-----BEGIN CERTIFICATE-----";
  constexpr std::string_view end = "-----END CERTIFICATE-----";
  const std::size_t start = rest.find(begin);
  const std::size_t stop = start == rest.npos ? start : rest.find(end, start);
  if (stop == rest.npos) return std::nullopt;
  const std::string_view certificate = rest.substr(start, stop + end.size() - start);
  rest.remove_prefix(stop + end.size());
  return certificate;
}

}  // namespace

ca_bundle::ca_bundle(const std::string& pem_file) {
  const secret_text content = read_small_file(pem_file);
  std::string_view rest = content.bytes();
  std::map<std::uint32_t, int> numbers;  // of the CAs with one hash
  while (const auto certificate = next_certificate(rest)) {
    const auto hash = add(*certificate);
    if (!hash) throw failed_file(printable(pem_file) + " holds a certificate that cannot be read");
    char name[32];
    snprintf(name, sizeof name, "%08x.%d", static_cast<unsigned>(*hash), numbers[*hash]++);
    directory_.rename(part_name, name);
  }
  if (numbers.empty()) throw failed_file(printable(pem_file) + " holds no certificate in PEM");
}

// Writes the certificate and has the library tell its hash.
std::optional<std::uint32_t> ca_bundle::add(std::string_view certificate) {
  directory_.write(part_name, certificate);
  const std::string path = directory() + "/" + std::string(part_name);
  dl_ca_info_ex info = {};
  dl_result result = {};
  if (dl_get_ca_info_ex(path.c_str(), &info, 0, &result) != 0) return std::nullopt;
  return info.hash;
}

}  // namespace fetchrig::cli
