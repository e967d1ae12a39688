// SPDX-License-Identifier: MIT
// put.cpp: "fetchrig put", uploading one file.
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "cause.h"
#include "commands.h"
#include "credentials.h"
#include "fetchrig.h"
#include "location.h"
#include "options.h"
#include "progress.h"
#include "report.h"
#include "source.h"
#include "temporary_path.h"
#include "transfer.h"
#include "upload_watch.h"

namespace fetchrig::cli {
namespace {

constexpr std::size_t spool_buffer_bytes = std::size_t{64} * 1024;

// A file as it is to be sent.
struct upload_file {
  std::string path;
  std::uint64_t size_bytes = 0;
};

struct put_options {
  std::string file;  // "-": standard input
  std::string url;
  std::string method = "put";
  std::string name;
  bool append = false;
  std::string when_full = "stop";
  transfer_options transfer;

  bool posts() const { return method == "post"; }
  bool from_stdin() const { return file == "-"; }
  // A second try that follows one of unknown outcome does no harm.
  bool may_be_sent_twice() const { return !append && !posts(); }
};

using redirect_buffer = std::array<char, DL_REDIRECT_SIZE>;

constexpr const char* stdin_name = "stdin";

// The library counts the bytes of a larger file for extras alone, and those of TFTP never.
std::uint64_t most_sendable(const location& where) {
  return extras_are_on() && where.kind != scheme::tftp ? INT64_MAX : INT32_MAX;
}

// What would go wrong late, or without a telling word, in the library's call.
std::uint64_t check_file(const std::string& path, std::uint64_t most_bytes) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throw failed_file(printable(path) + ": " + strerror(errno));
  if (!S_ISREG(status.st_mode)) throw failed_file(printable(path) + " is not a regular file");
  if (static_cast<std::uint64_t>(status.st_size) > most_bytes)
    throw failure(0, printable(path) + " is larger than 2 GiB, the most that can be sent", exit_too_large);
  return static_cast<std::uint64_t>(status.st_size);
}

void check_options(const put_options& options, const location& where) {
  if (has_control_characters(last_part(options.file)))
    throw usage_error("the file's name holds control characters");
  if (has_control_characters(options.name)) throw usage_error("--name holds control characters");
  if (where.is_http() && (!options.name.empty() || options.append)) {
    throw usage_error("--name and --append are not for http and https URLs");
  }
  if (!where.is_http() && (!options.transfer.headers.empty() || options.posts())) {
    throw usage_error("--header and --method are for http and https URLs");
  }
  if (where.kind == scheme::tftp && options.append) throw usage_error("--append is for ftp URLs");
  if (options.from_stdin() && options.name.empty() && where.path.back() == '/' && !options.posts())
    throw usage_error("standard input has no name: end the URL in one");
  check_proxy(options.transfer, where);
}

failure beyond_limit(const put_options& options) {
  return failure(0,
                 (options.from_stdin() ? "standard input" : printable(options.file)) +
                     " is larger than the limit of " + std::to_string(size_limit_bytes()) +
                     " bytes (--max-size)",
                 exit_too_large);
}

// The library sends files alone: what comes from standard input is kept in one until it is sent.
upload_file spooled_input(const put_options& options, private_directory& directory,
                          std::uint64_t most_bytes) {
  const std::uint64_t limit = std::min(size_limit_bytes(), most_bytes);
  std::vector<char> buffer(spool_buffer_bytes);
  std::uint64_t size_bytes = 0;
  const std::string path = directory.fill(stdin_name, [&] {
    const std::size_t count = fread(buffer.data(), 1, buffer.size(), stdin);
    size_bytes += count;
    if (size_bytes > limit) throw beyond_limit(options);
    if (ferror(stdin)) throw failed_file("standard input cannot be read");
    return std::string_view(buffer.data(), count);
  });
  return {path, size_bytes};
}

std::string random_boundary() {
  constexpr char digits[] = "0123456789abcdef";
  std::random_device random;
  std::uniform_int_distribution<unsigned> digit(0, 15);
  std::string boundary = "fetchrig-";
  for (int i = 0; i < 32; ++i) boundary += digits[digit(random)];
  return boundary;
}

// The given header lines and the content type that the body needs, unless one is among them. The library
// takes the boundary of a POST from there.
std::string upload_headers(const put_options& options) {
  constexpr std::string_view name = "content-type:";
  const auto& given = options.transfer.headers;
  const auto type = std::find_if(given.begin(), given.end(), [&](const std::string& line) {
    return strncasecmp(line.c_str(), name.data(), name.size()) == 0;
  });
  std::string block = header_block(given);
  if (type != given.end()) {
    if (options.posts() && type->find("boundary=") == std::string::npos) {
      throw usage_error("a POST sends multipart/form-data: its Content-Type needs a \"boundary=\"");
    }
    return block;
  }
  block += options.posts() ? "Content-Type: multipart/form-data; boundary=" + random_boundary() + "\r\n"
                           : std::string("Content-Type: application/octet-stream\r\n");
  return block;
}

// A PUT to a directory names the new file after the local one.
std::string http_target(const put_options& options, const location& where) {
  if (options.posts() || where.url.back() != '/' || where.path.back() != '/') return where.url;
  return where.url + percent_encoded(last_part(options.file));
}

void put_http(const put_options& options, const std::string& file, const location& where,
              const credentials& login, server_facts& told) {
  const std::string headers = upload_headers(options);
  const std::string url = http_target(options, where);
  const std::string proxy = proxy_for(options.transfer, where);
  dl_http_request request = {};
  request.method = options.posts() ? DL_METHOD_POST : DL_METHOD_PUT;
  request.url = url.c_str();
  request.user = login.user();
  request.password = login.password();
  request.proxy = proxy.empty() ? nullptr : proxy.c_str();
  request.headers = headers.c_str();

  redirect_buffer redirect = {};
  dl_result result = {};
  dl_http_session* session = nullptr;
  const int rc = dl_http_post_file(&session, &request, file.c_str(), redirect.data(), &result);
  told.status = dl_http_last_status();
  told.final_url = redirect[0] != '\0' ? redirect.data() : url;
  if (rc == 0 && !is_http_success(told.status)) result.code = told.status;
  if (rc != 0 || result.code != 0) throw failed_transfer(where, login, result);
  if (dl_last_cause(nullptr) == DL_CAUSE_HEADER_CUT) {
    throw failure(DL_ERR_READ,
                  printable(url) +
                      ": the server's answer ends inside its header; whether it took the "
                      "file is not known",
                  exit_protocol, outlook::may_pass);
  }
}

// The remote name for FTP and TFTP: the URL's path, which may end in a directory for the local file's name.
std::string remote_name(const put_options& options, const location& where) {
  if (!options.name.empty()) return options.name;
  std::string name = where.path.substr(1);
  if (name.empty() || name.back() == '/') name += last_part(options.file);
  return name;
}

void put_named(const put_options& options, const std::string& file, const location& where,
               const credentials& login, server_facts& told) {
  const std::string name = remote_name(options, where);
  const dl_request request = {where.url.c_str(), login.user(), login.password(), nullptr};
  const std::int32_t mode = options.append ? DL_FTP_APPEND : DL_FTP_STORE;
  const std::uint32_t when_full = options.when_full == "store" ? DL_FTP_LIMIT_STORE : DL_FTP_LIMIT_STOP;
  redirect_buffer redirect = {};
  dl_result result = {};
  if (dl_upload(&request, file.c_str(), name.c_str(), redirect.data(), &result, nullptr, mode, when_full) !=
      0) {
    told.status = ftp_reply_number(result);
    throw failed_transfer(where, login, result);
  }
}

void send(const put_options& options, const upload_file& file, const location& where,
          const credentials& login, outcome& told) {
  const upload_watch arrived(where.kind, file.path, file.size_bytes);
  progress_meter meter(options.transfer.wants_progress(), [&] {
    return position{arrived(), 0, file.size_bytes};
  });
  if (where.is_http()) {
    put_http(options, file.path, where, login, told.server);
  } else {
    put_named(options, file.path, where, login, told.server);
  }
  meter.add(file.size_bytes);
  told.bytes = file.size_bytes;
  told.summary = printable(options.file) + ": sent " + meter.summary();
}

// The file to send, found or made when it is first needed: the limit is known by then.
class upload_source {
 public:
  const upload_file& get(const put_options& options, const location& where) {
    if (file_) return *file_;
    const std::uint64_t most_bytes = most_sendable(where);
    if (options.from_stdin()) return file_.emplace(spooled_input(options, directory_.emplace(), most_bytes));
    file_.emplace(upload_file{options.file, check_file(options.file, most_bytes)});
    if (file_->size_bytes > size_limit_bytes() && options.when_full == "stop") throw beyond_limit(options);
    return *file_;
  }

