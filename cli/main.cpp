// main.cpp: the fetchrig command: reads the command line, runs the subcommand, turns the outcome into an exit
// status.
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <new>

#include "commands.h"
#include "fetchrig.h"
#include "report.h"

namespace {

using namespace fetchrig::cli;

constexpr const char* examples = R"(Examples:
  fetchrig get https://example.com/firmware.bin
  fetchrig get -o - tftp://192.0.2.7/boot.cfg
  FETCHRIG_PASSWORD=secret fetchrig get --user anna ftp://example.com/pub/list.txt
  fetchrig put report.txt https://example.com/inbox/ --user anna
  fetchrig put --append log.txt ftp://example.com/logs/today.txt
  fetchrig cert list --store /etc/phone/certs --json
  fetchrig cert verify server.pem --ca-dir /etc/ssl/certs
  fetchrig ring Bellcore-dr2

Environment:
  FETCHRIG_PASSWORD        password for --user
  FETCHRIG_KEY_PASSPHRASE  pass phrase of encrypted private keys
  FETCHRIG_KEY_SEED        seed of "cert generate"
  FETCHRIG_STORE           directory of the trusted-CA store
  FETCHRIG_DEVICE_CERT     device certificate file

Exit status: 0 done, 1 failed, 2 wrong usage.)";

int wrong_usage(const char* words) {
  tell(words);
  fputs("Run with --help for more information.\n", stderr);
  return exit_usage;
}

int run_action(const action& chosen) {
  try {
    return chosen();
  } catch (const usage_error& error) {
    return wrong_usage(error.what());
  } catch (const failure& error) {
    tell(error.what());
    return exit_failed;
  } catch (const std::bad_alloc&) {
    tell("out of memory");
    return exit_failed;
  }
}

// Output that cannot be written is a failure too; it may show only when the buffer is flushed.
int flushed(int status) {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  tell("standard output cannot be written");
  return status == exit_done ? exit_failed : status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Moves files over HTTP, HTTPS, FTP and TFTP, and manages certificates.", "fetchrig");
  app.set_version_flag("--version", std::string("fetchrig ") + dl_get_version());
  app.footer(examples);
  app.require_subcommand(1);
  action chosen;
  add_get(app, chosen);
  add_put(app, chosen);
  add_cert(app, chosen);
  add_ring(app, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return flushed(app.exit(error));  // --help, --version
    return wrong_usage(error.what());
  }
  return flushed(run_action(chosen));
}
