// "fetchrig cert": what it says about certificates, judged by the openssl tool, and what it leaves on the
// disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "tests/support/command.h"
#include "tests/support/test_ca.h"

namespace test {
namespace {

using nlohmann::json;

// Runs with --json; the answer must parse whatever the outcome.
struct json_run {
  std::optional<int> status;
  json answer;
};

class cli_cert : public command_test {
 protected:
  json_run ask(std::vector<std::string> arguments, const std::vector<std::string>& environment = {}) const {
    arguments.insert(arguments.begin(), "cert");
    arguments.push_back("--json");
    const run_result result = fetchrig(arguments, environment);
    return {result.status, json::parse(result.output)};
  }
  std::string hash_of(const std::string& file) const {
    return run({"openssl", "x509", "-in", file, "-noout", "-subject_hash"}).output.substr(0, 8);
  }

  const test_ca ca_{place_};
};

TEST_F(cli_cert, info) {
  const cert_files files = ca_.issue("server", {.common_name = "Anna \x1b[1m", .rsa_bits = 2048});
  const std::string der = path("server.der");
  ASSERT_EQ(0, run({"openssl", "x509", "-in", files.cert, "-outform", "DER", "-out", der}).status);
  const std::string der_bytes = read_file(der);
  for (const std::string& file : {files.both, der}) {
    SCOPED_TRACE(file);
    const json_run shown = ask({"info", "--key", file});
    EXPECT_EQ(0, shown.status);
    EXPECT_EQ("root", shown.answer["issuer"]);
    EXPECT_EQ(3, shown.answer["version"]);
    EXPECT_EQ(2048, shown.answer["key_bits"]);
    EXPECT_EQ(hash_of(files.cert), shown.answer["hash"]);
    if (file == der) {
      EXPECT_TRUE(shown.answer["private_key"].is_null());
    } else {
      EXPECT_EQ(2048, shown.answer["private_key"]["bits"]);
    }
  }
  EXPECT_EQ(der_bytes, read_file(der));  // describing it must not rewrite it

  const run_result text = fetchrig({"cert", "info", files.cert});
  EXPECT_EQ(0, text.status);
  EXPECT_TRUE(holds(text.output, "hash:         " + hash_of(files.cert) + "\n")) << text.output;
  EXPECT_FALSE(holds(text.output, "\x1b")) << text.output;

  write_file(path("none"), "no certificate");
  for (const char* file : {"none", "missing", "."}) {
    SCOPED_TRACE(file);
    const json_run failed = ask({"info", file});
    EXPECT_EQ(1, failed.status);
    EXPECT_EQ(false, failed.answer["ok"]);
    EXPECT_TRUE(holds(failed.answer["message"], file)) << failed.answer;
  }
}

TEST_F(cli_cert, verify) {
  const cert_files good = ca_.issue("good");
  const cert_files expired = ca_.issue("expired", {.valid_from_s = -7200, .valid_until_s = -3600});
  // clang-format off
  const struct { const char* name; std::vector<std::string> arguments; int code; } rows[] = {
      {"known by directory", {good.cert, "--ca-dir", ca_.hashed_dir()}, 0},
      {"known by file", {good.cert, "--ca-file", ca_.file()}, 0},
      {"with its key", {good.both, "--with-key", "--ca-file", ca_.file()}, 0},
      {"without its key", {good.cert, "--with-key", "--ca-file", ca_.file()}, 9},
      {"unknown to the system", {good.cert}, 6},
      {"expired", {expired.cert, "--ca-file", ca_.file()}, 5},
      {"no CA file", {good.cert, "--ca-file", "missing"}, 2},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> arguments = {"verify"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const json_run verdict = ask(arguments);
    EXPECT_EQ(row.code == 0 ? 0 : 1, verdict.status);
    EXPECT_EQ(row.code == 0, verdict.answer["ok"]);
    EXPECT_EQ(row.code, verdict.answer.value("code", 0)) << verdict.answer;
  }
  expect_done(fetchrig({"cert", "verify", good.cert, "--ca-file", ca_.file()}), good.cert + ": verified\n");
  expect_failed(fetchrig({"cert", "verify", expired.cert, "--ca-file", ca_.file()}), 1,
                {"has expired", "(code 5)"});
  const json_run self_signed = ask({"verify", ca_.file()});
  EXPECT_EQ(1u, self_signed.answer["remarks"].size()) << self_signed.answer;
}

TEST_F(cli_cert, generate_derives_the_key_from_the_seed) {
  const std::string ca_key = path("ca.key");
  const std::string ca_cert = path("ca.pem");
  ASSERT_EQ(0, run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", ca_key, "-out",
                    ca_cert, "-subj", "/CN=Issuer", "-days", "2"})
                   .status);
  const auto generate = [&](const std::string& name, const std::string& seed) {
    return ask({"generate", "--ca", ca_cert, "--ca-key", ca_key, "--key", name + ".key", "--cert",
                name + ".pem", "--subject", "/O=Acme/CN=0011AB", "--bits", "1024"},
               {"FETCHRIG_KEY_SEED=" + seed});
  };
  const json_run first = generate("a", "seed one");
  EXPECT_EQ(0, first.status) << first.answer;
  EXPECT_EQ(true, first.answer["key_generated"]);
  EXPECT_EQ("0011AB", first.answer["subject"]);
  EXPECT_EQ(1024, first.answer["private_key"]["bits"]);
  EXPECT_EQ(0, generate("b", "seed one").status);
  EXPECT_EQ(0, generate("c", "seed two").status);
  EXPECT_EQ(read_file(path("a.key")), read_file(path("b.key")));
  EXPECT_NE(read_file(path("a.key")), read_file(path("c.key")));
  const json_run again = generate("a", "seed two");
  EXPECT_EQ(false, again.answer["key_generated"]);
  EXPECT_EQ(read_file(path("a.key")), read_file(path("b.key")));
  EXPECT_EQ(0, ask({"verify", "a.pem", "--with-key", "--ca-file", ca_cert}).status);

