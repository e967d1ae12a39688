# SPDX-License-Identifier: MIT
"""fetchrig get: every scheme, where the file goes, trust, logins, and what is left of a download that failed."""
import os
import signal
import subprocess
import tempfile

import pytest
from conftest import ASK, CONTENT, brief, reset, response, stall, tls_server, until, wait_for

WHOLE = brief(CONTENT)
PASSWORD = {"FETCHRIG_PASSWORD": "s3cret"}
OK = response(headers="Content-Length: 2\r\n", body=b"ok")


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


@pytest.mark.parametrize("line, status, parts, shell", [
    ("-o . {http}/a.bin", 2, [". is a directory"], ""),
    ("{http}/up/..", 2, ["names no file"], ""),
    ("-o missing/x {http}/a.bin", 9, ["missing/x", "No such file"], ""),
    ("-o /dev/full {http}/a.bin", 9, ["/dev/full", "No space left"], ""),
    ("-o /dev/fd/3 {http}/a.bin", 9, ["/dev/fd/3", "Bad file descriptor"], "exec 3>&-; "),
    ("-o long {http}/a.bin", 9, ["long", "File too large"], "ulimit -f 1; "),
])
def test_places_that_take_no_file(fetchrig, line, status, parts, shell):
    fetchrig.fails(f"get {line}", *parts, status=status, shell=shell + 'exec "$@"')
    assert fetchrig.files() == {}


@pytest.mark.parametrize("output", ["/dev/stdout", "through", "/dev/null"])
def test_descriptors_and_devices_are_written_where_they_are(fetchrig, output):
    (fetchrig.work / "through").symlink_to("/proc/thread-self/fd/1")
    fetchrig.done(f"get -o {output} {{http}}/a.bin", shell='exec >out; echo 1; exec "$@"')
    written = b"" if output == "/dev/null" else CONTENT
    assert (fetchrig.work / "out").read_bytes() == b"1\n" + written
    assert (fetchrig.work / "through").is_symlink() and not os.path.isfile("/dev/null")


def test_a_file_in_a_read_only_directory_is_written_in_place(fetchrig, peer):
    """Root without its right to write everywhere, and with a umask that takes the user's own rights."""
    server = peer([ASK, response(headers="Content-Length: 3\r\n", body=b"new")],
                  [ASK, response(headers="Content-Length: 3\r\n", body=b"ne")])
    drop = "setpriv --bounding-set=-dac_override " if os.geteuid() == 0 else ""
    how = {"shell": f'umask 0777; exec {drop}"$@"', "peer": server.address}
    fetchrig.write("out", "longer")
    fetchrig.work.chmod(0o555)
    fetchrig.done("get --ca-file {root} -o out http://{peer}/a", **how)
    assert fetchrig.files() == {"out": b"new"}
    fetchrig.fails("get --ca-file {root} -o out http://{peer}/a", "ended after 2 of 3 bytes", "is empty now", **how)
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
    ("{http}/private", "", {}, "login needed"),
    ("--user phone {ftp_login}", "", PASSWORD, None),
    ("{ftp_login}", "phone@", PASSWORD, None),
    ("--user phone {ftp_login}", "", {"FETCHRIG_PASSWORD": "x"}, "login refused"),
])
def test_logins(fetchrig, places, line, url_login, env, complaint):
    line = line.format(http=places["http"], ftp_login=places["ftp_login"]).replace("//", "//" + url_login)
    told = fetchrig.ends(f"get -o - {line}/a.bin", complaint, CONTENT, env=env)
    assert not told or "s3cret" not in told


def sized(number, body):
    return [ASK, response(headers=f"Content-Length: {number}\r\n", body=body)]


def chunked(body):
    return [ASK, response(headers="Transfer-Encoding: chunked\r\n", body=body)]


