# SPDX-License-Identifier: MIT
"""fetchrig cert: what it says about certificates, judged by the openssl tool and by a server, and what it leaves on
the disk."""
import json
import os
import re
import ssl

import pytest
from conftest import DEVICE, Fetchrig, sized, tls_server
from servers import Authority, openssl


class Cert(Fetchrig):
    """Certificates in the working directory, and "fetchrig cert" there."""

    def __init__(self, fetchrig):
        super().__init__(fetchrig.work, fetchrig.places)
        self.root = self.places["root"]
        self.hash = openssl("x509", "-in", self.root, "-noout", "-subject_hash").decode().strip()
        self.der = openssl("x509", "-in", self.root, "-outform", "DER")
        self.write("root.der", self.der)
        for name in "good", "other", "locked":
            certificate, end, key = self.places[name].read_bytes().partition(b"-----END CERTIFICATE-----\n")
            self.write(f"{name}.cert", certificate + end)
            self.write(f"{name}.key", key)
        (self.work / DEVICE).parent.mkdir(parents=True)

    def ask(self, line, **env):
        """The answer in JSON: there is one, whatever the outcome, and it fits the exit status."""
        ended = self.run(f"cert {line} --json", env=env)
        answer = json.loads(ended.stdout)
        assert ended.returncode == (0 if answer["ok"] else 1), answer
        return answer

    def steps(self, *steps, **env):
        """One after the other: what is asked, a field of the answer, and its value; of a message, a part."""
        for line, field, value in steps:
            answer = self.ask(line, **env)
            right = value in answer[field] if field == "message" else answer.get(field) == value
            assert right, (line, field, value, answer)


@pytest.fixture
def cert(fetchrig):
    return Cert(fetchrig)


def test_info_and_verify(cert):
    cert.write("none", "no certificate")
    cert.steps(
        ("info {good}", "issuer", "CN=root"),
        ("info {good} --key", "private_key", {"algorithm": "id-ecPublicKey", "bits": 256}),
        ("info root.der --key", "private_key", None),
        ("info none", "code", 1),
        ("info missing", "message", "missing: No such file or directory"),
        ("info .", "message", ". is not a regular file"),
        ("verify {good} --ca-dir {ca}", "ok", True),
        ("verify {good} --ca-file {root} --with-key", "ok", True),
        ("verify good.cert --ca-file {root} --with-key", "code", 9),
        ("verify {good} --ca-file missing", "code", 2),
        ("verify missing", "message", "missing: No such file or directory"),
        ("verify {root}", "remarks", ["self-signed certificate"]),
        ("verify {root}", "trusted", False),
        ("verify {root} --strict", "ok", False),
        ("verify {root} --strict --ca-file {root}", "trusted", True),
        ("verify {good}", "code", 6),
        ("verify {good} --ca-dir .", "message", ". is not hashed"),
        ("verify {expired} --ca-file {root}", "code", 5))
    for trusts_no_root in "--ca-file {expired}", "--ca-dir device":  # whatever OpenSSL would trust by itself
        cert.steps((f"verify {{good}} {trusts_no_root}", "message", "not among the trusted CAs"),
                   SSL_CERT_FILE=cert.root, SSL_CERT_DIR=cert.root.parent)
    assert (cert.work / "root.der").read_bytes() == cert.der, "describing it must not rewrite it"
    odd = cert.places.authority.issue("odd", "Anna \x1b[1m")
    told = cert.run(f"cert info {odd}").stdout
    assert b"issuer:       CN=root\n" in told and b"Anna" in told and b"\x1b" not in told
    cert.done("cert verify good.cert --ca-file {root}", b"good.cert: verified\n")
    cert.fails("cert info root.der", "missing: No such file", env={"TMPDIR": "missing"})


def generate(cert, name, ca_key="ca.key", subject="/CN=0011AB", seed="", certificate=None, **env):
    return cert.ask(f"generate --ca ca --ca-key '{ca_key}' --key '{name}.key' --cert '{certificate or name}' "
                    f"--subject '{subject}' --bits 1024", FETCHRIG_KEY_SEED=seed, **env)


