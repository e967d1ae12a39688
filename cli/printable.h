// SPDX-License-Identifier: MIT
// printable.h: texts from outside made fit for a terminal. Stateless; any thread.
#ifndef FETCHRIG_CLI_PRINTABLE_H
#define FETCHRIG_CLI_PRINTABLE_H

#include <string>
#include <string_view>

namespace fetchrig::cli {

// `text` with everything that would steer a terminal (control characters, those of direction, broken UTF-8) written as
// "\xNN".
std::string printable(std::string_view text);

// The same with "_" for each such byte, for the name of a file.
std::string terminal_safe(std::string_view text);

}  // namespace fetchrig::cli
#endif
