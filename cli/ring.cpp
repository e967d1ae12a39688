// SPDX-License-Identifier: MIT
// ring.cpp: "fetchrig ring", finding the ring that an alert text names.
#include <limits.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <array>
#include <memory>

#include "commands.h"
#include "fetchrig.h"
#include "json_output.h"
#include "options.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t max_entries = 10;

struct ring_options {
  std::string alert;
  std::string name;
  std::vector<std::string> entries;  // "NAME=NUMBER"
  bool json = false;
  connection_options connection;
};

dl_ring_entry parse_entry(const std::string& text, std::size_t slot) {
  const std::size_t equals = text.rfind('=');
  const std::string digits = equals == text.npos ? "" : text.substr(equals + 1);
  const bool numeric =
      !digits.empty() && digits.size() <= 3 && digits.find_first_not_of("0123456789") == digits.npos;
  const int number = numeric ? std::stoi(digits) : -1;
  dl_ring_entry entry = {};
  if (number < 0 || number > 255 || equals == 0 || equals >= sizeof entry.name) {
    throw usage_error(
        "--entry takes NAME=NUMBER, a name of at most 125 characters and a number from 0 to 255");
  }
  entry.slot = static_cast<std::uint8_t>(slot);
  entry.number = static_cast<std::uint8_t>(number);
  text.copy(entry.name, equals);
  return entry;
}

void set_entries(const std::vector<std::string>& entries) {
  if (entries.size() > max_entries) throw usage_error("at most 10 --entry options");
  for (std::size_t slot = 0; slot < entries.size(); ++slot) {
    const dl_ring_entry entry = parse_entry(entries[slot], slot);
    dl_set_option(DL_OPT_RING_ENTRY, &entry);
  }
}

// Neither a number nor a file means the default ring, which is what a phone plays when nothing was found.
int tell_ring(int number, const std::string& file, bool json) {
  const bool found = number >= 0 || !file.empty();
  if (json) {
    nlohmann::ordered_json out = {{"ok", found}, {"number", nullptr}, {"file", nullptr}};
    if (number >= 0) out["number"] = number;
    if (!file.empty()) out["file"] = file;
    if (!found) out["message"] = logged_errors();
    print_json(out);
  } else if (number >= 0) {
    printf("ring %d\n", number);
  } else if (found) {
    puts(printable(file).c_str());
  }
  if (found) return exit_done;
  const std::string cause = logged_errors();
  tell("no ring found, the default ring is to be played" + (cause.empty() ? "" : ": " + cause));
  return exit_failed;
}

int run_ring(const ring_options& options) {
  const auto trusted_cas = configure(options.connection);
  set_entries(options.entries);
  std::array<char, PATH_MAX> path = {};
  int32_t number = -1;
  const char* name = options.name.empty() ? nullptr : options.name.c_str();
  const int found = dl_distinctive_ringtone_download(options.alert.c_str(), name, &number, path.data(),
                                                     static_cast<uint32_t>(path.size() - 1));
  return tell_ring(found == 1 ? number : -1, path.data(), options.json);
}

}  // namespace

void add_ring(CLI::App& app, action& chosen) {
  const auto options = std::make_shared<ring_options>();
  CLI::App* ring = app.add_subcommand("ring", "Find the ring that an incoming call's alert text names");
  ring->add_option("TEXT", options->alert, "URL of a WAVE file, or a ring name such as Bellcore-dr2")
      ->required();
  ring->add_option("--name", options->name, "Ring name to fall back on");
  ring->add_option("--entry", options->entries, "A ring name of your own; up to 10 times")
      ->type_name("NAME=NUMBER")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  ring->add_flag("--json", options->json, "Answer in JSON");
  add_connection_options(*ring, options->connection);
  ring->callback([options, &chosen] { chosen = [options] { return run_ring(*options); }; });
}

}  // namespace fetchrig::cli