@pytest.fixture(scope="session")
def rsa(tmp_path_factory):
    """A CA with an RSA key, and other RSA keys, by file name."""
    authority = Authority(tmp_path_factory.mktemp("rsa") / "ca", "Issuer", ("-newkey", "rsa:2048"))
    return {"ca": authority.file.read_bytes(), "ca.key": authority.key.read_bytes(), "rsa.key": openssl("genrsa", 1024),
            "locked.key": openssl("genrsa", "-aes256", "-passout", "pass:open sesame", 1024)}


@pytest.fixture
def issuer(cert, rsa):
    for name, content in rsa.items():
        cert.write(name, content)
    return cert


def test_keys_of_generated_certificates_are_random_unless_a_seed_is_given(issuer):
    def content(name):
        return (issuer.work / name).read_bytes()

    made = generate(issuer, "a")
    assert (made["subject"], made["private_key"]["bits"], made["key_generated"]) == ("CN=0011AB", 1024, True)
    assert generate(issuer, "a", seed="a seed")["key_generated"] is False
    for name, seed in ("b", ""), ("seed 1", "seed"), ("seed 2", "seed"):
        assert generate(issuer, name, seed=seed)["key_generated"] is True
    assert content("a.key") != content("b.key") and content("seed 1.key") == content("seed 2.key")
    assert generate(issuer, "locked", FETCHRIG_KEY_PASSPHRASE="open sesame")["key_generated"] is False


def test_what_cannot_be_generated_leaves_every_file_as_it_was(issuer):
    for name, content in ("der", openssl("pkey", "-in", issuer.work / "rsa.key", "-outform", "DER")), ("garbage", "?"):
        issuer.write(f"{name}.key", content)
    issuer.write("empty.key", "")
    (issuer.work / "dangling.key").symlink_to("nowhere")
    before = issuer.files()
    for key, why, how in [
        ("locked", "encrypted", {}), ("garbage", "no private key", {}), ("good", "no RSA key", {}),
        ("der", "DER", {"seed": "s"}), ("empty", "no private key", {"seed": "s"}), ("dangling", "leads nowhere", {}),
        ("new", "RSA", {"ca_key": "good.key"}), ("new", "do not match", {"ca_key": "rsa.key"}),
        ("new", 'start with "/"', {"subject": "CN=a"}), ("new", "ASCII", {"subject": "/CN=\u00e4"}),
        ("new", "/TYPE=VALUE", {"subject": "/CN=", "seed": "s"}), ("new", '"XCN"', {"subject": "/XCN=b", "seed": "s"}),
        ("new", "C has 3 characters", {"subject": "/C=GER", "seed": "s"}),
        ("new", "belongs to the CA", {"certificate": "ca.key"}), ("new", "opened", {"certificate": "locked.key"}),
        ("new", "another certificate", {"certificate": "rsa.key"}), ("new", "same file", {"certificate": "./new.key"}),
        ("new", "descriptor", {"certificate": "/dev/stdout"}), ("new", "regular", {"certificate": "/dev/null"}),
    ]:
        assert why in generate(issuer, key, **how)["message"], (key, why, how)
        assert issuer.files() == before


def test_a_generated_certificate_is_taken_by_a_server(issuer, peer):
    generate(issuer, "a")
    assert issuer.ask("device install a")["ok"], "for all its MD5 signature and short key"
    tls = tls_server(issuer.places["good"], issuer.work / "ca", ssl.TLSVersion.TLSv1)
    line = "get -o - https://{peer}/a --ca-dir store/ca --cert {cert} --tls-method {method}"
    how = {"peer": peer(sized(2, b"ok"), tls=tls).address}
    assert issuer.ask("install {root}")["ok"]
    for method in "auto", "tls1.0":
        issuer.done(line, b"ok", cert="a", method=method, **how)
        issuer.fails(line, "alert", cert=issuer.places["good"], method=method, **how)
    assert issuer.ask(f"remove {issuer.hash}")["ok"]
    issuer.fails(line, "trust", cert="a", method="auto", **how)