@pytest.mark.parametrize("script, options, outcome", [
    (sized(10, b"four"), "", "ended after 4 of 10 bytes"),
    (chunked(b"9\r\nfour"), "", "code -8"),
    ([ASK, b"HTTP/1.1 200 OK\r\nContent-Le"], "", "ends inside its header"),
    (sized(10, b"four") + [reset], "", "the connection broke: Connection reset by peer (code -1)"),
    (sized(10, b"four") + [stall], "--timeout 1", "no answer within 1 s (code -8)"),
    ([ASK], "", "closed the connection without an answer (code -5)"),
    ([ASK, b"SSH-2.0-x\r\n"], "", "not HTTP (code -5)"),
    (chunked(b"b\r\n12345678901\r\n0\r\n\r\n"), "--max-size 10", "larger than the limit of 10 bytes"),
    ([ASK, response(body=b"1234567890")], "--max-size 10", "announced no length"),
    ([ASK, response("307 Temporary", "Location: /b\r\n")], "", "the server answered 307 (temporary redirect)"),
    (sized(10, b"1234567890"), "--max-size 10", b"1234567890"),
    (chunked(b"a\r\n1234567890\r\n0\r\n\r\n"), "--max-size 10", b"1234567890"),
    ([ASK, response(body=b"123456789")], "--max-size 10", b"123456789"),
    ([ASK, response("204 No Content")], "--max-size 10", b""),
])
def test_what_comes_whole_is_kept_and_of_the_rest_the_cause_is_named(fetchrig, peer, script, options, outcome):
    url = f"http://{peer(script).address}/a"
    fetchrig.write("out", "old")
    fails = isinstance(outcome, str)
    told = fetchrig.ends(f"get -o out {options} {url}", outcome if fails else None)
    assert fetchrig.files() == {"out": b"old" if fails else outcome} and (not fails or url in told)


@pytest.mark.parametrize("wanted_ca, script, complaint", [
    ("stranger", [], '"certificate required"'), (None, sized(10, b"four") + [stall], "no answer within 1 s (code -1)"),
])
def test_what_tls_servers_do_late(fetchrig, peer, places, wanted_ca, script, complaint):
    server = peer(script, tls=tls_server(places["good"], wanted_ca and places[wanted_ca]))
    fetchrig.fails(f"get --timeout 1 --ca-dir {{ca}} https://{server.address}/a", complaint)
    assert fetchrig.files() == {}


@pytest.mark.parametrize("script, parts", [
    ([b"220 hi\r\n", until(b"\r\n"), reset], ["the connection broke: Connection reset by peer (code -8)"]),
    ([b"220 " + b"x" * 600 + b"\r\n"], ["FTP reply is too long (code -1"]),
    ([b"220-\r\n" * 12000], ["FTP reply is too long (code -8"]),
    ([b"500 \x1b[2Jgo\x9b away\r\n"], ["code -15", "\\x1b[2Jgo\\x9b away"]),
])
def test_what_ftp_servers_do_wrong_is_told_and_cannot_steer_the_terminal(fetchrig, peer, script, parts):
    told = fetchrig.fails(f"get ftp://{peer(script).address}/x", *parts)
    assert not set("\x1b\x9b\udc9b") & set(told)


def test_a_url_without_a_scheme_is_explained(fetchrig, places):
    host = places["tftp"].removeprefix("tftp://")
    fetchrig.fails("get {host}/none", "TFTP error 1) (code -8)", f"did you mean http://{host}/none", host=host)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGUSR1, signal.SIGALRM])
def test_an_interrupted_download_leaves_nothing(fetchrig, peer, number):
    server = peer(sized(200000, CONTENT[:100000]) + [stall])
    words = fetchrig.words(f"get --ca-file {{root}} http://{server.address}/a", {})
    with tempfile.TemporaryDirectory() as temporary:
        command = subprocess.Popen(words, cwd=fetchrig.work, env={**os.environ, "TMPDIR": temporary})
        wait_for(fetchrig.files)
        assert os.listdir(temporary)
        command.send_signal(number)
        assert command.wait(20) == -number
        assert fetchrig.files() == {} and os.listdir(temporary) == []


CHALLENGE = response("401 Unauthorized", 'WWW-Authenticate: Basic realm="x"\r\nContent-Length: 0\r\n')


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


def test_the_log_is_told_when_asked_for(fetchrig, peer):
    ended = fetchrig.run(f"get -vv -o - http://{peer([ASK, OK]).address}/a")
    assert (ended.stdout, ended.returncode) == (b"ok", 0)
    assert "HTTP: response code: 200\n" in ended.stderr
