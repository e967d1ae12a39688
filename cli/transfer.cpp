// SPDX-License-Identifier: MIT
// transfer.cpp: trying, waiting, trying again, telling.
#include "transfer.h"

#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <random>
#include <thread>

#include "environment.h"
#include "fetchrig.h"
#include "json_output.h"
#include "report.h"
#include "terminal_line.h"

namespace fetchrig::cli {
namespace {

constexpr double longest_wait_s = 300;

// Who asks for a login: the server that the URL names, or the one that it redirected to. Nothing when that one's URL is
// none that the command would take.
std::optional<location> asking_server(const location& where, const server_facts& server) try {
  return server.final_url.empty() ? where : parse_location(server.final_url);
} catch (const usage_error&) {
  return std::nullopt;
}

// A login of ~/.netrc must not go to whom its host redirects to.
void limit_redirects(const credentials& login, std::uint32_t usual) {
  set_number_option(DL_OPT_MAX_REDIRECTS, login.is_for_one_host() ? 0 : usual);
}

class transfer {
 public:
  transfer(const location& where, const transfer_options& options, const attempt& attempt_once)
      : where_(where),
        options_(options),
        attempt_once_(attempt_once),
        login_(where, options.user, options.password, !options.no_env) {}

  void run(outcome& told) {
    for (unsigned tries = 0;; ++tries) {
      try {
        return try_once(told);
      } catch (const failure& why) {
        const bool again = why.may_pass() && (told.repeatable || why.status() == exit_unreachable);
        if (!again || tries == options_.retries) throw;
        wait_before(tries + 1, why);
      }
    }
  }

 private:
  // An HTTP server that wants a login gets the one of ~/.netrc, when there is no other.
  void try_once(outcome& told) {
    told.server = {};
    told.bytes = 0;
    forget_log();
    limit_redirects(login_, usual_redirects_);
    try {
      attempt_once_(where_, login_, told);
    } catch (const failure& why) {
      if (why.status() != exit_login || login_.user() || !where_.is_http() || options_.no_env) throw;
      const auto asking = asking_server(where_, told.server);
      auto found = asking ? environment_login(*asking, std::nullopt) : std::nullopt;
      if (!found) throw;
      const credentials host_login(std::move(*found));
      limit_redirects(host_login, usual_redirects_);
      attempt_once_(*asking, host_login, told);
    }
  }

  // A random part of a time that doubles: clients that failed together do not come back together.
  void wait_before(unsigned number, const failure& why) const {
    const double most_s =
        std::min(std::ldexp(options_.retry_delay_s, static_cast<int>(number) - 1), longest_wait_s);
    std::random_device random;
    const double wait_s = std::uniform_real_distribution<double>(0, most_s)(random);
    if (!options_.quiet && (somebody_watches() || options_.connection.verbosity > 0)) {
      char words[64];
      snprintf(words, sizeof words, "; trying again in %.2f s (%u of %u)", wait_s, number, options_.retries);
      tell(why.what() + std::string(words));
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(wait_s));
  }

  const location& where_;
  const transfer_options& options_;
  const attempt& attempt_once_;
  const credentials login_;
  const std::uint32_t usual_redirects_ = redirect_limit();
};

// What the calls for FTP and TFTP refuse, as those for HTTP tell it.
void check_address(const location& where) {
  if (where.is_http()) return;
  if (!has_usable_address(where)) {
    throw failure(DL_ERR_URL, printable(where.shown) + ": the host or the port is wrong (code -9)",
                  exit_usage);
  }
  if (where.host.find(':') != where.host.npos && !ipv6_is_allowed()) {
    throw failure(DL_ERR_IPV6_DISABLED, printable(where.shown) + ": an IPv6 address needs --ipv6 (code -13)",
                  exit_usage);
  }
}

nlohmann::ordered_json outcome_json(const location& where, const outcome& told, double seconds) {
  nlohmann::ordered_json json = {{"ok", true}, {"code", 0}, {"message", ""}, {"exit", exit_done}};
  json["status"] = nullptr;
  if (told.server.status != 0) json["status"] = told.server.status;
  json["url"] = where.shown;
  json["final_url"] = told.server.final_url.empty() ? where.shown : told.server.final_url;
  json["file"] = told.file;
  json["bytes"] = told.bytes;
  json["seconds"] = std::round(seconds * 1000) / 1000;
  if (told.skipped) json["skipped"] = true;
  if (!told.server.headers.empty()) json["headers"] = told.server.headers;
  return json;
}

// What has no connection may lack it to the proxy, which somebody may have set long ago.
std::string failure_words(const failure& why, const location& where, const transfer_options& options) {
  const bool connected = why.status() != exit_unreachable && why.status() != exit_timeout;
  return why.what() +
         std::string(connected || proxy_for(options, where).empty() ? "" : "; a proxy is in use");
}

}  // namespace

int run_transfer(const location& where, const transfer_options& options, outcome& told,
                 const attempt& attempt_once) {
  const auto start = std::chrono::steady_clock::now();
  const auto json_now = [&] {
    return outcome_json(where, told,
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  };
  try {
    const auto trusted_cas = configure(options, where);
    check_address(where);
    transfer(where, options, attempt_once).run(told);
    if (options.json) print_json_line(json_now());
    if (!options.quiet && somebody_watches() && !told.summary.empty()) tell(told.summary);
    return exit_done;
  } catch (const failure& why) {
    const std::string words = failure_words(why, where, options);
    auto json = json_now();
    json.update({{"ok", false}, {"code", why.code()}, {"message", words}, {"exit", why.status()}});
    if (options.json) print_json_line(json);
    tell(words);
    return why.status();
  }
}

}  // namespace fetchrig::cli
