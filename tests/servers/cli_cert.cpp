// "fetchrig cert": what it says about certificates, judged by the openssl tool, and what it leaves on the
// disk.
#include <nlohmann/json.hpp>

#include "tests/support/command.h"
#include "tests/support/test_ca.h"

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

  const test_ca ca_{place_};
  const std::string device_ = place_.make_dir("work/device/server") + "/WebServer.pem";
  const std::string der_ = path("root.der");
  const std::string der_bytes_ = der_of(ca_.root().certificate.get());
  const std::string hash_ =
      run({"openssl", "x509", "-in", ca_.file(), "-noout", "-subject_hash"}).output.substr(0, 8);
};

TEST_F(cli_cert, info) {
  const cert_files files = ca_.issue("server", {.common_name = "Anna \x1b[1m", .rsa_bits = 2048});
  EXPECT_EQ(2048, ask({"info", "--key", files.both})["private_key"]["bits"]);
  write_file(der_, der_bytes_);
  const json shown = ask({"info", "--key", der_});
  EXPECT_EQ("root", shown["issuer"]);
  EXPECT_EQ(hash_, shown["hash"]);
  EXPECT_EQ(json(), shown["private_key"]);
  EXPECT_EQ(der_bytes_, read_file(der_)) << "describing it must not rewrite it";

  const std::string text = tell({"info", files.cert}).output;
  EXPECT_TRUE(holds(text, "issuer:       root\n")) << text;
  EXPECT_FALSE(holds(text, "\x1b")) << text;
  write_file(path("none"), "no certificate");
  for (const char* file : {"none", "missing", "."}) {
    EXPECT_TRUE(holds(ask({"info", file})["message"], file)) << file;
  }
}

TEST_F(cli_cert, verify) {
  const cert_files good = ca_.issue("good");
  const cert_files expired = ca_.issue("expired", {.valid_from_s = -7200, .valid_until_s = -3600});
  EXPECT_EQ(true, ask({"verify", good.cert, "--ca-dir", ca_.hashed_dir()})["ok"]);
  EXPECT_EQ(true, ask({"verify", good.both, "--with-key", "--ca-file", ca_.file()})["ok"]);
  EXPECT_EQ(9, ask({"verify", good.cert, "--with-key", "--ca-file", ca_.file()})["code"]);
  EXPECT_EQ(6, ask({"verify", good.cert})["code"]) << "the system does not know its issuer";
  EXPECT_EQ(2, ask({"verify", good.cert, "--ca-file", "missing"})["code"]);
  EXPECT_EQ(1u, ask({"verify", ca_.file()})["remarks"].size()) << "that it is self-signed";
  expect_done(tell({"verify", good.cert, "--ca-file", ca_.file()}), good.cert + ": verified\n");
  expect_failed(tell({"verify", expired.cert, "--ca-file", ca_.file()}), 1, {"has expired", "(code 5)"});
}

TEST_F(cli_cert, generate_derives_the_key_from_the_seed) {
  const identity issuer = make_identity("Issuer", new_rsa_key(2048), {.extensions = ca_extensions});
  write_file(path("ca.pem"), pem_of(issuer.certificate.get()));
  write_file(path("ca.key"), pem_of(issuer.key.get()));
  const auto generate = [&](const std::string& name, const std::string& seed, const char* ca_key = "ca.key") {
    return ask({"generate", "--ca", "ca.pem", "--ca-key", ca_key, "--key", name + ".key", "--cert",
                name + ".pem", "--subject", "/O=Acme/CN=0011AB", "--bits", "1024"},
               seed);
  };
  const json made = generate("a", "seed one");
  EXPECT_EQ("0011AB", made["subject"]);
  EXPECT_EQ(1024, made["private_key"]["bits"]);
  EXPECT_EQ(true, made["key_generated"]);
  EXPECT_EQ(true, generate("b", "seed one")["ok"]);
  EXPECT_EQ(true, generate("c", "seed two")["ok"]);
  EXPECT_EQ(false, generate("a", "seed two")["key_generated"]);
  EXPECT_EQ(read_file(path("a.key")), read_file(path("b.key")));
  EXPECT_NE(read_file(path("a.key")), read_file(path("c.key")));
  EXPECT_EQ(true, ask({"verify", "a.pem", "--with-key", "--ca-file", "ca.pem"})["ok"]);
  EXPECT_TRUE(holds(generate("d", "seed", "a.key")["message"], "do not match"));
}

TEST_F(cli_cert, store) {
  write_file(der_, der_bytes_);
  EXPECT_EQ(hash_, ask({"install", der_})["hash"]);
  EXPECT_EQ(-2, ask({"install", ca_.file(), "--store", "store/"})["code"]);
  // Links made from a relative store name must lead somewhere from everywhere.
  EXPECT_EQ(read_file(ca_.file()), read_file(path("store/ca/" + hash_ + ".0")));
  EXPECT_EQ(hash_, ask({"list"})["certificates"][0]["hash"]);
  EXPECT_TRUE(holds(tell({"list"}).output, hash_ + "  root"));
  EXPECT_EQ(true, ask({"verify", ca_.issue("server").cert, "--ca-dir", "store/ca"})["ok"]);

  for (const std::string& by : {der_, hash_, "store/" + hash_ + ".0"}) {
    EXPECT_EQ(true, ask({"remove", by})["ok"]) << by;
    EXPECT_TRUE(names_in(path("store/ca")).empty());
    EXPECT_TRUE(ask({"list"})["certificates"].empty());
    expect_done(tell({"install", ca_.file()}), "installed root as " + path("store/") + hash_ + ".0\n");
  }
  EXPECT_EQ(der_bytes_, read_file(der_)) << "a file outside the store is neither rewritten nor removed";
  EXPECT_EQ(false, ask({"remove", "00000000"})["ok"]);
  EXPECT_EQ(false, ask({"remove", "no-such-thing"})["ok"]);
  EXPECT_EQ(false, ask({"list", "--store", "missing"})["ok"]);
}

TEST_F(cli_cert, device_certificate) {
  const cert_files pair = ca_.issue("pair", {.common_name = "phone"}), other = ca_.issue("other");
  // clang-format off
  const struct { std::vector<std::string> arguments; const char* field; json value; } steps[] = {
      {{"install", pair.cert}, "code", -2},
      {{"install", pair.both}, "ok", true},
      {{"install", pair.both}, "code", -7},
      {{"show"}, "subject", "phone"},
      {{"install-part", other.cert}, "complete", false},
      {{"show"}, "key_belongs", false},
      {{"install-part", other.key}, "complete", true},
      {{"show"}, "key_belongs", true},
      {{"install-part", "/dev/null"}, "code", -1},
      {{"remove"}, "ok", true},
      {{"remove"}, "ok", false},
      {{"show"}, "ok", false},
  };
  // clang-format on
  for (const auto& step : steps) {
    std::vector<std::string> arguments = step.arguments;
    arguments.insert(arguments.begin(), "device");
    EXPECT_EQ(step.value, ask(arguments)[step.field]) << &step - steps;
  }
}

}  // namespace
}  // namespace test
