// SPDX-License-Identifier: MIT
// completion.cpp: walking along the typed words through the subcommands.
#include "completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace fetchrig::cli {
namespace {

struct fixed_values {
  const char* option;
  std::vector<std::string> values;
};
const std::vector<fixed_values>& known_values() {
  static const std::vector<fixed_values> known = {{"--auth", {"basic", "digest", "xsi"}},
                                                  {"--method", {"put", "post"}},
                                                  {"--tls-method", {"auto", "tls1.0"}},
                                                  {"--when-full", {"stop", "store"}}};
  return known;
}

std::vector<std::string> values_of(const std::string& option) {
  for (const fixed_values& entry : known_values()) {
    if (entry.option == option) return entry.values;
  }
  return {};
}

bool takes_value(const CLI::App& app, const std::string& word) {
  if (!word.starts_with('-')) return false;
  const CLI::Option* option = app.get_option_no_throw(word);
  return option && option->get_expected_min() > 0;
}

std::string described(const std::string& name, const std::string& description) {
  return name + "\t" + description;
}

std::vector<std::string> options_of(const CLI::App& app) {
  std::vector<std::string> found;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames())
      found.push_back(described("--" + name, option->get_description()));
    for (const std::string& name : option->get_snames())
      found.push_back(described("-" + name, option->get_description()));
  }
  return found;
}

std::vector<std::string> subcommands_of(const CLI::App& app) {
  std::vector<std::string> found;
  for (const CLI::App* each : app.get_subcommands({}))
    found.push_back(described(each->get_name(), each->get_description()));
  return found;
}

}  // namespace

std::vector<std::string> completions(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* at = &app;
  const std::string typed = words.empty() ? "" : words.back();
  std::string awaits_value;  // the option before the word
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    const bool is_value = !awaits_value.empty();
    awaits_value = !is_value && takes_value(*at, words[i]) ? words[i] : "";
    const auto inner =
        at->get_subcommands([&](const CLI::App* each) { return each->get_name() == words[i]; });
    if (!is_value && !inner.empty()) at = inner.front();
  }
  std::vector<std::string> found = typed.starts_with('-') ? options_of(*at) : subcommands_of(*at);
  if (!awaits_value.empty()) found = values_of(awaits_value);
  std::erase_if(found, [&](const std::string& each) { return !each.starts_with(typed); });
  return found;
}

}  // namespace fetchrig::cli
