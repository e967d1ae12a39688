// parsers.cpp: bytes from outside through one parser each.
#include <arpa/inet.h>
#include <string.h>

#include <algorithm>

#include "cert/subject.h"
#include "core/url.h"
#include "ftp/ftp_parse.h"
#include "fuzz/fuzz.h"
#include "http/extra/digest_rfc7616.h"
#include "http/extra/url_reference.h"
#include "http/http_auth.h"
#include "include/fetchrig.h"
#include "include/fetchrig_openssl.h"
#include "log/printable.h"
#include "net/tls_host.h"
#include "tests/support/named_certificate.h"
#include "tftp/tftp_packet.h"

using namespace fetchrig;

// A URL that parses, put together again from its parts, parses into the same parts.
FUZZ_TARGET(url) {
  int32_t code = 1;
  const unique_url first(dl_url_parse(std::string(input).c_str(), fuzz::user, nullptr, &code));
  FUZZ_CHECK(code == (first ? 0 : DL_ERR_URL));
  if (!first) return;
  FUZZ_CHECK(first->scheme <= 1 && first->port <= 65535 && *first->host && first->path[0] == '/');
  FUZZ_CHECK(!strpbrk(first->host, " \r\n") && !strpbrk(first->path, " \r\n"));
  // A bracketed host without a colon is no address and needs its brackets to be read again.
  const bool brackets = strchr(first->host, ':');
  if (!brackets && strpbrk(first->host, "/?#[")) return;
  const std::string host = brackets ? "[" + std::string(first->host) + "]" : first->host;
  const std::string text =
      (first->scheme == 0 ? "http://" : "https://") + host + ":" + std::to_string(first->port) + first->path;
  const unique_url again(dl_url_parse(text.c_str(), nullptr, nullptr, &code));
  FUZZ_CHECK(again && again->scheme == first->scheme && again->port == first->port);
  FUZZ_CHECK(strcmp(again->host, first->host) == 0 && strcmp(again->path, first->path) == 0);
}

// Whatever stands around a login in a URL, no line of the log shows its password; a proxy's neither. Behind a "/" and
// inside brackets there is no login.
FUZZ_TARGET(url_login) {
  const std::string front(fuzz::next_part(input, '\x1f')), back(input);
  const std::size_t scheme = front.find("://");
  if (front.find_first_of("/[", scheme == front.npos ? 0 : scheme + 3) != front.npos) return;
  if (back.find("://") != back.npos) return;
  const std::string text = front + "me:" + fuzz::secret + "@" + back;
  for (const dl_request& asked : {dl_request{text.c_str(), fuzz::user, fuzz::secret, nullptr},
                                  dl_request{"http://a.test/f", nullptr, nullptr, text.c_str()}}) {
    dl_handle* handle = nullptr;
    dl_result result = {};
    char redirect[DL_REDIRECT_SIZE] = {};
    FUZZ_CHECK(dl_open(&asked, &handle, redirect, &result) == -1 && !handle);
    FUZZ_CHECK(dl_upload(&asked, "none", "remote", redirect, &result, "", DL_HTTP_PUT, 0) == -1);
    FUZZ_CHECK(!strstr(result.message, fuzz::secret) && !strstr(redirect, fuzz::secret));
  }
}

// What is shown of outside text stays one line.
FUZZ_TARGET(log_text) {
  qxfr_log(DL_LOG_HTTP, DL_LOG_INFO, "%s %s\n", printable(input).c_str(), printable_url(input).c_str());
  qxfr_log(DL_LOG_ANY, DL_LOG_ERROR, "%s\n", printable(input).c_str());
  qxfr_log_set2(std::string(input).c_str(), DL_LOG_DEBUG);
}

// Numbers of a reply are those that its text shows; an endpoint that is formatted parses back the same.
FUZZ_TARGET(ftp_replies) {
  const auto shows = [&](uint64_t number) { return input.find(std::to_string(number)) != input.npos; };
  const auto code = ftp_reply_code(input);
  FUZZ_CHECK(!code || input.starts_with(std::to_string(1000 + *code).substr(1) + " "));
  const auto size = ftp_size_answer(input);
  FUZZ_CHECK(!size || *size == UINT64_MAX || shows(*size));
  const auto inside = ftp_parenthesised(input);
  FUZZ_CHECK(!inside || input.find("(" + std::string(*inside) + ")") != input.npos);
  for (const std::string_view text : {input, inside.value_or("")}) {
    const auto port = ftp_epsv_port(text);
    FUZZ_CHECK(port.value_or(0) == 0 || shows(*port));
    const auto at = ftp_pasv_endpoint(text);
    if (!at) continue;
    char formatted[64];
    const auto& ip = at->address;
    snprintf(formatted, sizeof formatted, "%u,%u,%u,%u,%u,%u", ip[0], ip[1], ip[2], ip[3], at->port / 256u,
             at->port % 256u);
    const auto again = ftp_pasv_endpoint(formatted);
    FUZZ_CHECK(again && again->address == ip && again->port == at->port);
  }
}

// A view lies within the datagram, an accepted block size is in range, and one behind a foreign option is found.
FUZZ_TARGET(tftp_packets) {
  const auto value = tftp_find_blksize(tftp_parse_packet(input).body);
  FUZZ_CHECK(!value ||
             (value->data() > input.data() && value->data() + value->size() < input.data() + input.size()));
  const int size = tftp_check_blksize(value.value_or(""), tftp_max_blksize);
  FUZZ_CHECK(size == -1 || (size >= tftp_min_blksize && size <= tftp_max_blksize));
  const std::string name = "x-" + std::string(input.substr(0, input.find('\0')));
  const std::string list = name + '\0' + name + '\0' + "BlkSize" + '\0' + "1000" + '\0';
  FUZZ_CHECK(tftp_find_blksize(list) == "1000");
  FUZZ_CHECK(!tftp_find_blksize(list.substr(0, list.size() - 1)));
}

