# SPDX-License-Identifier: MIT
"""fetchrig get: every scheme, where the file goes, trust, logins, and what is left of a download that failed."""
import os
import signal
import subprocess
import tempfile

import pytest
from conftest import (ASK, CHALLENGE, CONTENT, OK, PASSWORD, brief, chunked, reset, response, sized, stall, tls_server,
                      wait_for)

WHOLE = brief(CONTENT)


@pytest.mark.parametrize("url", [
    "{http}", "{http}/chunked", "{http}/streamed", "{https}", "{ftp}", "{tftp}", "no scheme"])
def test_every_scheme(fetchrig, places, url):
    url = places["tftp"].removeprefix("tftp://") if url == "no scheme" else url
    fetchrig.done(f"get {url}/a.bin --ca-dir {{ca}}")
    assert fetchrig.files() == {"a.bin": WHOLE}
    (fetchrig.work / "a.bin").unlink()
    fetchrig.done(f"get -o - --ca-dir {{ca}} {url}/a.bin", CONTENT)
    assert fetchrig.files() == {}


def test_a_link_stays_and_its_target_keeps_owner_and_mode(fetchrig):
    fetchrig.write("target", "old and longer than nothing")
    target, link = fetchrig.work / "target", fetchrig.work / "link"
    link.symlink_to("target")
    os.chown(target, 1 if os.geteuid() == 0 else -1, -1)
    target.chmod(0o604)
    before = target.stat()
    fetchrig.done("get -o link {http}/a.bin")
    assert link.is_symlink() and fetchrig.files() == {"link": WHOLE, "target": WHOLE}
    assert (target.stat().st_mode, target.stat().st_uid) == (before.st_mode, before.st_uid)


@pytest.mark.parametrize("output, status, reason, shell", [
    (".", 2, "is a directory", ""), ("/dev/full", 9, "No space left", ""), ("long", 9, "too large", "ulimit -f 1; "),
    ("/dev/fd/3", 9, "Bad file descriptor", "exec 3>&-; "), ("n" * 300, 9, "created: File name too long", ""),
])
def test_places_that_take_no_file(fetchrig, output, status, reason, shell):
    fetchrig.fails(f"get -o {output} {{http}}/a.bin", output, reason, status=status, shell=shell + 'exec "$@"')
    assert fetchrig.files() == {}


@pytest.mark.parametrize("output", ["/dev/stdout", "through", "/dev/null"])
def test_descriptors_and_devices_are_written_where_they_are(fetchrig, output):
    (fetchrig.work / "through").symlink_to("/proc/thread-self/fd/1")
    fetchrig.done(f"get -o {output} {{http}}/a.bin {{http}}/a.bin", shell='exec >out; echo 1; exec "$@"')
    written = b"" if output == "/dev/null" else CONTENT + CONTENT
    assert (fetchrig.work / "out").read_bytes() == b"1\n" + written
    assert (fetchrig.work / "through").is_symlink() and not os.path.isfile("/dev/null")


# Root without its right to write everywhere, and with a umask that takes the user's own rights.
IN_PLACE = f"""umask 0777; exec {'setpriv --bounding-set=-dac_override ' * (os.geteuid() == 0)}"$@\""""


def test_a_file_in_a_read_only_directory_is_written_in_place(fetchrig, peer):
    how = {"shell": IN_PLACE, "peer": peer(sized(3, b"new"), sized(3, b"ne")).address}
    fetchrig.write("out", "longer")
    fetchrig.work.chmod(0o555)
    fetchrig.done("get --ca-file {root} -o out http://{peer}/a", **how)
    assert fetchrig.files() == {"out": b"new"}
    fetchrig.fails("get --ca-file {root} -o out http://{peer}/a", "ended before the whole file", "is empty now", **how)
    assert fetchrig.files() == {"out": b""}
    fetchrig.work.chmod(0o755)


@pytest.mark.parametrize("server, options, complaint", [
    ("good", "", "unknown issuer"),
    ("good", "--ca-dir .", "is not hashed"),
    ("good", "--ca-file {root}", None),
    ("good", "--ca-file {stranger} --ca-dir {ca}", None),
    ("good", "--ca-file {stranger}", "unknown issuer"),
    ("good", "--ca-dir {ca} --tls-method tls1.0", 'the alert "protocol version"'),
    ("other", "--ca-dir {ca}", "does not name this host"),
    ("other", "--ca-dir {ca} --no-verify-host", None),
    ("expired", "--ca-dir {ca}", "expired"),
    ("expired", "--insecure", None),
])
def test_https_servers_must_be_trusted(fetchrig, peer, places, server, options, complaint):
    server = peer([ASK, OK], tls=tls_server(places[server]))
    with tempfile.TemporaryDirectory() as temporary:
        fetchrig.ends(f"get -o - https://{server.address}/a {options}", complaint, b"ok",
                      env={"TMPDIR": temporary})
        assert os.listdir(temporary) == []
    assert (server.received == [b""]) == bool(complaint)


@pytest.mark.parametrize("passphrase, complaint", [("wrong", "private key cannot be read"), ("open", None)])
def test_client_certificate_with_an_encrypted_key(fetchrig, peer, places, passphrase, complaint):
    server = peer([ASK, OK], tls=tls_server(places["good"], ca_file=places["root"]))
    fetchrig.ends(f"get -o - https://{server.address}/a --ca-dir {{ca}} --cert {{locked}}", complaint, b"ok",
                  env={"FETCHRIG_KEY_PASSPHRASE": passphrase})


