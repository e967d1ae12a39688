// SPDX-License-Identifier: MIT
// commands.h: the subcommands. Each adds itself to the command line and, when it is the one that was typed,
// leaves what is to be done in `action`; the action returns the exit status or throws usage_error or failure.
#ifndef FETCHRIG_CLI_COMMANDS_H
#define FETCHRIG_CLI_COMMANDS_H

#include <functional>

namespace CLI {
class App;
}

namespace fetchrig::cli {

using action = std::function<int()>;

void add_get(CLI::App& app, action& chosen);
void add_put(CLI::App& app, action& chosen);
void add_cert(CLI::App& app, action& chosen);
void add_ring(CLI::App& app, action& chosen);

}  // namespace fetchrig::cli
#endif
