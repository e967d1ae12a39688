// SPDX-License-Identifier: MIT
// terminal_line.h: the one line of standard error that is drawn again and again, and the lines that are told above it.
// Any thread.
#ifndef FETCHRIG_CLI_TERMINAL_LINE_H
#define FETCHRIG_CLI_TERMINAL_LINE_H

#include <string_view>

namespace fetchrig::cli {

// Draws `text` in place of what was drawn before.
void draw_line(std::string_view text);
void erase_line();
// Ends the drawn line, for a signal's handler: what the shell writes next stands below it.
void end_line_in_handler();
// Writes a line that stays in place of the drawn one, which comes back when it is drawn again. Takes no memory.
void write_line(std::string_view prefix, std::string_view text);

// True when standard error is a terminal, so that a person may be watching.
bool somebody_watches();

}  // namespace fetchrig::cli
#endif
