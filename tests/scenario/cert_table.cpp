// cert_table.cpp: makes certificates from their descriptions.
#include "tests/scenario/cert_table.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "tests/scenario/text.h"

namespace scenario {
namespace {

using std::string;

std::map<string, std::vector<string>> descriptions;
std::map<string, test::identity> made;
std::map<string, string> made_texts;  // an encrypted key is another each time it is made

std::shared_ptr<EVP_PKEY> new_key(const string& kind) {
  if (kind.starts_with("rsa")) return test::new_rsa_key(static_cast<unsigned>(std::stoul(kind.substr(3))));
  if (kind == "ed25519") return {EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free};
  return {EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", kind.c_str()), EVP_PKEY_free};
}

// Bytes of a certificate that no name stands for: "utc:TEXT" and "general:TEXT" a time, "plus:BYTES" and "minus:BYTES"
// a number.
bool is_raw(const string& value) {
  return value.find(':') != string::npos;
}
void store_raw(ASN1_STRING* into, const string& value) {
  const std::map<string, int> types = {{"utc", V_ASN1_UTCTIME},
                                       {"general", V_ASN1_GENERALIZEDTIME},
                                       {"plus", V_ASN1_INTEGER},
                                       {"minus", V_ASN1_NEG_INTEGER}};
  const std::size_t colon = value.find(':');
  const string bytes = value.substr(colon + 1);
  ASN1_STRING_set(into, bytes.data(), static_cast<int>(bytes.size()));
  into->type = types.at(value.substr(0, colon));
}

}  // namespace

const test::identity& identity_of(const string& text) {
  if (const auto known = made.find(text); known != made.end()) return known->second;
  const std::vector<string> words = words_of(text);
  const string& name = words.at(0);
  const auto found = descriptions.find(name);
  if (found == descriptions.end()) throw std::runtime_error("unknown certificate " + name);
  std::vector<string> description = found->second;
  description.insert(description.end(), words.begin() + 1, words.end());
  constexpr long day_s = 86400;
  test::identity_options options = {.valid_from_s = -day_s, .valid_until_s = 365 * day_s};
  string key = "P-256";
  for (const string& word : description) {
    const string what = word.substr(0, word.find('=')), value = word.substr(word.find('=') + 1);
    if (what == "by") options.issuer = &identity_of(value);
    if (what == "ca") options.extensions = test::ca_extensions;
    if (what == "from") options.valid_from_s = std::stol(value) * day_s;
    if (what == "until" && !is_raw(value)) options.valid_until_s = std::stol(value) * day_s;
    if (what == "key") key = value;
    if (what == "md") options.digest = value == "none" ? nullptr : EVP_get_digestbyname(value.c_str());
    if (what == "subject") options.subject = bytes_of(value, {});
    if (what == "version") options.version = std::stol(value) - 1;
    if (what == "names") options.extensions.emplace_back("subjectAltName", value);
    if (what == "serial" && !is_raw(value)) options.serial = std::stol(value);
    if ((what == "until" || what == "serial") && is_raw(value))
      options.edit = [what, value](X509* x) {
        store_raw(what == "until" ? X509_getm_notAfter(x) : X509_get_serialNumber(x), value);
      };
  }
  return made.emplace(text, test::make_identity(name, new_key(key), options)).first->second;
}

namespace {

// Behind the name of the certificate, a pass phrase.
using text_maker = string (*)(const test::identity& of, const char* passphrase);
const std::map<string, text_maker> texts = {
    {"cert", [](const test::identity& of, const char*) { return test::pem_of(of); }},
    {"der", [](const test::identity& of, const char*) { return test::der_of(of); }},
    {"key", [](const test::identity& of, const char*) { return test::pem_of(of.key.get()); }},
    {"derkey", [](const test::identity& of, const char*) { return test::der_of(of.key.get()); }},
    {"locked", [](const test::identity& of, const char* by) { return test::pem_of(of.key.get(), by); }},
    {"lockedder", [](const test::identity& of, const char* by) { return test::der_of(of.key.get(), by); }},
    {"crl", [](const test::identity& of, const char*) { return test::crl_pem_of(of); }},
    {"hash", [](const test::identity& of, const char*) { return test::hash_name_of(of).substr(0, 8); }},
};

}  // namespace

string verified_by(X509* certificate) {
  string names;
  for (const auto& [name, who] : made) {
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                                  X509_STORE_CTX_free);
    X509_STORE_add_cert(store.get(), who.certificate.get());
    X509_STORE_CTX_init(context.get(), store.get(), certificate, nullptr);
    if (X509_verify_cert(context.get()) == 1) names += "verified by " + name + "\n";
  }
  return names;
}

void forget_certificates() {
  descriptions.clear();
  made.clear();
  made_texts.clear();
}

void define_certificate(const string& line) {
  std::vector<string> words = words_of(line);
  const string name = words.at(1);
  words.erase(words.begin(), words.begin() + 2);
  descriptions[name] = words;
}

std::optional<string> certificate_text(const string& word, const string& rest) {
  const auto known = texts.find(word);
  if (known == texts.end()) return std::nullopt;
  const auto [found, is_new] = made_texts.try_emplace(word + " " + rest);
  const std::vector<string> words = words_of(rest);
  const bool locks = word.starts_with("locked");
  if (is_new) found->second = known->second(identity_of(locks ? words.at(0) : rest), words.back().c_str());
  return found->second;
}

}  // namespace scenario
