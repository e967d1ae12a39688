// SPDX-License-Identifier: MIT
// get.cpp: "fetchrig get", downloading files.
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "commands.h"
#include "continued_file.h"
#include "digest.h"
#include "options.h"
#include "output_file.h"
#include "progress.h"
#include "report.h"
#include "source.h"
#include "transfer.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t copy_buffer_bytes = std::size_t{64} * 1024;
constexpr std::size_t least_read_bytes = 512;

struct get_options {
  std::vector<std::string> urls;
  std::optional<std::string> output;
  bool xsi = false;
  bool no_clobber = false;
  bool goes_on = false;  // with the part of an earlier call
  bool show_headers = false;
  bool remote_time = false;
  std::string sha256;  // in lower case, or empty
  std::string header_lines;
  transfer_options transfer;
};

// One URL of the call, and where it goes. The file holds its descriptor before any connection is made.
struct download {
  location where;
  std::string name;
  std::unique_ptr<output_file> file;
};

std::string output_name(const get_options& options, const location& where) {
  const std::string& output = options.output.value_or("./");
  if (output.empty())
    throw usage_error("-o takes the name of a file, a directory with \"/\" at its end, or \"-\"");
  struct stat status;
  if (output.back() != '/' && stat(output.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    throw usage_error(printable(output) + " is a directory; for a file in it end it in \"/\"");
  if (output.back() != '/') return output;
  const std::string name = saved_name(where);
  if (name.empty()) throw usage_error("the URL names no file; say where with -o FILE");
  return options.output || name == "-" ? output + name : name;
}

void check_url(const get_options& options, const location& where) {
  const bool http_only = !options.transfer.headers.empty() || options.xsi || options.remote_time;
  if (!where.is_http() && http_only)
    throw usage_error("--header, --auth and --remote-time are for http and https URLs");
  if (!where.is_http() && where.path.find_first_of("?#") != where.path.npos) {
    throw usage_error(
        "files with \"?\" or \"#\" in their name can only be sent over FTP and TFTP, not fetched");
  }
  check_proxy(options.transfer, where);
}

// Whether data there would come among the answers on standard output, by whatever name. A device takes both, unless it
// is a terminal.
bool is_where_answers_go(const std::string& name) {
  struct stat there, answers;
  if (name == "-") return true;
  if (stat(name.c_str(), &there) != 0 || fstat(STDOUT_FILENO, &answers) != 0) return false;
  if (S_ISCHR(answers.st_mode) && isatty(STDOUT_FILENO) != 1) return false;
  return there.st_dev == answers.st_dev && there.st_ino == answers.st_ino;
}

void check_options(const get_options& options) {
  const bool can_go_on = !options.transfer.connection.classic && dl_set_extra(DL_EXTRA_RESUME, 1) == 0;
  if (options.goes_on && !can_go_on) throw usage_error("--continue is one of the extras, which are off");
  if (options.urls.size() > 1 && !options.sha256.empty()) throw usage_error("--sha256 is for one URL");
}

// Whether a second file would take the first one's place; descriptors, devices and pipes take both.
bool takes_one_file(const download& to) {
  struct stat status;
  return !to.file->is_descriptor() && (stat(to.name.c_str(), &status) != 0 || S_ISREG(status.st_mode));
}

// Everything that can be wrong with the call, before anything is done.
std::vector<download> planned(const get_options& options) {
  std::vector<download> plan;
  std::set<std::string> names;
  check_options(options);
  for (const std::string& url : options.urls) {
    location where = parse_location(url);
    const std::string name = output_name(options, where);
    check_url(options, where);
    if (options.transfer.json && is_where_answers_go(name)) {
      throw usage_error("--json and " + (name == "-" ? "-o -" : printable(name)) +
                        " both need standard output");
    }
    plan.push_back({std::move(where), name, std::make_unique<output_file>(name)});
    if (!names.insert(name).second && takes_one_file(plan.back()))
      throw usage_error("two URLs go to the file " + printable(name));
  }
  return plan;
}

failure too_large(const std::string& subject, std::uint64_t limit, const char* how) {
  return failure(
      DL_ERR_READ,
      printable(subject) + ": " + how + " the limit of " + std::to_string(limit) + " bytes (--max-size)",
      exit_too_large);
}

// Takes what comes to `file`, holding it against the size limit and the announced length.
class body_copy {
 public:
  body_copy(source& from, const download& to, outcome& told, bool with_digest)
      : from_(from), to_(to), told_(told) {
    if (with_digest) digest_.emplace();
  }

  void run(progress_meter& meter) {
    if (announced_ && *announced_ > limit_)
      throw too_large(to_.where.shown, limit_, "the file is larger than");
    std::vector<char> buffer(copy_buffer_bytes);
    std::size_t wanted = meter.draws() ? least_read_bytes : buffer.size();
    for (;;) {
      const auto start = clock::now();
      const std::size_t count = from_.read(std::span(buffer).first(wanted));
      if (count == 0) break;
      meter.add(count);
      take(std::span<const char>(buffer).first(count));
      if (meter.draws()) wanted = next_size(wanted, clock::now() - start);
    }
    check_end();
  }
  // For a copy that was made with_digest.
  std::string sha256_hex() { return digest_->hex(); }

 private:
  using clock = std::chrono::steady_clock;

  // A read waits until its buffer is full. Who watches a slow connection is to see what comes as it comes.
  static std::size_t next_size(std::size_t bytes, clock::duration taken) {
    if (taken > std::chrono::milliseconds(50)) return std::max(bytes / 2, least_read_bytes);
    return std::min(bytes * 2, copy_buffer_bytes);
  }
  void take(std::span<const char> bytes) {
    told_.bytes += bytes.size();
    if (told_.bytes > limit_) throw too_large(to_.where.shown, limit_, "the file is larger than");
    if (to_.file->is_direct()) told_.repeatable = false;
    to_.file->write(bytes);
    if (digest_) digest_->add(bytes);
  }
  void check_end() const {
    if (announced_ && told_.bytes < *announced_) {
      throw failure(DL_ERR_READ,
                    printable(to_.where.shown) + ": the connection ended after " +
                        std::to_string(told_.bytes) + " of " + std::to_string(*announced_) + " bytes",
                    exit_protocol, outlook::may_pass);
    }
    // The library stops such a body at the limit, where a longer one would look the same.
    if (from_.ends_at_limit() && told_.bytes == limit_)
      throw too_large(to_.where.shown, limit_, "the server announced no length and the file reaches");
  }

  source& from_;
  const download& to_;
  outcome& told_;
  const std::uint64_t limit_ = size_limit_bytes();
  const std::optional<std::uint64_t> announced_ = from_.announced_bytes();
  std::optional<sha256> digest_;
};

void show_headers(const server_facts& server) {
  for (const std::string& line : server.headers) fprintf(stderr, "%s\n", printable(line).c_str());
}

void check_digest(const std::string& wanted, const std::string& found, const std::string& subject) {
  if (wanted == found) return;
  throw failure(0, printable(subject) + ": the SHA-256 is " + found + ", not the one that was given",
                exit_digest);
}

std::unique_ptr<source> open_and_tell(const get_options& options, const source_request& request,
                                      server_facts& told) {
  auto from = open_source(request, told);
  if (options.show_headers && !options.transfer.json) show_headers(told);
  if (!options.show_headers) told.headers.clear();
  return from;
}

void put_in_place(const get_options& options, const download& to, const server_facts& server) {
  if (options.remote_time && server.modified_s) to.file->set_modification_time(*server.modified_s);
  to.file->commit(options.no_clobber ? name_use::new_only : name_use::replacing);
}

// The call that goes on keeps no header lines: who wants to know them asks for them first.
void fetch_rest(const get_options& options, const download& to, const source_request& request,
                const std::string& place, outcome& told) {
  const bool wants_headers = options.show_headers || options.remote_time;
  if (wants_headers && request.where.is_http()) open_and_tell(options, request, told.server);
  dl_set_extra(DL_EXTRA_RESUME, 1);
  continued_file file(place);
  {
    progress_meter meter(options.transfer.wants_progress(), [&file] { return file.progress(); });
    const auto came = file.download(request, told.server);
    const position end = file.progress();
    told.bytes = end.held_bytes + end.moved_bytes;
    if (came.code != 0) throw file.failed(request, came);
    meter.add(end.moved_bytes);
    told.summary = printable(to.name) + ": " + meter.summary();
  }
  if (!options.sha256.empty())
    check_digest(options.sha256, sha256::of_file(file.path()), request.where.shown);
  to.file->take(file.take());
  put_in_place(options, to, told.server);
}

void fetch(const get_options& options, const download& to, const location& where, const credentials& login,
           outcome& told) {
  to.file->discard();
  const source_request request = {where, login, proxy_for(options.transfer, where), options.header_lines,
                                  options.xsi};
  const bool can_go_on = options.goes_on && where.kind != scheme::tftp;
  if (const auto place = can_go_on ? to.file->waiting_place() : std::nullopt)
    return fetch_rest(options, to, request, *place, told);
  const auto from = open_and_tell(options, request, told.server);
  to.file->open();
  body_copy copy(*from, to, told, !options.sha256.empty());
  {
    // What is drawn would run into the data on a terminal that shows them.
    const bool wanted = options.transfer.wants_progress() && !to.file->is_terminal();
    progress_meter meter(wanted, from->announced_bytes());
    copy.run(meter);
    if (!to.file->is_terminal())
      told.summary = printable(to.name == "-" ? where.shown : to.name) + ": " + meter.summary();
  }
  if (!options.sha256.empty()) check_digest(options.sha256, copy.sha256_hex(), where.shown);
  put_in_place(options, to, told.server);
}

// With --no-clobber: a file that is there already is what was wanted, unless its digest says otherwise.
bool is_there(const get_options& options, const download& to) {
  struct stat status;
  if (!options.no_clobber) return false;
  if (stat(to.name.c_str(), &status) != 0) {
    if (lstat(to.name.c_str(), &status) == 0) throw failed_file(printable(to.name) + " is a link to nothing");
    return false;
  }
  if (!S_ISREG(status.st_mode)) return false;
  if (!options.sha256.empty()) check_digest(options.sha256, sha256::of_file(to.name), to.name);
  return true;
}

int run_download(const get_options& options, const download& to) {
  outcome told;
  told.file = to.name;
  const int status =
      run_transfer(to.where, options.transfer, told, [&](const auto& where, const auto& login, outcome& now) {
        now.skipped = is_there(options, to);
        if (now.skipped) {
          now.summary = printable(to.name) + " is there already and stays as it is";
        } else {
          fetch(options, to, where, login, now);
        }
      });
  to.file->discard();
  return status;
}

// Tries them all; the first failure is the one that the exit status tells.
int run_get(get_options& options) {
  options.header_lines = header_block(options.transfer.headers);
  int status = exit_done;
  for (const download& each : planned(options)) {
    const int ended = run_download(options, each);
    if (status == exit_done) status = ended;
  }
  return status;
}

void add_options(CLI::App& get, const std::shared_ptr<get_options>& options) {
  get.add_option("URL", options->urls,
                 "http://, https://, ftp://, ftpes:// or tftp:// URLs; HOST/PATH alone means TFTP")
      ->required();
  get.add_option(
         "-o,--output", options->output,
         "File to write, a directory with \"/\" at its end, \"-\" for standard output; else the URL names it")
      ->type_name("FILE");
  get.add_flag("--no-clobber", options->no_clobber, "Leave a file that is there already as it is");
  get.add_flag("--continue", options->goes_on,
               "Keep what came of a download that fails in FILE.fetchrig/, and go on with it (HTTP, FTP)");
  get.add_option_function<std::string>(
         "--sha256", [options](const std::string& typed) { options->sha256 = checked_sha256(typed); },
         "Put the file in place only if this is its SHA-256")
      ->type_name("HEX");
  get.add_flag("--remote-time", options->remote_time, "Give the file the time of the server's (HTTP)");
  get.add_flag("--show-headers", options->show_headers,
               "Show the header lines of an HTTP answer with status 200, on standard error or in the JSON");
  get.add_option_function<std::string>(
         "--auth", [options](const std::string& type) { options->xsi = type == "xsi"; },
         "Answer to an HTTP challenge: basic (Basic or Digest) or xsi (BroadWorks)")
      ->check(CLI::IsMember({"basic", "digest", "xsi"}))
      ->type_name("TYPE");
  add_transfer_options(get, options->transfer);
}

}  // namespace

void add_get(CLI::App& app, action& chosen) {
  const auto options = std::make_shared<get_options>();
  CLI::App* get = app.add_subcommand("get", "Download files over HTTP, HTTPS, FTP or TFTP");
  add_options(*get, options);
  get->callback([options, &chosen] { chosen = [options] { return run_get(*options); }; });
}

}  // namespace fetchrig::cli