  const cert_files stranger = ca_.issue("stranger", {.rsa_bits = 2048});
  const json_run wrong = ask({"generate", "--ca", ca_cert, "--ca-key", stranger.key, "--key", "a.key",
                              "--cert", "d.pem", "--subject", "/CN=x"});
  EXPECT_EQ(1, wrong.status);
  EXPECT_TRUE(holds(wrong.answer["message"], "do not match")) << wrong.answer;
  EXPECT_FALSE(file_exists(path("d.pem")));
}

TEST_F(cli_cert, store) {
  const std::string der = path("ca.der");
  ASSERT_EQ(0, run({"openssl", "x509", "-in", ca_.file(), "-outform", "DER", "-out", der}).status);
  const std::string der_bytes = read_file(der);
  const std::string hash = hash_of(ca_.file());
  const std::vector<std::string> in_store = {"FETCHRIG_STORE=store"};

  EXPECT_EQ(hash, ask({"install", der}, in_store).answer["hash"]);
  EXPECT_EQ(der_bytes, read_file(der));
  EXPECT_EQ(-2, ask({"install", ca_.file(), "--store", "store/"}).answer["code"]);
  // Links made from a relative store name must lead somewhere from everywhere.
  EXPECT_EQ(read_file(ca_.file()), read_file(path("store/ca/" + hash + ".0")));

  const json_run listed = ask({"list"}, in_store);
  ASSERT_EQ(1u, listed.answer["certificates"].size()) << listed.answer;
  EXPECT_EQ(hash, listed.answer["certificates"][0]["hash"]);
  EXPECT_TRUE(holds(fetchrig({"cert", "list"}, in_store).output, hash + "  root"));
  const cert_files server = ca_.issue("server");
  EXPECT_EQ(0, ask({"verify", server.cert, "--ca-dir", "store/ca"}).status);

  EXPECT_EQ(0, ask({"remove", der}, in_store).status);
  EXPECT_EQ(der_bytes, read_file(der));  // only the store's copy goes
  EXPECT_EQ((std::vector<std::string>{"ca", "phoneca"}), names_in(path("store")));
  EXPECT_TRUE(names_in(path("store/ca")).empty());
  EXPECT_EQ(1, ask({"remove", hash}, in_store).status);

  for (const std::string& by : {hash, "store/" + hash + ".0"}) {
    expect_done(fetchrig({"cert", "install", ca_.file()}, in_store),
                "installed root as " + path("store/") + hash + ".0\n");
    EXPECT_EQ(0, fetchrig({"cert", "remove", by}, in_store).status);
    EXPECT_EQ(0u, ask({"list"}, in_store).answer["certificates"].size());
  }
  EXPECT_EQ(1, ask({"remove", "no-such-thing"}, in_store).status);
  EXPECT_EQ(1, ask({"list", "--store", "missing"}).status);
}

TEST_F(cli_cert, device_certificate) {
  const cert_files pair = ca_.issue("pair", {.common_name = "phone"});
  const cert_files other = ca_.issue("other", {.common_name = "other"});
  const std::string device = place_.make_dir("work/device/server") + "/WebServer.pem";
  const std::vector<std::string> there = {"FETCHRIG_DEVICE_CERT=" + device};
  const auto device_command = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "device");
    return ask(arguments, there);
  };
  EXPECT_EQ(-2, device_command({"install", pair.cert}).answer["code"]);
  EXPECT_EQ(0, device_command({"install", pair.both}).status);
  EXPECT_EQ(read_file(pair.both), read_file(device));
  EXPECT_EQ(-7, device_command({"install", pair.both}).answer["code"]);
  EXPECT_EQ("phone", device_command({"show"}).answer["subject"]);

  const json_run half = device_command({"install-part", other.cert});
  EXPECT_EQ(0, half.status);
  EXPECT_EQ(false, half.answer["complete"]);
  const json_run shown = device_command({"show"});
  EXPECT_EQ(1, shown.status);
  EXPECT_EQ(false, shown.answer["key_belongs"]);
  EXPECT_EQ(true, device_command({"install-part", other.key}).answer["complete"]);
  EXPECT_EQ(true, device_command({"show"}).answer["key_belongs"]);
  EXPECT_EQ(-1, device_command({"install-part", "/dev/null"}).answer["code"]);

  EXPECT_EQ(0, device_command({"remove"}).status);
  EXPECT_FALSE(file_exists(device));
  EXPECT_EQ(1, device_command({"remove"}).status);
  EXPECT_EQ(1, device_command({"show"}).status);
}

}  // namespace
}  // namespace test