@pytest.mark.parametrize("line, url_login, env, complaint", [
    ("--user phone {http}/private", "", PASSWORD, None),
    ("--user phone --password s3cret {http}/private", "", {}, None),
    ("--user x --password y {http}/private", "phone:s3cret@", {}, None),
    ("--user phone {http}/private", "", {"FETCHRIG_PASSWORD": "x"}, "login refused"),
    ("--user phone {ftp_login}", "", PASSWORD, None),
    ("{ftp_login}", "phone@", PASSWORD, None),
])
def test_logins(fetchrig, places, line, url_login, env, complaint):
    line = line.format(http=places["http"], ftp_login=places["ftp_login"]).replace("//", "//" + url_login)
    told = fetchrig.ends(f"get -o - {line}/a.bin", complaint, CONTENT, env=env)
    assert not told or "s3cret" not in told


@pytest.mark.parametrize("script, content", [
    (sized(10, b"1234567890"), b"1234567890"), (chunked(b"a\r\n1234567890\r\n0\r\n\r\n"), b"1234567890"),
    ([ASK, response(body=b"123456789")], b"123456789"), ([ASK, response("204 No Content")], b""),
])
def test_the_limit_is_the_largest_size(fetchrig, peer, script, content):
    fetchrig.done(f"get --max-size 10 http://{peer(script).address}/a")
    assert fetchrig.files() == {"a": content}


@pytest.mark.parametrize("wanted_ca, script, complaint", [
    ("stranger", [], '"certificate required"'), (None, sized(10, b"four") + [stall], "no answer within 1 s (code -8)"),
    (None, [ASK, response(body=b"no end"), reset], "the connection broke: Connection reset by peer"),
])
def test_what_tls_servers_do_late(fetchrig, peer, places, wanted_ca, script, complaint):
    server = peer(script, tls=tls_server(places["good"], wanted_ca and places[wanted_ca]))
    fetchrig.fails(f"get --timeout 1 --ca-dir {{ca}} https://{server.address}/a", complaint)
    assert fetchrig.files() == {}


@pytest.mark.parametrize("number, options", [
    (signal.SIGTERM, "--ca-file {root}"), (signal.SIGUSR1, ""), (signal.SIGALRM, "-o out"),
])
def test_an_interrupted_download_leaves_nothing(fetchrig, peer, number, options):
    """In a directory that takes no other file, an empty one. A signal that was ignored stays so."""
    in_place = "out" in options
    server = peer(sized(200000, CONTENT[:100000]) + [stall])
    shell = "trap '' HUP; " + (IN_PLACE if in_place else 'exec "$@"')
    words = ["sh", "-c", shell, "sh", *fetchrig.words(f"get {options} http://{server.address}/a", {})]
    fetchrig.write("out", "longer")
    fetchrig.work.chmod(0o555 if in_place else 0o755)
    with tempfile.TemporaryDirectory() as temporary:
        command = subprocess.Popen(words, cwd=fetchrig.work, env={**os.environ, "TMPDIR": temporary})
        wait_for(lambda: len(fetchrig.files()) > 1 or len(fetchrig.files()["out"]) == 2)
        assert bool(os.listdir(temporary)) == ("ca-file" in options)
        command.send_signal(signal.SIGHUP)
        pytest.raises(subprocess.TimeoutExpired, command.wait, 0.3)
        command.send_signal(number)
        assert command.wait(20) == -number
        assert (fetchrig.files(), os.listdir(temporary)) == ({"out": b"" if in_place else b"longer"}, [])
    fetchrig.work.chmod(0o755)


@pytest.mark.parametrize("line, scripts, sent", [
    ('--header "X-One: 1" --header X-Two:2 --option user-agent=Me/1 "http://{peer}/a b?x=1#part"', [[ASK, OK]],
     ["GET /a%20b?x=1 HTTP/1.1", "X-One: 1", "X-Two:2", "User-Agent: Me/1"]),
    ("--auth xsi --user u --password p http://{peer}/a", [[ASK, CHALLENGE], [ASK, OK]],
     ['Authorization: BroadWorksSIP basic="cA==", sipUser="dQ=="']),
    ("--proxy http://{peer} http://origin.invalid/a", [[ASK, OK]], ["Host: origin.invalid"]),
])
def test_what_is_sent(fetchrig, peer, line, scripts, sent):
    server = peer(*scripts)
    fetchrig.done(f"get -o - {line}", b"ok", peer=server.address)
    assert set(sent) <= set(server.received[-1].decode().split("\r\n"))


def test_headers_and_the_log_are_told_when_asked_for(fetchrig, peer):
    server = peer([ASK, response(headers="Content-Length: 2\r\nX-Kind: test\r\n", body=b"ok")])
    ended = fetchrig.run(f"get -vv --show-headers -o - http://{server.address}/a")
    assert (ended.stdout, ended.returncode) == (b"ok", 0)
    assert "HTTP: response code: 200\n" in ended.stderr and "x-kind: test\n" in ended.stderr.lower()
