// SPDX-License-Identifier: MIT
// hashed_directory.h: directories in which OpenSSL looks CAs up by names that it makes of their subjects, as
// "openssl rehash" and the trusted-CA store have them. Any thread.
#ifndef FETCHRIG_CLI_HASHED_DIRECTORY_H
#define FETCHRIG_CLI_HASHED_DIRECTORY_H

#include <string>
#include <string_view>

namespace fetchrig::cli {

// Eight hexadecimal digits, a dot, a number.
bool is_hashed_name(std::string_view name);

// What keeps a directory from being of use, as words that go on a message; empty when nothing is seen.
std::string hashed_directory_fault(const std::string& directory);

}  // namespace fetchrig::cli
#endif
