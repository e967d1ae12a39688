// SPDX-License-Identifier: MIT
// source.h: one open download, whatever its protocol: bytes, and what is known about their number. HTTP is opened by
// the HTTP calls, which take headers and keep the query of the URL; FTP and TFTP by the common ones. One thread.
#ifndef FETCHRIG_CLI_SOURCE_H
#define FETCHRIG_CLI_SOURCE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "credentials.h"
#include "fetchrig.h"
#include "location.h"
#include "transfer.h"

namespace fetchrig::cli {

class source {
 public:
  virtual ~source() = default;
  // Fills `buffer` as far as bytes come; 0 is the end. Throws failure.
  virtual std::size_t read(std::span<char> buffer) = 0;
  // The length that the server announced, if it did.
  virtual std::optional<std::uint64_t> announced_bytes() const = 0;
  // True when the end is only the end of the connection, or the size limit: the two look the same without extras.
  virtual bool ends_at_limit() const { return false; }
};

struct source_request {
  const location& where;
  const credentials& login;
  std::string proxy;        // empty: none
  std::string headers;      // lines ended by CRLF
  bool xsi_authentication;  // BroadWorks XSI instead of Basic and Digest
};

// Opens the download and stores what the server told of it; throws failure, also for an HTTP status that brings no
// file. What the request refers to must outlive the source.
std::unique_ptr<source> open_source(const source_request& request, server_facts& told);

// Downloads into the file by one call of the library, which goes on with a part there when the extra is on; stores what
// the server told. Returns the outcome: code 0, or why it failed, also for an HTTP status that brings no file.
dl_result download_to_file(const source_request& request, const std::string& path, server_facts& told);

// True for a final HTTP status that means success; redirects that were not followed do not.
bool is_http_success(int status);

}  // namespace fetchrig::cli
#endif
