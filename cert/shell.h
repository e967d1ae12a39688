// SPDX-License-Identifier: MIT
// shell.h: the only place that runs shell commands: mkdir, ln -s and rm of the certificate store and the device
// certificate. Paths come from callers and from directory listings, so each stays one word whatever it holds. Commands
// read nothing of our standard input, so none can wait for an answer there, and their status arrives whatever the
// application does with SIGCHLD. No state; the caller runs certificate operations one at a time.
#ifndef FETCHRIG_CERT_SHELL_H
#define FETCHRIG_CERT_SHELL_H

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "include/fetchrig_types.h"

namespace fetchrig {

// Sizes of the buffers that commands are formed in, the terminator included.
inline constexpr std::size_t command_size = 512;
inline constexpr std::size_t removal_command_size = 128;

// The command "program path path ...". A path of ordinary characters stands as it is; any other is quoted,
// and "./" goes before a leading "-". Nothing when the command would not fit `size` bytes.
[[nodiscard]] std::optional<std::string> shell_command(std::size_t size, std::string_view program,
                                                       std::initializer_list<std::string_view> paths);

// Runs a command of shell_command() with the system's shell and returns its exit status, -1 when there is none.
// Anything but 0 is logged at `level`, with the command. A command that did not fit is logged and not run: -1.
int run_shell(const std::optional<std::string>& command, int level = DL_LOG_ERROR);

}  // namespace fetchrig
#endif
