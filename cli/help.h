// SPDX-License-Identifier: MIT
// help.h: what --help says besides the options: examples. Stateless.
#ifndef FETCHRIG_CLI_HELP_H
#define FETCHRIG_CLI_HELP_H

namespace CLI {
class App;
}

namespace fetchrig::cli {

// Gives each subcommand two examples, and the command itself its environment and exit statuses.
void add_help_texts(CLI::App& app);

}  // namespace fetchrig::cli
#endif
