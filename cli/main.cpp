// SPDX-License-Identifier: MIT
// main.cpp: the fetchrig command: reads the command line, runs the subcommand, turns the outcome into an exit
// status.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <new>
#include <string_view>

#include "commands.h"
#include "completion.h"
#include "config_file.h"
#include "fetchrig.h"
#include "help.h"
#include "report.h"

namespace {

using namespace fetchrig::cli;

int wrong_usage(std::string_view words) {
  tell(printable(words));
  fputs("Run with --help for more information.\n", stderr);
  return exit_usage;
}

bool is_option(const std::string& word) {
  return word.size() > 1 && word.front() == '-';
}

// Of the words that nobody takes the first option, or else the first word, as they were typed.
std::string first_wrong_word(const std::vector<std::string>& wrong, int argc, char** argv) {
  const bool has_options = std::any_of(wrong.begin(), wrong.end(), is_option);
  for (int i = 1; i < argc; ++i) {
    const bool is_wrong = std::find(wrong.begin(), wrong.end(), argv[i]) != wrong.end();
    if (is_wrong && is_option(argv[i]) == has_options) return argv[i];
  }
  return wrong.front();
}

// The subcommand that was reached, however deep.
const CLI::App& reached(const CLI::App& app) {
  const auto parsed = app.get_subcommands();
  return parsed.empty() ? app : reached(*parsed.front());
}

// A word that nobody takes explains an error better than what is missed in its place.
int wrong_command_line(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
  const auto wrong = app.remaining(true);
  const bool of_value = error.get_name() != "RequiredError";
  if (wrong.empty())
    return wrong_usage(with_config_name(app, of_value ? nullptr : &reached(app), error.what(), argc, argv));
  const std::string word = first_wrong_word(wrong, argc, argv);
  const bool wants_subcommand = !reached(app).get_subcommands({}).empty();
  const char* kind = is_option(word)    ? "unknown option"
                     : wants_subcommand ? "unknown subcommand"
                                        : "unexpected word";
  // The value of an option may be a secret.
  const std::string shown = is_option(word) ? word.substr(0, word.find('=')) : word;
  const bool is_general = is_option(word) && app.get_option_no_throw(shown) != nullptr;
  return wrong_usage(std::string(kind) + " \"" + shown + "\"" +
                     (is_general ? ", which stands before the subcommand" : ""));
}

int run_action(const action& chosen, const CLI::App& app, int argc, char** argv) {
  try {
    return chosen();
  } catch (const usage_error& error) {
    return wrong_usage(with_config_name(app, &reached(app), error.what(), argc, argv));
  } catch (const failure& error) {
    tell(error.what());
    return error.status();
  }
}

// Output that cannot be written is a failure too; it may show only when the buffer is flushed.
int flushed(int status) {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  tell("standard output cannot be written");
  return status == exit_done ? exit_local_file : status;
}

void end_without_catcher() {
  try {
    if (std::current_exception()) throw;
  } catch (const std::bad_alloc&) {
    tell("out of memory");
    _exit(exit_failed);
  } catch (...) {
  }
  abort();
}

// The option parser makes objects before main(), where nothing catches a failed allocation.
[[gnu::constructor(101)]] void expect_no_catcher() {
  std::set_terminate(end_without_catcher);
}

// Occupies those of the three standard descriptors that the caller has closed, so that no connection becomes
// our standard output. What is read or written there fails as before.
void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // takes the lowest one that is free
  }
}

int tell_completions(const CLI::App& app, int argc, char** argv) {
  for (const std::string& line : completions(app, {argv + 2, argv + argc})) puts(line.c_str());
  return exit_done;
}

int run_command_line(int argc, char** argv) {
  CLI::App app("Moves files over HTTP, HTTPS, FTP and TFTP, and manages certificates.", "fetchrig");
  app.set_version_flag("--version", std::string("fetchrig ") + dl_get_version());
  app.require_subcommand(1);
  action chosen;
  add_get(app, chosen);
  add_put(app, chosen);
  add_cert(app, chosen);
  add_ring(app, chosen);
  add_help_texts(app);
  take_config(app, argc, argv);
  if (argc > 1 && std::string_view(argv[1]) == completion_word) return tell_completions(app, argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
    return wrong_command_line(app, error, argc, argv);
  } catch (const usage_error& error) {  // of an option's own reader
    return wrong_usage(with_config_name(app, nullptr, error.what(), argc, argv));
  }
  if (const std::string fault = unread_config(app); !fault.empty()) return wrong_usage(fault);
  return run_action(chosen, app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  signal(SIGXFSZ, SIG_IGN);  // a write beyond the limit of file sizes fails, and is told as any other
  try {
    return flushed(run_command_line(argc, argv));
  } catch (const std::bad_alloc&) {
    tell("out of memory");
    return exit_failed;
  }
}
