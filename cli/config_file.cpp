// SPDX-License-Identifier: MIT
// config_file.cpp: the usual place, the lines made ready for the option parser, and whose fault a value is.
#include "config_file.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>

#include "environment.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::string_view line_blanks = " \t\r";
constexpr const char* config_option = "--config";

// A "#" begins a comment where no word is and no quotes are open.
std::string without_comment(const std::string& line) {
  char open = 0, before = ' ';
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (open == 0 && c == '#' && line_blanks.find(before) != line_blanks.npos)
      return without_blanks(line.substr(0, at));
    const bool starts = open == 0 && (c == '"' || c == '\'') &&
                        std::string_view(" \t=[,").find(before) != std::string_view::npos;
    if (starts) {
      open = c;
    } else if (c == open) {
      open = 0;
    }
    before = c;
  }
  return without_blanks(line);
}

// The parser would take blanks and commas for the ends of words.
std::string as_one_value(const std::string& value) {
  if (value.empty() || std::string_view("\"'[").find(value.front()) != std::string_view::npos) return value;
  const char quote = value.find('"') == value.npos ? '"' : '\'';
  return quote + value + quote;
}

// The parser of the options' library, which would cut every value at its first "#", in quotes too.
class config_reader : public CLI::ConfigBase {
 public:
  explicit config_reader(bool wanted) : wanted_(wanted) { comment('\0'); }
  std::vector<CLI::ConfigItem> from_config(std::istream& file) const override {
    std::stringstream ready;
    bool in_list = false;
    for (std::string line; std::getline(file, line);) {
      line = without_comment(line);
      const std::size_t equals = in_list || line.starts_with('[') ? line.npos : line.find('=');
      std::string value = equals == line.npos ? line : as_one_value(without_blanks(line.substr(equals + 1)));
      in_list = (in_list || (equals != line.npos && value.starts_with('['))) && !value.ends_with(']');
      ready << (equals == line.npos ? "" : line.substr(0, equals + 1)) << value << '\n';
    }
    return wanted_ ? ConfigBase::from_config(ready) : std::vector<CLI::ConfigItem>();
  }

 private:
  bool wanted_;
};

// $XDG_CONFIG_HOME/fetchrig.conf, or where that directory is by default; empty when nobody is at home.
std::string usual_config() {
  const char* place = getenv("XDG_CONFIG_HOME");
  if (place && *place) return std::string(place) + "/fetchrig.conf";
  const char* home = getenv("HOME");
  return home && *home ? std::string(home) + "/.config/fetchrig.conf" : "";
}

bool is_typed(std::string_view option, int argc, char** argv) {
  return std::any_of(argv + 1, argv + argc, [&](std::string_view word) { return word.starts_with(option); });
}

}  // namespace

void take_config(CLI::App& app, int argc, char** argv) {
  const bool asks_for_help = std::any_of(argv + 1, argv + argc, [](std::string_view word) {
    return word == "-h" || word == "--help" || word == "--version";
  });
  app.config_formatter(std::make_shared<config_reader>(!asks_for_help));
  app.set_config(config_option, usual_config(),
                 "File with the defaults of options; comes before the subcommand")
      ->type_name("FILE");
  app.allow_config_extras(CLI::config_extras_mode::error);
}

std::string unread_config(const CLI::App& app) {
  const std::string path = usual_config();
  if (app.count(config_option) > 0 || path.empty()) return "";  // it counts one that was read, too
  if (access(path.c_str(), R_OK) == 0) return printable(path) + ": is no file";
  return errno == ENOENT || errno == ENOTDIR ? "" : printable(path) + ": " + strerror(errno);
}

// An option that has a value which nobody typed has it from the file.
std::string with_config_name(const CLI::App& app, const CLI::App* ran, const std::string& words, int argc,
                             char** argv) {
  constexpr std::string_view unknown = "INI was not able to parse ";
  const std::string name = app[config_option]->as<std::string>() + ": ";
  if (words.starts_with(unknown)) return name + words.substr(unknown.size()) + " is not known";
  const std::size_t at = words.find("--");
  if (at == words.npos) return words;
  const std::string option = words.substr(at, words.find_first_of(": =,", at) - at);
  const CLI::Option* found = ran ? ran->get_option_no_throw(option) : nullptr;
  const bool has_value = !ran || (found && found->count() > 0);
  return has_value && !is_typed(option, argc, argv) ? name + words : words;
}

}  // namespace fetchrig::cli