 private:
  std::optional<private_directory> directory_;
  std::optional<upload_file> file_;
};

int run_put(const put_options& options) {
  const location where = parse_location(options.url);
  check_options(options, where);
  if (where.is_http()) upload_headers(options);  // wrong ones are told before anything is done
  upload_source file;
  outcome told;
  told.file = options.file;
  told.repeatable = options.may_be_sent_twice();
  return run_transfer(where, options.transfer, told,
                      [&](const auto& target, const auto& login, outcome& now) {
                        send(options, file.get(options, target), target, login, now);
                      });
}

}  // namespace

void add_put(CLI::App& app, action& chosen) {
  const auto options = std::make_shared<put_options>();
  CLI::App* put = app.add_subcommand("put", "Upload a file over HTTP, HTTPS, FTP or TFTP");
  put->add_option("FILE", options->file, "Local file to send, \"-\" for standard input")->required();
  put->add_option("URL", options->url, "Where to; a URL that ends in \"/\" takes the file's own name")
      ->required();
  put->add_option("--method", options->method, "HTTP: put sends the file itself, post a multipart form")
      ->check(CLI::IsMember({"put", "post"}))
      ->capture_default_str();
  put->add_option("--name", options->name, "FTP and TFTP: remote name instead of the URL's path");
  put->add_flag("--append", options->append, "FTP: append to the remote file");
  put->add_option("--when-full", options->when_full,
                  "FTP: stop, or store anew, when remote and local size together pass --max-size")
      ->check(CLI::IsMember({"store", "stop"}))
      ->capture_default_str();
  add_transfer_options(*put, options->transfer);
  put->callback([options, &chosen] { chosen = [options] { return run_put(*options); }; });
}

}  // namespace fetchrig::cli
