// cause.cpp: from log lines and codes to causes.
#include "cause.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>

#include "hashed_directory.h"
#include "options.h"
#include "source.h"

namespace fetchrig::cli {
namespace {

// The last causes met, empty when there was none.
struct learnt_causes {
  std::string host;        // why the name was not found
  std::string connecting;  // why there is no connection, TLS included
  std::string talking;     // what went wrong on a connection
  bool beyond_counting = false;
  bool answer_cut = false;
};

// Written by the log callback, which runs on the command's only thread.
learnt_causes learnt;

std::string within_limit() {
  return " within " + std::to_string(wait_limit_s()) + " s";
}

std::string in_quotes(std::string_view text) {
  return "\"" + printable(text) + "\"";
}

// The number at the front of `text`, which may follow `name` somewhere in it.
std::optional<int> number_after(std::string_view text, std::string_view name) {
  const std::size_t at = text.find(name);
  if (at == text.npos) return std::nullopt;
  text.remove_prefix(at + name.size());
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

bool is_time_out(int error) {
  return error == 0 || error == ETIMEDOUT || error == EAGAIN || error == EINPROGRESS;
}

// What is wrong with the directories of trusted CAs, where that can be seen.
std::string ca_directory_remark() {
  for (const std::string& directory : ca_directories()) {
    if (const std::string fault = hashed_directory_fault(directory); !fault.empty()) return fault;
  }
  return "";
}

std::string host_words(std::string_view rest) {
  return "host not found: " + printable(rest);
}

// "ret %d, errno %d timeout %d error %d": the results of connect or of the wait for it.
std::string connect_words(std::string_view rest) {
  if (number_after(rest, "ret ") == 0) return "no connection" + within_limit();
  const int pending = number_after(rest, " error ").value_or(0);
  const int error = pending > 0 ? pending : number_after(rest, "errno ").value_or(0);
  return error == ECONNREFUSED ? "connection refused" : std::string("no connection: ") + strerror(error);
}

// An alert is what the server said; the rest are OpenSSL's own complaints.
std::string tls_words(std::string_view rest) {
  constexpr std::string_view alert = " alert ";
  const std::size_t at = rest.find(alert);
  if (at == rest.npos) {
    const bool other_protocol = rest == "wrong version number" || rest == "http request";
    return "TLS failed: " + printable(rest) + (other_protocol ? ", is there a TLS server?" : "");
  }
  std::string words = "the server ended TLS with the alert " + in_quotes(rest.substr(at + alert.size()));
  // Before TLS 1.3 the lack of a certificate had no alert of its own.
  if (rest.ends_with("certificate required")) words += ", it needs a client certificate (--cert)";
  if (rest.ends_with("handshake failure")) words += ", it may need a client certificate (--cert)";
  return words;
}

std::string handshake_words(std::string_view rest) {
  return rest == "no reason given" ? std::string() : tls_words(rest);
}

std::string handshake_errno_words(std::string_view rest) {
  if (number_after(rest, "") == ETIMEDOUT) return "no answer to the TLS handshake" + within_limit();
  return "the server closed the connection during the TLS handshake";
}

std::string chain_words(std::string_view rest) {
  const int number = number_after(rest, "").value_or(0);
  const char* reason = chain_reason(number);
  const std::string told = reason ? reason : "OpenSSL's error " + std::to_string(number);
  return "the server's certificate is not trusted: " + told + ca_directory_remark();
}

std::string host_name_words(std::string_view) {
  return "the server's certificate does not name this host";
}

std::string ca_words(std::string_view rest) {
  return "the trusted CAs cannot be loaded: " + printable(rest);
}

std::string key_words(std::string_view) {
  return "the client certificate's private key cannot be read (a pass phrase comes from "
         "FETCHRIG_KEY_PASSPHRASE)";
}

std::string certificate_words(std::string_view) {
  return "the client certificate cannot be read";
}

std::string wait_words(std::string_view rest) {
  const int error = number_after(rest, "").value_or(0);
  return is_time_out(error) ? "no answer" + within_limit()
                            : std::string("waiting failed: ") + strerror(error);
}

std::string write_words(std::string_view rest) {
  const int error = number_after(rest, "").value_or(0);
  if (is_time_out(error)) return "the server took nothing more" + within_limit();
  return std::string("the server closed the connection while data were sent: ") + strerror(error);
}

std::string broken_words(std::string_view rest) {
  const int error = number_after(rest, "").value_or(0);
  if (error == ETIMEDOUT) return "no answer" + within_limit();
  return error == 0 ? "the connection broke" : std::string("the connection broke: ") + strerror(error);
}

std::string silent_words(std::string_view) {
  return "the server closed the connection without an answer";
}

std::string no_http_words(std::string_view) {
  return "the server's answer is not HTTP";
}

std::string no_reply_words(std::string_view) {
  return "the server closed the connection without a whole FTP reply";
}

std::string data_end_words(std::string_view) {
  return "the connection ended before the whole file had come";
}

std::string no_location_words(std::string_view) {
  return "the server redirects without a target";
}

std::string challenge_words(std::string_view) {
  return "the server asks for a kind of login that is not supported";
}

std::string tftp_words(std::string_view rest) {
  const std::size_t colon = rest.find(": ");
  if (colon == rest.npos) return "";
  return "the server answered " + in_quotes(rest.substr(colon + 2)) + " (TFTP error " +
         printable(rest.substr(0, colon)) + ")";
}

enum class strength { firm, weak };  // a weak cause does not replace another

// A beginning of a log line, and what the rest of it means.
struct log_sign {
  std::string_view beginning;
  std::string learnt_causes::*cause;
  strength weight;
  std::string (*words)(std::string_view rest);
};
constexpr auto host = &learnt_causes::host;
constexpr auto connecting = &learnt_causes::connecting;
constexpr auto talking = &learnt_causes::talking;
constexpr log_sign signs[] = {
    {"getaddrinfo: ", host, strength::firm, host_words},
    {"Connect Failed! ", connecting, strength::firm, connect_words},
    {"TLS handshake: ", connecting, strength::firm, handshake_words},
    {"TLS handshake errno ", connecting, strength::weak, handshake_errno_words},
    {"Certificate doesn't verify and error is ", connecting, strength::firm, chain_words},
    {"Common name and subject alt name doesn't match", connecting, strength::firm, host_name_words},
    {"loading CA certificate: ", connecting, strength::firm, ca_words},
    {"Can't load private key from CA_serverfile", connecting, strength::firm, key_words},
    {"load publick key error", connecting, strength::firm, certificate_words},
    {"TLS read: ", talking, strength::firm, tls_words},
    {"TLS write: ", talking, strength::firm, tls_words},
    {"Select error! errno ", talking, strength::weak, wait_words},
    {"dl_select error! errno ", talking, strength::weak, wait_words},
    {"Error Select! errno ", talking, strength::weak, wait_words},
    {"write error, errno ", talking, strength::weak, write_words},
    {"read failed, errno ", talking, strength::weak, broken_words},
    {"read error! errno ", talking, strength::weak, broken_words},
    {"no answer before the end", talking, strength::weak, silent_words},
    {"not an HTTP answer", talking, strength::weak, no_http_words},
    {"no final reply line", talking, strength::weak, no_reply_words},
    {"data connection closed too early", talking, strength::weak, data_end_words},
    {"Can't find location header", talking, strength::firm, no_location_words},
    {"Input Auth Error", talking, strength::firm, challenge_words},
    {"Output Auth Error", talking, strength::firm, challenge_words},
    {"Output SIP XSI Auth Error", talking, strength::firm, challenge_words},
    {"server error ", talking, strength::firm, tftp_words},
};

void learn(const log_sign& sign, std::string_view rest) {
  std::string words = sign.words(rest);
  std::string& cause = learnt.*sign.cause;
  const bool keeps_better = sign.weight == strength::weak && !cause.empty();
  if (words.empty() || keeps_better) return;
  cause = std::move(words);
  // What happens on a connection shows that there is one.
  if (sign.cause == talking) learnt.host = learnt.connecting = "";
}

struct status_word {
  int status;
  const char* words;
};
constexpr status_word status_words[] = {
    {204, "no content"},
    {300, "multiple choices"},
    {303, "see other"},
    {304, "not modified"},
    {307, "temporary redirect"},
    {308, "permanent redirect"},
    {400, "bad request"},
    {403, "forbidden"},
    {404, "not found"},
    {405, "method not allowed"},
    {407, "the proxy wants a login, which is not supported"},
    {408, "request time-out"},
    {409, "conflict"},
    {411, "length required"},
    {413, "content too large"},
    {416, "range not satisfiable"},
    {429, "too many requests"},
    {500, "server error"},
    {501, "not implemented"},
    {502, "bad gateway"},
    {503, "service unavailable"},
    {504, "gateway time-out"},
};

std::string words_of_status(const location& where, int status) {
  const std::string words = "the server answered " + std::to_string(status);
  const auto* known = std::find_if(std::begin(status_words), std::end(status_words),
                                   [&](const status_word& entry) { return entry.status == status; });
  if (!where.is_http() || known == std::end(status_words)) return words;
  return words + " (" + known->words + ")";
}

// The server wanted a login, or did not take the one it was given.
bool is_about_login(const location& where, const dl_result& result) {
  constexpr int unauthorised = 401;
  switch (result.code) {
    case unauthorised:
      return where.is_http();
    case DL_ERR_AUTH:
      return learnt.talking.empty();
    case DL_ERR_FTP_USER:
    case DL_ERR_FTP_PASS:
      return true;
    default:
      // A challenge that the server broke off, or never made.
      return result.code < 0 && result.code != DL_ERR_CONNECT && result.code != DL_ERR_HOST &&
             where.is_http() && dl_http_last_status() == unauthorised;
  }
}

std::string login_words(const credentials& login, int code) {
  if (!login.user()) return "login needed, --user NAME gives one";
  return std::string("login refused: the server does not take ") +
         (code == DL_ERR_FTP_USER ? "this user name" : "this user name and password");
}

// The log's word on the step in which the call failed; empty when it has none.
std::string learnt_words(int code) {
  switch (code) {
    case DL_ERR_HOST:
      return learnt.host.empty() ? learnt.talking : learnt.host;
    case DL_ERR_CONNECT:
      return learnt.connecting.empty() ? learnt.host : learnt.connecting;
    case DL_ERR_FTP_REPLY:  // the reply says it
      return "";
    default:
      return learnt.talking;
  }
}

// The library's own text where it has to do.
std::string library_words(const dl_result& result) {
  switch (result.code) {
    case DL_ERR_HOST:
      // This code also stands for a connection that broke, which is no matter of the host's name.
      return "the connection broke";
    case DL_ERR_REDIRECTS:
      return "too many redirects";
    case DL_ERR_IPV6_DISABLED:
      return "an IPv6 address needs --ipv6";
    case DL_ERR_REDIRECT_URL:
      return "the redirect's target is no usable URL";
    default:
      break;
  }
  const std::string_view message(result.message, strnlen(result.message, sizeof result.message));
  const std::size_t last = message.find_last_not_of(" \r\n");
  return last == message.npos ? "failed" : printable(message.substr(0, last + 1));
}

// The cause, or nothing when only the library's text and lines can tell.
std::string known_cause(const location& where, const credentials& login, const dl_result& result) {
  constexpr std::uint32_t least_tftp_wait_s = 3;
  if (is_about_login(where, result)) return login_words(login, result.code);
  if (result.code >= 100) return words_of_status(where, result.code);
  if (result.code != DL_ERR_NOT_TFTP) return learnt_words(result.code);
  return "no TFTP server answered within " + std::to_string(std::max(wait_limit_s(), least_tftp_wait_s)) +
         " s";
}

std::string code_words(int code) {
  return code < 0 ? " (code " + std::to_string(code) + ")" : "";
}

}  // namespace

bool learn_cause(std::string_view message) {
  if (message.starts_with("response code: ")) learnt = {};
  if (message.starts_with("File of 4 GiB or more")) return learnt.beyond_counting = true;
  if (message.starts_with("the header block ends early")) return learnt.answer_cut = true;
  for (const log_sign& sign : signs) {
    if (!message.starts_with(sign.beginning)) continue;
    learn(sign, message.substr(sign.beginning.size()));
    return true;
  }
  return false;
}

const char* chain_reason(int number) {
  switch (number) {
    case 1:
      return "it could not be checked";
    case 9:
      return "not yet valid";
    case 10:
      return "expired";
    case 18:
      return "self-signed";
    case 19:
      return "self-signed CA that is not trusted";
    case 20:
    case 21:
      return "unknown issuer";
    default:
      return nullptr;
  }
}

bool is_beyond_counting() {
  return learnt.beyond_counting;
}

bool answer_was_cut() {
  return learnt.answer_cut;
}

const std::string& connection_trouble() {
  return learnt.talking;
}

failure failed_transfer(const location& where, const credentials& login, const dl_result& result) {
  std::string message = printable(where.url) + ": ";
  const std::string cause = known_cause(where, login, result);
  message += (cause.empty() ? library_words(result) : cause) + code_words(result.code);
  const std::string lines = logged_errors();
  if (cause.empty() && !lines.empty()) message += ": " + lines;
  if (!where.has_scheme) {
    message += "; a URL without a scheme means TFTP, did you mean http://" + printable(where.url) + "?";
  }
  return failure(result.code, message);
}

}  // namespace fetchrig::cli