def test_store(cert):
    cert.write("with key", cert.root.read_bytes() + cert.places.authority.key.read_bytes())
    cert.steps(("install 'with key'", "hash", cert.hash))
    assert (cert.work / "store" / cert.hash).read_bytes() == cert.root.read_bytes(), "and nothing of the key"
    cert.steps((f"remove {cert.hash}", "ok", True), ("install root.der", "hash", cert.hash),
               ("install {root} --store store/", "code", -2))
    # Links made from a relative store name must lead somewhere from everywhere.
    assert (cert.work / f"store/ca/{cert.hash}.0").read_bytes() == cert.root.read_bytes()
    assert f"{cert.hash}  CN=root".encode() in cert.run("cert list").stdout
    assert cert.ask("list")["certificates"][0]["hash"] == cert.hash
    for by in "root.der", cert.hash.upper() + ".0", "root", "CN=root", f"store/{cert.hash}.0":
        cert.steps((f"remove {by}", "ok", True), ("list", "certificates", []), (f"remove {cert.hash}", "ok", False))
        assert os.listdir(cert.work / "store/ca") == []
        cert.done("cert install {root}", f"installed CN=root as {cert.work}/store/{cert.hash}.0\n".encode())
    assert (cert.work / "root.der").read_bytes() == cert.der, "a file outside the store stays as it is"
    cert.done(f"cert remove {cert.hash}", f"removed {cert.work}/store/{cert.hash}.0\n".encode())
    cert.steps(("remove no-such-thing", "ok", False),
               ("list --store /nope", "message", "/nope/: the store cannot be opened: No such file or directory"))


def test_what_a_certificate_says_of_itself(cert):
    subject, names = "/O=K\u00e4se \u009b GmbH/CN=a, b", "subjectAltName=DNS:a.example,IP:10.0.0.1"
    openssl("req", "-x509", *Authority.new_key, "-nodes", "-utf8", "-days", 9, "-subj", subject, "-addext", names,
            "-keyout", cert.work / "key", "-out", cert.work / "rich")
    told = cert.ask("info rich")
    digest = openssl("x509", "-in", cert.work / "rich", "-noout", "-fingerprint", "-sha256").decode().strip()
    assert told["subject"] == told["issuer"] == "O=K\u00e4se \u009b GmbH, CN=a\\, b"
    assert (told["ca"], told["common_name"]) == (True, "a, b") and told["days_left"] in (8, 9)
    assert told["alternative_names"] == ["DNS:a.example", "IP Address:10.0.0.1"]
    assert told["sha256"].upper() == digest.partition("=")[2].replace(":", "")
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", told["not_after"])
    for line in "info rich", "info rich --json":
        shown = cert.run(f"cert {line}").stdout.decode()
        assert "K\u00e4se" in shown and "\u009b" not in shown


def test_a_bundle_is_installed_certificate_by_certificate(cert):
    bundle = b"".join(path.read_bytes() for path in (cert.root, cert.places["stranger"], cert.places["good"]))
    cert.write("bundle", bundle)
    assert cert.ask("info bundle")["certificates_in_file"] == 3
    cert.ask("install {root}")
    told = cert.run("cert install bundle --json")
    each = [(one["subject"], one["ca"], one["installed"]) for one in json.loads(told.stdout)["certificates"]]
    assert each == [("CN=root", True, False), ("CN=stranger", True, True), ("CN=127.0.0.1", False, True)]
    assert told.returncode == 0 and told.stderr.count("CN=127.0.0.1 is no CA") == 1
    assert [one["links"] for one in cert.ask("list")["certificates"]] == ["absolute"] * 3
    cert.steps(("install bundle", "code", -2), ("list --relocatable", "removed", []), ("remove stranger", "ok", True),
               ("install {stranger} --relocatable", "ok", True))
    (cert.work / "store").rename(cert.work / "moved")
    assert [one["links"] for one in cert.ask("list --store moved")["certificates"]] == ["relative"] * 3
    assert sorted(os.listdir(cert.work / "moved/ca")) == sorted(
        one["hash"] + ".0" for one in cert.ask("list --store moved")["certificates"])
    cert.done("cert verify good.cert --ca-dir moved/ca", b"good.cert: verified\n")


