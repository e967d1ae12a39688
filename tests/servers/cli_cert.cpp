// "fetchrig cert": what it says about certificates, judged by the openssl tool and by a server, and what it
// leaves on the disk.
#include <nlohmann/json.hpp>

#include "tests/support/command.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"

namespace test {
namespace {

using nlohmann::json;

class cli_cert : public command_test {
 protected:
  // The answer to "fetchrig cert ... --json": there must be one, whatever the outcome, that fits the exit
  // status.
  json ask(std::vector<std::string> arguments, const std::string& seed = "") const {
    arguments.push_back("--json");
    const run_result result = tell(arguments, seed);
    const json answer = json::parse(result.output);
    EXPECT_EQ(result.status, answer["ok"] == true ? 0 : 1) << answer;
    return answer;
  }
  run_result tell(std::vector<std::string> arguments, const std::string& seed = "") const {
    arguments.insert(arguments.begin(), "cert");
    return fetchrig(arguments,
                    {"FETCHRIG_STORE=store", "FETCHRIG_DEVICE_CERT=" + device_, "FETCHRIG_KEY_SEED=" + seed});
  }

  // What is asked, a field of the answer, and its value.
  struct step {
    std::vector<std::string> arguments;
    const char* field;
    json value;
  };
  void check(const std::vector<step>& steps) const {
    for (const step& at : steps) EXPECT_EQ(at.value, ask(at.arguments)[at.field]) << &at - steps.data();
  }

