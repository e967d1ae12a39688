// SPDX-License-Identifier: MIT
// config_file.h: the file with defaults of options: a section for each subcommand, [get] or [cert.list], and in it the
// long names of options. A value is all that stands behind "=" but for a comment, which begins with "#" behind a blank;
// in quotes or brackets it is read as TOML has it. Stateless; main's thread.
#ifndef FETCHRIG_CLI_CONFIG_FILE_H
#define FETCHRIG_CLI_CONFIG_FILE_H

#include <string>

namespace CLI {
class App;
}

namespace fetchrig::cli {

// Has the file of --config, or else the usual one, read with the command line. What stands in no section, or is not
// known there, is a mistake that is told, but not to who asks for help.
void take_config(CLI::App& app, int argc, char** argv);

// Why the usual file was passed over although it is there, with its name; empty when nothing is wrong.
std::string unread_config(const CLI::App& app);

// The words of a complaint, after the file's name when it is about a value that stands there. `ran` is the subcommand
// that complains; null when it is about a value for sure.
std::string with_config_name(const CLI::App& app, const CLI::App* ran, const std::string& words, int argc,
                             char** argv);

}  // namespace fetchrig::cli
#endif
