// shell.cpp: forming and running the store's shell commands.
#include "cert/shell.h"

#include <stdlib.h>

#include <algorithm>

#include "core/text.h"
#include "include/fetchrig.h"

namespace fetchrig {
namespace {

// Characters that mean nothing to the shell anywhere in a word after the first.
constexpr bool is_ordinary(char c) {
  return is_digit(c) || (lower(c) >= 'a' && lower(c) <= 'z') ||
         std::string_view("_./+,:@%=-").find(c) != std::string_view::npos;
}

// Within single quotes only the single quote itself ends the word, so it is written outside of them.
void append_quoted(std::string& command, std::string_view path) {
  command += '\'';
  for (const char c : path) {
    if (c == '\'') {
      command += "'\\''";
    } else {
      command += c;
    }
  }
  command += '\'';
}

void append_word(std::string& command, std::string_view path) {
  command += ' ';
  if (path.starts_with('-')) command += "./";
  if (!path.empty() && std::all_of(path.begin(), path.end(), is_ordinary)) {
    command += path;
  } else {
    append_quoted(command, path);
  }
}

}  // namespace

std::optional<std::string> shell_command(std::size_t size, std::string_view program,
                                         std::initializer_list<std::string_view> paths) {
  std::string command(program);
  for (const std::string_view path : paths) append_word(command, path);
  if (command.size() >= size) return std::nullopt;
  return command;
}

int run_shell(const std::optional<std::string>& command) {
  if (!command) {
    qxfr_log(DL_LOG_CMN, DL_LOG_ERROR, "command is too long, not run\n");
    return -1;
  }
  return ::system(command->c_str());
}

}  // namespace fetchrig