  const test_ca ca_{place_};
  const std::string root_ = ca_.file();
  const std::string device_ = place_.make_dir("work/device/server") + "/WebServer.pem";
  const std::string der_ = path("root.der");
  const std::string der_bytes_ = der_of(ca_.root().certificate.get());
  const std::string hash_ =
      run({"openssl", "x509", "-in", root_, "-noout", "-subject_hash"}).output.substr(0, 8);
};

TEST_F(cli_cert, info_and_verify) {
  const cert_files good = ca_.issue("good", {.common_name = "Anna \x1b[1m"});
  const cert_files expired = ca_.issue("expired", {.valid_from_s = -7200, .valid_until_s = -3600});
  write_file(der_, der_bytes_);
  write_file(path("none"), "no certificate");
  // clang-format off
  check({{{"info", good.cert}, "issuer", "root"},
         {{"info", good.both, "--key"}, "private_key", {{"algorithm", "id-ecPublicKey"}, {"bits", 256}}},
         {{"info", der_, "--key"}, "private_key", nullptr},
         {{"info", der_}, "hash", hash_},
         {{"info", "none"}, "code", 1},
         {{"info", "missing"}, "message", "missing: No such file or directory"},
         {{"info", "."}, "message", ". is not a regular file"},
         {{"verify", good.cert, "--ca-dir", ca_.hashed_dir()}, "ok", true},
         {{"verify", good.both, "--ca-file", root_, "--with-key"}, "ok", true},
         {{"verify", good.cert, "--ca-file", root_, "--with-key"}, "code", 9},
         {{"verify", good.cert}, "code", 6},
         {{"verify", good.cert, "--ca-file", "missing"}, "code", 2},
         {{"verify", "missing"}, "message", "missing: No such file or directory"},
         {{"verify", good.cert, "--ca-dir", ca_.hashed_dir() + ":missing"}, "code", 2},
         {{"verify", root_}, "remarks", {"self-signed certificate"}},
         {{"verify", root_}, "trusted", false}, {{"verify", root_, "--strict"}, "ok", false},
         {{"verify", root_, "--strict", "--ca-file", root_}, "trusted", true}});
  // clang-format on
  EXPECT_EQ(der_bytes_, read_file(der_)) << "describing it must not rewrite it";
  expect_failed(fetchrig({"cert", "info", der_}, {"TMPDIR=missing"}), 1, {"missing: No such file"});
  const std::string text = tell({"info", good.cert}).output;
  EXPECT_TRUE(holds(text, "issuer:       root\n")) << text;
  EXPECT_FALSE(holds(text, "\x1b")) << text;
  expect_done(tell({"verify", good.cert, "--ca-file", root_}), good.cert + ": verified\n");
  for (const auto& [option, place] : {std::pair("--ca-file", expired.cert), {"--ca-dir", work_}}) {
    expect_failed(fetchrig({"cert", "verify", good.cert, option, place},
                           {"SSL_CERT_FILE=" + root_, "SSL_CERT_DIR=" + ca_.hashed_dir()}),
                  1, {"not among the trusted CAs"});
  }
  expect_failed(tell({"verify", good.cert, "--ca-dir", "."}), 1,
                {"not among the trusted CAs", ". is not hashed"});
  expect_failed(tell({"verify", expired.cert, "--ca-file", root_}), 1, {"has expired", "(code 5)"});
}

TEST_F(cli_cert, keys_of_generated_certificates_are_random_unless_a_seed_is_given) {
  const identity issuer = make_identity("Issuer", new_rsa_key(2048), {.extensions = ca_extensions});
  write_file(path("ca"), pem_of(issuer.certificate.get()));
  write_file(path("ca.key"), pem_of(issuer.key.get()));
  const cert_files files = ca_.issue("server");
  const auto key = new_rsa_key(1024);
  const std::string locked = pem_of(key.get(), "open sesame");
  const auto generate = [&](const std::string& name, const std::string& seed = "",
                            const std::string& ca_key = "ca.key", const std::string& subject = "/CN=0011AB") {
    return ask({"generate", "--ca", "ca", "--ca-key", ca_key, "--key", name + ".key", "--cert", name,
                "--subject", subject, "--bits", "1024"},
               seed);
  };
  const json made = generate("a");
  EXPECT_EQ("0011AB", made["subject"]);
  EXPECT_EQ(1024, made["private_key"]["bits"]);
  EXPECT_EQ(true, made["key_generated"]);
  EXPECT_EQ(false, generate("a", "a seed")["key_generated"]);
  for (const char* name : {"b", "seed 1", "seed 2"}) {
    EXPECT_EQ(true, generate(name, *name == 's' ? "seed" : "")["key_generated"]);
  }
  EXPECT_NE(read_file(path("a.key")), read_file(path("b.key")));
  EXPECT_EQ(read_file(path("seed 1.key")), read_file(path("seed 2.key")));
  write_file(path("locked.key"), locked);
  setenv("FETCHRIG_KEY_PASSPHRASE", "open sesame", 1);
  EXPECT_EQ(false, generate("locked")["key_generated"]);
  unsetenv("FETCHRIG_KEY_PASSPHRASE");
  EXPECT_EQ(modulus_of(key.get()), modulus_of(key_in(read_file(path("locked"))).get()));
  EXPECT_EQ(locked, read_file(path("locked.key")));

  // clang-format off
  const struct { std::string key_file; const char* seed; std::string ca_key, subject; const char* why; } rows[] = {
      {locked, "", "ca.key", "/CN=a", "encrypted"}, {der_of(key.get()), "s", "ca.key", "/CN=a", "DER"},
      {"garbage", "", "ca.key", "/CN=a", "no private key"}, {"", "s", "ca.key", "/CN=a", "no private key"},
      {read_file(files.key), "", "ca.key", "/CN=a", "no RSA key"}, {"-", "", files.key, "/CN=a", "RSA"},
      {"-", "", "a.key", "/CN=a", "do not match"}, {"-", "", "ca.key", "CN=a", "start with \"/\""},
      {"-", "", "ca.key", "/CN=\u00e4", "ASCII"}, {"-", "s", "ca.key", "/CN=", "/TYPE=VALUE"},
      {"-", "s", "ca.key", "/CN=a/XCN=b", "\"XCN\""}, {"-", "s", "ca.key", "/C=GER", "C has 3 characters"},
  };
  // clang-format on
  const std::string issuer_key = read_file(path("ca.key"));
  write_file(path("keys"), read_file(path("a.key")));
  EXPECT_EQ(0, symlink("nowhere", path("dangling").c_str()));
  const std::pair<std::pair<const char*, const char*>, const char*> refused[] = {
      {{"b.key", "ca.key"}, "belongs to the CA"},     {{"b.key", "locked.key"}, "cannot be opened"},
      {{"b.key", "keys"}, "another certificate"},     {{"b.key", "/dev/stdout"}, "descriptor"},
      {{"b.key", "/dev/null"}, "not a regular file"}, {{"new", "./new"}, "same file"},
      {{"dangling", "c"}, "leads nowhere"},
  };
  for (const auto& [names, why] : refused) {
    EXPECT_TRUE(holds(ask({"generate", "--ca", "ca", "--ca-key", "ca.key", "--key", names.first, "--cert",
                           names.second, "--subject", "/CN=a"},
                          "seed")["message"],
                      why))
        << why;
  }
  EXPECT_EQ(issuer_key, read_file(path("ca.key")));
  EXPECT_EQ(locked, read_file(path("locked.key")));
  for (const auto& row : rows) {
    const std::string file = path("refused.key");
    if (row.key_file != "-") write_file(file, row.key_file);
    EXPECT_TRUE(holds(generate("refused", row.seed, row.ca_key, row.subject)["message"], row.why)) << row.why;
    EXPECT_EQ(row.key_file, access(file.c_str(), F_OK) == 0 ? read_file(file) : "-") << row.why;
    unlink(file.c_str());
  }

  EXPECT_EQ(true, ask({"device", "install", "a"})["ok"]) << "for all its MD5 signature and short key";
  nginx_server server({files.cert, files.key, "TLSv1 TLSv1.2 TLSv1.3", path("ca")});
  REQUIRE_SERVER(server);
  server.put("file", "content");
  const auto get_with = [&](const std::string& cert, const std::string& method) {
    return fetchrig({"get", server.https_url("/file"), "--ca-dir", "store/ca", "--cert", cert, "-o", "-",
                     "--tls-method", method});
  };
  EXPECT_EQ(true, ask({"install", root_})["ok"]);
  for (const char* method : {"auto", "tls1.0"}) {
    expect_done(get_with("a", method), "content");
    expect_failed(get_with(files.both, method), 1, {"400"});
  }
  EXPECT_EQ(true, ask({"remove", hash_})["ok"]);
  expect_failed(get_with("a", "auto"), 1, {"trust"});
}

TEST_F(cli_cert, store) {
  write_file(der_, der_bytes_);
  write_file(path("with key"), read_file(root_) + pem_of(ca_.root().key.get()));
  check({{{"install", "with key"}, "hash", hash_}});
  EXPECT_EQ(read_file(root_), read_file(path("store/" + hash_))) << "and nothing of the key";
  check({{{"remove", hash_}, "ok", true}});
  const std::string entry = "store/" + hash_ + ".0";
  check({{{"install", der_}, "hash", hash_}, {{"install", root_, "--store", "store/"}, "code", -2}});
  // Links made from a relative store name must lead somewhere from everywhere.
  EXPECT_EQ(read_file(root_), read_file(path("store/ca/" + hash_ + ".0")));
  EXPECT_TRUE(holds(tell({"list"}).output, hash_ + "  root"));
  EXPECT_EQ(hash_, ask({"list"})["certificates"][0]["hash"]);
  for (const std::string& by : {der_, hash_, entry}) {
    check({{{"remove", by}, "ok", true},
           {{"list"}, "certificates", json::array()},
           {{"remove", hash_}, "ok", false}});
    EXPECT_TRUE(names_in(path("store/ca")).empty()) << by;
    expect_done(tell({"install", root_}), "installed root as " + path(entry) + "\n");
  }
  EXPECT_EQ(der_bytes_, read_file(der_)) << "a file outside the store is neither rewritten nor removed";
  check({{{"remove", "no-such-thing"}, "ok", false},
         {{"list", "--store", "/nope"},
          "message",
          "/nope/: the store cannot be opened: No such file or directory (code 2)"}});
}

TEST_F(cli_cert, a_listing_removes_foreign_files_only_when_told_and_names_them) {
  ask({"install", root_});
  write_file(path("store/lib.so.0"), "program");
  EXPECT_EQ(0, symlink("nothing", path("store/01234567.0").c_str()));
  expect_failed(tell({"list"}), 1, {": lib.so.0; --prune", "removes 01234567.0, lib.so.0"});
  EXPECT_EQ("program", read_file(path("store/lib.so.0")));
  write_file(path("store/README"), "foreign");
  check({{{"install", root_}, "code", 0}, {{"remove", "store/README"}, "ok", false}});
  EXPECT_EQ("foreign", read_file(path("store/README")));
  check({{{"list", "--prune"}, "removed", {"01234567.0", "lib.so.0"}}, {{"list"}, "removed", json::array()}});
  EXPECT_EQ(hash_, ask({"list"})["certificates"][0]["hash"]);
}

TEST_F(cli_cert, a_store_command_that_fails_leaves_no_half_and_never_reads_our_input) {
  const auto with_failing = [&](const std::string& program, const std::string& operation) {
    const std::string script = place_.make_dir("work/" + program) + "/" + program;
    write_file(script, "#!/bin/sh\ncat >>seen\nexit 1\n");
    EXPECT_EQ(0, chmod(script.c_str(), 0755));
    return run({"env", "PATH=" + path(program) + ":" + getenv("PATH"), fetchrig_binary, "cert", operation,
                root_, "--store", "store"},
               {.input = "typed", .directory = work_});
  };
  expect_failed(with_failing("ln", "install"), 1, {"nothing was installed"});
  EXPECT_EQ((std::vector<std::string>{"ca", "phoneca"}), names_in(path("store")));
  check({{{"install", root_}, "ok", true}});
  expect_failed(with_failing("rm", "remove"), 1, {"could not be removed", hash_ + ".0"});
  EXPECT_EQ("", read_file(path("seen")));
  unlink(path("store/" + hash_ + ".0").c_str());
  check({{{"remove", hash_}, "ok", true}});
  EXPECT_TRUE(names_in(path("store/ca")).empty());
}

TEST_F(cli_cert, device_certificate) {
  const cert_files pair = ca_.issue("pair", {.common_name = "phone"}), other = ca_.issue("other");
  // clang-format off
  check({{{"device", "install", pair.cert}, "code", -2},
         {{"device", "install", pair.both}, "installed", device_},
         {{"device", "install", pair.both}, "code", -7},
         {{"device", "show"}, "subject", "phone"},
         {{"device", "install-part", other.cert}, "complete", false},
         {{"device", "show"}, "key_belongs", false},
         {{"device", "install-part", other.key}, "complete", true},
         {{"device", "show"}, "key_belongs", true},
         {{"device", "install-part", "/dev/null"}, "code", -1},
         {{"device", "install-part", "nope"}, "message", "nope: No such file or directory (code -1)"},
         {{"device", "install", "nope"}, "message", "nope: No such file or directory (code -5)"},
         {{"device", "remove"}, "ok", true},
         {{"device", "remove"}, "ok", false},
         {{"device", "show"}, "message", device_ + ": No such file or directory (code -2)"},
         {{"device", "install", pair.both, "--device-cert", "W.pem"}, "installed", "W.pem"},
         {{"device", "install", pair.both, "--device-cert", "d/W.pem"}, "installed", "d/W.pem"},
         {{"device", "install", pair.both, "--device-cert", "/dev/full"}, "ok", false}});
  // clang-format on
  // A message of mkdir's own would come before the command's.
  expect_failed(tell({"device", "install", pair.both, "--device-cert", "no/such/deep/W.pem"}), 1,
                {"no/such: No such file or directory"});
  EXPECT_EQ(0, mkdir(path("server").c_str(), 0755));
  expect_failed(tell({"device", "install-part", pair.key, "--device-cert", "server/no/W.pem"}), 1,
                {"Can't write server/no/W.pem: No such file or directory"});
}

TEST_F(cli_cert, a_pass_phrase_that_is_needed_is_named) {
  const auto key = new_rsa_key(2048);
  const std::string certificate = pem_of(make_identity("phone", key).certificate.get());
  const std::string locked = pem_of(key.get(), "open sesame");
  write_file(path("c"), certificate);
  write_file(path("k"), locked);
  write_file(path("both"), certificate + locked);
  const std::vector<std::string> commands[] = {{"device", "install", "both"},
                                               {"device", "install-part", "k"},
                                               {"verify", "both", "--ca-file", "c", "--with-key"}};
  for (const auto& command : commands) {
    expect_failed(tell(command), 1, {"encrypted and FETCHRIG_KEY_PASSPHRASE does not open it"});
  }
  write_file(device_, certificate + locked);
  EXPECT_TRUE(holds(ask({"device", "show"})["remark"], "FETCHRIG_KEY_PASSPHRASE"));
  EXPECT_TRUE(
      holds(ask({"device", "install-part", "c"})["message"], device_ + ": its private key is encrypted"));
}

TEST_F(cli_cert, a_part_goes_into_the_server_directory_that_was_typed) {
  const cert_files pair = ca_.issue("pair");
  const std::string inside = place_.make_dir("work/server1");
  const std::pair<const char*, const char*> rows[] = {{"W.pem", "must hold \"server\""},
                                                      {"server.pem", "./server, must be a directory"},
                                                      {"servers/W.pem", " server, must be a directory"}};
  for (const auto& [name, why] : rows) {
    expect_failed(run({fetchrig_binary, "cert", "device", "install-part", pair.key, "--device-cert", name},
                      {.directory = inside}),
                  1, {why});
  }
  EXPECT_TRUE(names_in(inside).empty());
}

}  // namespace
}  // namespace test