// Whatever the challenge, the answer is one header line.
FUZZ_TARGET(http_challenge) {
  auth_work work;
  work.user = fuzz::user;
  work.password = fuzz::secret;
  const int result = Curl_input_auth(&work, 0, std::string(input).c_str());
  for (const char* text :
       {work.challenge.nonce, work.challenge.realm, work.challenge.opaque, work.challenge.algorithm})
    FUZZ_CHECK(!text || strlen(text) <= 1023);
  const std::string_view qop = work.challenge.qop ? work.challenge.qop : "auth";
  FUZZ_CHECK(qop == "auth" || qop == "auth-int");
  FUZZ_CHECK((result == HTTP_CHALLENGE_UNKNOWN) == (work.picked == 0));
  if (result != HTTP_CHALLENGE_FINE) return;
  FUZZ_CHECK(work.picked == auth_basic || work.challenge.nonce);
  const int answered = Curl_output_auth(&work, 0, "GET", "/path");
  FUZZ_CHECK(answered == HTTP_ANSWER_OK || input.find_first_of("\r\n") != input.npos);
  if (answered != HTTP_ANSWER_OK) return;
  const std::string_view line(work.answer);
  FUZZ_CHECK(line.starts_with("Authorization: "));
  FUZZ_CHECK(line.find_first_of("\r\n") == line.size() - 2 && line.ends_with("\r\n"));
}

// A base and a reference, a line each: the target is absolute, has no dots or fragment left, and leads
// to itself.
FUZZ_TARGET(url_reference) {
  const std::string base = resolve_reference("", "http://" + std::string(fuzz::next_part(input, '\n')) + "/");
  const std::string target = resolve_reference(base, input);
  const std::string_view path = std::string_view(target).substr(0, target.find('?'));
  FUZZ_CHECK(target.find('#') == target.npos && target.find(':') != target.npos);
  FUZZ_CHECK(!path.ends_with("/..") && !path.ends_with("/."));
  FUZZ_CHECK(resolve_reference(base, target) == target);
}

// Whatever is offered, the answer is one header line, and its own proof fits it.
FUZZ_TARGET(http_challenges) {
  std::vector<auth_challenge> list;
  while (!input.empty()) read_challenges(fuzz::next_part(input, '\n'), list);
  for (const auth_challenge& one : list) {
    FUZZ_CHECK(!one.scheme.empty() && one.parameters.size() <= 32);
    const auto terms = read_digest_terms(one);
    if (!terms) continue;
    digest_login login(*terms, fuzz::user, fuzz::secret, "c");
    const std::string answer = login.answer({"GET", "/path", "h"});
    FUZZ_CHECK(answer.starts_with("Digest ") && answer.find_first_of("\r\n") == answer.npos);
    FUZZ_CHECK(answer.find(fuzz::secret) == answer.npos ||
               terms->realm.find(fuzz::secret) != std::string::npos ||
               terms->nonce.find(fuzz::secret) != std::string::npos || terms->opaque.has_value());
    FUZZ_CHECK(!login.is_proven_by("") || terms->qop == digest_qop::auth_int);
    const auth_challenge again = read_auth_info(answer.substr(7));
    const std::string *realm = again.find("realm"), *nonce = again.find("nonce");
    FUZZ_CHECK(realm && *realm == terms->realm && nonce && *nonce == terms->nonce);
  }
}

// What comes out as elements, written as a subject text again, comes out the same.
FUZZ_TARGET(subject) {
  input = input.substr(0, input.find('\0'));
  const auto elements = parse_subject(input);
  const unique_x509_name name(do_subject(std::string(input).c_str(), MBSTRING_ASC));
  FUZZ_CHECK(elements || !name);
  if (!elements) return;
  std::string text = "/";
  const auto add = [&](std::string_view piece, char end) {
    for (const char c : piece) text += std::string(c == '/' || c == '=' || c == '\\', '\\') + c;
    text += end;
  };
  for (const subject_element& one : *elements) add(one.type, '='), add(one.value, '/');
  const auto same = [](const subject_element& a, const subject_element& b) {
    return a.type == b.type && a.value == b.value;
  };
  const auto again = parse_subject(text);
  FUZZ_CHECK(again && std::equal(again->begin(), again->end(), elements->begin(), elements->end(), same));
}

// A host, a common name and alternative names, a line each: what matches does by OpenSSL's own comparison as well, but
// for wildcards, addresses, a dot in front (to OpenSSL all below it) and what is not UTF-8.
FUZZ_TARGET(host_name) {
  const auto is_special = [](char c) { return c == '*' || c == ':' || (c & 0x80) != 0; };
  const bool plain = std::none_of(input.begin(), input.end(), is_special) && !input.starts_with('.');
  const std::string host(fuzz::next_part(input, '\n')), common(fuzz::next_part(input, '\n'));
  std::vector<std::string> names;
  while (!input.empty()) {
    const std::string value(fuzz::next_part(input, '\n'));
    names.push_back((value.size() == 4 || value.size() == 16 ? "IP:" : "DNS:") + value);
  }
  const unique_x509 certificate = test::named_certificate(common, names);
  in_addr address;
  const bool matches = ssl_check_host_name(certificate.get(), host.c_str()) == 0;
  if (!matches || !plain || inet_aton(host.c_str(), &address)) return;
  const unsigned both = X509_CHECK_FLAG_ALWAYS_CHECK_SUBJECT;
  FUZZ_CHECK(X509_check_host(certificate.get(), host.c_str(), strlen(host.c_str()), both, nullptr) == 1);
}