def test_a_listing_removes_foreign_files_only_when_told_and_names_them(cert):
    cert.ask("install {root}")
    (cert.work / "store/lib.so.0").write_text("program")
    (cert.work / "store/01234567.0").symlink_to("nothing")
    cert.fails("cert list", ": lib.so.0; --prune", "removes 01234567.0, lib.so.0")
    assert (cert.work / "store/lib.so.0").read_text() == "program"
    (cert.work / "store/README").write_text("foreign")
    cert.steps(("install {root}", "code", 0), ("remove store/README", "ok", False))
    assert (cert.work / "store/README").read_text() == "foreign"
    cert.steps(("list --prune", "removed", ["01234567.0", "lib.so.0"]), ("list", "removed", []))
    assert cert.ask("list")["certificates"][0]["hash"] == cert.hash


def test_a_store_command_that_fails_leaves_no_half_and_never_reads_our_input(cert):
    def with_failing(program):
        (cert.work / program).mkdir()
        script = cert.work / program / program
        script.write_text("#!/bin/sh\ncat >>seen\nexit 1\n")
        script.chmod(0o755)
        return {"env": {"PATH": f"{script.parent}:{os.environ['PATH']}"}}

    cert.fails("cert install {root}", "nothing was installed", **with_failing("ln"))
    assert sorted(os.listdir(cert.work / "store")) == ["ca", "phoneca"]
    cert.steps(("install {root}", "ok", True))
    cert.fails("cert remove {root}", "could not be removed", f"{cert.hash}.0", **with_failing("rm"))
    assert (cert.work / "seen").read_bytes() == b""
    (cert.work / f"store/{cert.hash}.0").unlink()
    cert.steps((f"remove {cert.hash}", "ok", True))
    assert os.listdir(cert.work / "store/ca") == []


def test_device_certificate(cert):
    cert.steps(
        ("device install good.cert", "code", -2),
        ("device install {good}", "installed", DEVICE),
        ("device install {good}", "code", -7),
        ("device show", "subject", "CN=127.0.0.1"),
        ("device install-part other.cert", "complete", False),
        ("device show", "key_belongs", False),
        ("device install-part other.key", "complete", True),
        ("device show", "key_belongs", True),
        ("device install-part /dev/null", "code", -1),
        ("device install-part nope", "message", "nope: No such file or directory (code -1)"),
        ("device install nope", "message", "nope: No such file or directory (code -5)"),
        ("device remove", "ok", True),
        ("device remove", "ok", False),
        ("device show", "message", f"{DEVICE}: No such file or directory (code -2)"),
        ("device install {good} --device-cert W.pem", "installed", "W.pem"),
        ("device install {good} --device-cert d/W.pem", "installed", "d/W.pem"),
        ("device install {good} --device-cert /dev/full", "ok", False))


def test_places_that_take_no_device_certificate(cert):
    before = cert.files()
    for line, why in [
        # A message of mkdir's own would come before the command's.
        ("install {good} --device-cert no/such/deep/W.pem", "no/such: No such file or directory"),
        ("install-part good.key --device-cert device/server/no/W.pem", "Can't write device/server/no/W.pem: No such"),
        ("install-part good.key --device-cert W.pem", 'must hold "server"'),
        ("install-part good.key --device-cert server.pem", "./server, must be a directory"),
        ("install-part good.key --device-cert servers/W.pem", " server, must be a directory"),
    ]:
        cert.fails(f"cert device {line}", why)
        assert cert.files() == before


def test_a_pass_phrase_that_is_needed_is_named(cert):
    verify = "verify {locked} --ca-file {root} --with-key"
    for line in "device install {locked}", "device install-part locked.key", verify:
        cert.fails(f"cert {line}", "encrypted and FETCHRIG_KEY_PASSPHRASE does not open it")
    cert.write(DEVICE, cert.places["locked"].read_bytes())
    assert "FETCHRIG_KEY_PASSPHRASE" in cert.ask("device show")["remark"]
    cert.fails("cert device install-part locked.cert", f"{DEVICE}: its private key is encrypted")
