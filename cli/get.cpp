// SPDX-License-Identifier: MIT
// get.cpp: "fetchrig get", downloading one file.
#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <vector>

#include "commands.h"
#include "options.h"
#include "output_file.h"
#include "progress.h"
#include "report.h"
#include "source.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t copy_buffer_bytes = std::size_t{64} * 1024;

struct get_options {
  std::string url;
  std::optional<std::string> output;
  bool xsi = false;
  transfer_options transfer;
};

std::string output_name(const get_options& options, const location& where) {
  if (options.output) {
    if (options.output->empty()) throw usage_error("-o takes the name of a file, or \"-\"");
    return *options.output;
  }
  std::string name = last_part(where.path);
  if (name.empty() || name == "." || name == "..")
    throw usage_error("the URL names no file; say where with -o FILE");
  return name;
}

void check_options(const get_options& options, const location& where) {
  if (!where.is_http() && (!options.transfer.headers.empty() || options.xsi)) {
    throw usage_error("--header and --auth are for http and https URLs");
  }
  check_proxy(options.transfer, where);
}

failure too_large(const std::string& subject, std::uint32_t limit, const char* how) {
  return failure(DL_ERR_READ, printable(subject) + ": " + how + " the limit of " + std::to_string(limit) +
                                  " bytes (--max-size)");
}

// Copies the download to `file`, holding it against the size limit and the announced length.
void copy_body(source& from, output_file& file, progress_meter& meter, const std::string& subject) {
  const std::uint32_t limit = size_limit_bytes();
  const auto announced = from.announced_bytes();
  if (announced && *announced > limit) throw too_large(subject, limit, "the file is larger than");
  std::vector<char> buffer(copy_buffer_bytes);
  while (const std::size_t count = from.read(buffer)) {
    meter.add(count);
    if (meter.total() > limit) throw too_large(subject, limit, "the file is larger than");
    file.write(std::span<const char>(buffer).first(count));
  }
  if (announced && meter.total() < *announced) {
    throw failure(DL_ERR_READ, printable(subject) + ": the connection ended after " +
                                   std::to_string(meter.total()) + " of " + std::to_string(*announced) +
                                   " bytes");
  }
  // The library stops such a body at the limit, where a longer one would look the same.
  if (from.ends_unmarked() && meter.total() == limit) {
    throw too_large(subject, limit, "the server announced no length and the file reaches");
  }
}

int run_get(const get_options& options) {
  const location where = parse_location(options.url);
  const std::string name = output_name(options, where);
  check_options(options, where);
  const std::string headers = header_block(options.transfer.headers);
  output_file file(name);
  const auto trusted_cas = configure(options.transfer, where);
  const credentials login(where, options.transfer.user, options.transfer.password);

  const auto from = open_source({where, login, options.transfer.proxy, headers, options.xsi});
  file.open();
  // What is drawn would run into the data on a terminal that shows them.
  const bool wanted = !options.transfer.quiet && !file.is_terminal();
  std::string summary;
  {
    progress_meter meter(wanted && options.transfer.connection.verbosity == 0, from->announced_bytes());
    copy_body(*from, file, meter, where.url);
    summary = meter.summary();
  }
  file.commit();
  if (wanted && somebody_watches()) tell(printable(name == "-" ? where.url : name) + ": " + summary);
  return exit_done;
}

}  // namespace

void add_get(CLI::App& app, action& chosen) {
  const auto options = std::make_shared<get_options>();
  CLI::App* get = app.add_subcommand("get", "Download a file over HTTP, HTTPS, FTP or TFTP");
  get->add_option("URL", options->url, "http://, https://, ftp:// or tftp:// URL; HOST/PATH alone means TFTP")
      ->required();
  get->add_option("-o,--output", options->output,
                  "File to write, \"-\" for standard output; else the URL names it")
      ->type_name("FILE");
  get->add_option_function<std::string>(
         "--auth", [options](const std::string& type) { options->xsi = type == "xsi"; },
         "Answer to an HTTP challenge: basic (Basic or Digest) or xsi (BroadWorks)")
      ->check(CLI::IsMember({"basic", "digest", "xsi"}))
      ->type_name("TYPE");
  add_transfer_options(*get, options->transfer);
  get->callback([options, &chosen] { chosen = [options] { return run_get(*options); }; });
}

}  // namespace fetchrig::cli
