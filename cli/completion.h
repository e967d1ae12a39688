// SPDX-License-Identifier: MIT
// completion.h: the words that a shell may offer. The shells' scripts ask the command itself, so that they know what it
// takes: "fetchrig __complete WORD...", the last word being the one that is typed.
#ifndef FETCHRIG_CLI_COMPLETION_H
#define FETCHRIG_CLI_COMPLETION_H

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace fetchrig::cli {

constexpr const char* completion_word = "__complete";

// Subcommands, options or an option's values that begin like the last of `words`, each with a tab and what it means.
// None where the name of a file or a text of one's own is wanted.
std::vector<std::string> completions(const CLI::App& app, const std::vector<std::string>& words);

}  // namespace fetchrig::cli
#endif
