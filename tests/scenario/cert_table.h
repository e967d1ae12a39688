// cert_table.h: the certificates that scenarios speak of. A line in front of a file's scenarios describes each:
//
//   cert NAME by=CA ca from=DAYS until=DAYS key=rsa2048 md=md5 subject=/O=x/CN=y version=1 serial=7
//        names=DNS:a.test,IP:10.0.0.1
//
// until= and serial= take raw bytes, too: utc:491231235959Z, general:20491231235959Z, plus:BYTES, minus:BYTES. Without
// anything else it is self-signed, P-256 and SHA-256, of "/O=Test/CN=NAME", from yesterday to next year. It is made
// when it is first used and stays the same for all stories of the file.
#ifndef FETCHRIG_TESTS_SCENARIO_CERT_TABLE_H
#define FETCHRIG_TESTS_SCENARIO_CERT_TABLE_H

#include <openssl/x509.h>

#include <optional>
#include <string>

#include "tests/support/pki.h"

namespace scenario {

void forget_certificates();
void define_certificate(const std::string& line);
// "NAME", or "NAME until=-1 ..." for one of another description.
const test::identity& identity_of(const std::string& text);

// {cert NAME} (and {cert NAME until=-1 ...}) and {der NAME}, {key NAME} and {derkey NAME}, {locked NAME PASSPHRASE} and
// {lockedder NAME PASSPHRASE} (the encrypted key), {crl NAME}, {hash NAME} (eight digits); nothing: no such word.
std::optional<std::string> certificate_text(const std::string& word, const std::string& rest);

// "verified by NAME" in a line for each certificate made so far that OpenSSL verifies it with.
std::string verified_by(X509* certificate);

}  // namespace scenario
#endif
