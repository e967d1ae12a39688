# SPDX-License-Identifier: MIT
"""What get and put have in common: what they answer in JSON, when they try again, what they take from the user's
surroundings, and the names of files."""
import json
import os
import re

import pytest
from conftest import ASK, CHALLENGE, CONTENT, CREATED, OK, arrived, brief, ftp_store, response, until

BUSY = response("503 Busy", "Content-Length: 0\r\n")
GONE = response("404 Gone", "Content-Length: 0\r\n")
CUT = response(headers="Content-Length: 9\r\n", body=b"half")
HERE = "http://{peer}/a"


def test_answers_in_json(fetchrig, places):
    def ask(line):
        ended = fetchrig.run(f"{line} --json --ca-dir {{ca}}")
        return [json.loads(each) for each in ended.stdout.splitlines()]

    came, refused, absent = ask("get {http}/to-https/a.bin {http}/none {ftp}/not%20there")
    assert (came["ok"], came["code"], came["status"], came["file"]) == (True, 0, 200, "a.bin")
    assert (came["bytes"], came["final_url"]) == (len(CONTENT), places["https"] + "/a.bin")
    assert came["seconds"] > 0 and (refused["ok"], refused["code"], refused["status"]) == (False, 404, 404)
    assert (absent["code"], absent["status"], absent["url"]) == (-15, 550, places["ftp"] + "/not%20there")
    sent, = ask("put a.bin {http}/upload/j")
    assert (sent["ok"], sent["status"], sent["bytes"]) == (True, 201, len(CONTENT))


@pytest.mark.parametrize("line, scripts, status, tries", [
    (f"get {HERE}", [[ASK, BUSY], [ASK, CUT], [ASK, OK]], 0, 3),
    (f"get {HERE}", [[ASK, BUSY]], 7, 4),
    (f"get {HERE}", [[ASK, GONE]], 7, 1),
    (f"get {HERE}", [[ASK, CHALLENGE]], 6, 1),
    (f"get {HERE}", [[ASK, response("302 F", "Location: /\x01\r\nContent-Length: 0\r\n")], [ASK, CHALLENGE]], 6, 2),
    (f"get -o missing/x {HERE}", [[ASK, OK]], 9, 1),
    ("get https://{peer}/a", [[until(b"\x16")]], 5, 4),  # TLS is ended without a word
    (f"get -o - {HERE}", [[ASK, CUT]], 10, 1),  # what went to a pipe cannot be taken back
    ("get ftp://{peer}/a", [[b"421 later\r\n"], [b"500 no\r\n"]], 7, 2),
    (f"put - {HERE}", [[until(b"typed"), BUSY], [until(b"typed"), CREATED]], 0, 2),
    ("put s.txt ftp://{peer}/a", [ftp_store(b"452 quota\r\n"), ftp_store(b"552 quota\r\n")], 7, 2),
    (f"put --method post s.txt {HERE}", [[until(b"--\r\n"), BUSY]], 7, 1),
])
def test_what_may_pass_is_tried_again(fetchrig, peer, line, scripts, status, tries):
    fetchrig.write("s.txt", "short")
    server = peer(*scripts)
    ended = fetchrig.run(f"{line} --retry 3 --retry-delay 0.01", peer=server.address)
    assert (ended.returncode, len(server.received)) == (status, tries), ended
    assert status or "get" not in line or fetchrig.files()["a"] == b"ok"


def test_waits_grow_and_are_random(fetchrig):
    ended = fetchrig.run("get -v --retry 7 --retry-delay 0.02 http://127.0.0.1:1/x")
    waits = [float(wait) for wait in re.findall(r"trying again in (\S+) s", ended.stderr)]
    limits = [0.02 * 2 ** number for number in range(7)]
    assert len(waits) == 7 and all(wait <= limit + 0.005 for wait, limit in zip(waits, limits))
    assert max(waits) > 0.04 and any(wait < 0.9 * limit for wait, limit in zip(waits, limits))


@pytest.mark.parametrize("path, name", [
    ("a%20b%zz", "a b%zz"), ("x/%2e%2e%2fetc", "_._etc"), (".profile?q=%2f", "_profile"), ("%1B[2J%C2%9B", "_[2J__"),
    ("gr%C3%BC%C3%9Fe", "grüße"), ("%2d", "-"),
])
def test_saved_names_are_decoded_and_safe(fetchrig, peer, path, name):
    fetchrig.done(f"get http://{peer([ASK, OK]).address}/{path}")
    assert fetchrig.files() == {name: b"ok"}


@pytest.mark.parametrize("scheme", ["ftp", "tftp"])
def test_names_with_spaces_are_reached(fetchrig, places, scheme):
    fetchrig.write("s.txt", "short")
    fetchrig.done(f"put s.txt {{{scheme}}}/upload/{scheme}%20%23s")
    assert arrived(places.served / f"upload/{scheme} #s", 5) == b"short"
    (places.served / "with space").write_bytes(b"spaced")
    fetchrig.done(f"get {{{scheme}}}/with%20space")
    assert fetchrig.files()["with space"] == b"spaced"
    fetchrig.fails(f"get '{{{scheme}}}/a.bin?'", '"?"', status=2)
    fetchrig.fails(f"get {{{scheme}}}/a%0d%0aDELE%20b", "control characters", status=2)


def test_several_files_and_what_is_there_already(fetchrig, places):
    (fetchrig.work / "to").mkdir()
    assert fetchrig.run("get -o to/ {http}/none {ftp}/a.bin http://127.0.0.1:1/b").returncode == 7
    got = fetchrig.work / "to/a.bin"
    assert brief(got.read_bytes()) == brief(CONTENT)
    fetchrig.fails("get -o to/ {http}/a.bin {ftp}/a.bin", "two URLs", status=2)
    got.write_bytes(b"old")
    right, wrong = brief(CONTENT)[1].upper(), "0" * 64
    fetchrig.fails(f"get -o to/ --no-clobber --sha256 {right} {{http}}/a.bin", "SHA-256", status=11)
    fetchrig.fails(f"get -o to/ --sha256 {wrong} {{http}}/a.bin", "SHA-256", status=11)
    fetchrig.done("get -o to/ --no-clobber {http}/a.bin")
    (fetchrig.work / "link").symlink_to("none")
    fetchrig.fails("get -o link --no-clobber {http}/a.bin", "link to nothing", status=9)
    assert os.listdir(got.parent) == ["a.bin"] and got.read_bytes() == b"old"
    os.utime(places.served / "a.bin", (1, 1e9))
    fetchrig.done(f"get -o to/ --remote-time --sha256 {right} {{http}}/a.bin")
    assert (brief(got.read_bytes()), got.stat().st_mtime) == (brief(CONTENT), 1e9)


NETRC = """# login in a comment
machine other.example login u password p
macdef init
machine 127.0.0.1 login macro password m

machine 127.0.0.1 login "a b" password "p\\"#"
default login d password e
"""


def guarded(token, then):
    """A script that challenges who has not the login."""
    return [ASK, lambda peer: peer.connection.sendall(then if b"Basic " + token in peer.received[-1] else CHALLENGE)]


@pytest.mark.parametrize("options, mode, sent", [
    ("", 0o600, b"YSBiOnAiIw=="), ("--user d", 0o600, b"ZDpl"), ("--no-env", 0o600, None), ("", 0o640, None),
])
def test_logins_of_netrc(fetchrig, peer, options, mode, sent):
    fetchrig.write(".netrc", NETRC)
    (fetchrig.work / ".netrc").chmod(mode)
    server = peer(guarded(sent or b"-", OK))
    ended = fetchrig.run(f"get -o - {options} http://{server.address}/a")
    assert (ended.returncode, ended.stdout) == ((0, b"ok") if sent else (6, b"")), ended
    assert sent or b"YSBi" not in b"".join(server.received)
    assert ("others have access" in ended.stderr) == (mode != 0o600)


def test_a_login_of_netrc_follows_no_redirect(fetchrig, peer):
    fetchrig.write(".netrc", NETRC)
    (fetchrig.work / ".netrc").chmod(0o600)
    other = peer([ASK, CHALLENGE])
    moved = response("302 Found", f"Location: http://{other.address}/b\r\nContent-Length: 0\r\n")
    server = peer(guarded(b"YSBiOnAiIw==", moved))
    fetchrig.fails(f"get http://{server.address}/a", "~/.netrc is for this host alone", status=7)
    assert other.received == []


def test_a_netrc_that_is_no_file_is_passed_over(fetchrig):
    (fetchrig.work / ".netrc").mkdir()
    ended = fetchrig.run("get -o - {ftp}/a.bin")
    assert ended.stdout == CONTENT and "no regular file" in ended.stderr


@pytest.mark.parametrize("variable, options, no_proxy, proxied", [
    ("http_proxy", "", "", True), ("all_proxy", "", "example.com, x.invalid:8080", True),
    ("ALL_PROXY", "", "a, .INVALID", False), ("http_proxy", "", "*", False), ("http_proxy", "", "x.invalid:80", False),
    ("http_proxy", "--ipv6 http://[::1]:1/a", "[::1]:1, x.invalid", False),
    ("http_proxy", "--no-env", "", False), ("http_proxy", "--proxy ''", "", False), ("https_proxy", "", "", False),
])
def test_the_proxy_of_the_environment(fetchrig, peer, variable, options, no_proxy, proxied):
    server = peer([ASK, OK])
    proxy = "HTTP://" * (variable == "all_proxy") + server.address
    ended = fetchrig.run(f"get -o - {options} http://x.invalid/a",
                         env={variable: proxy, "no_proxy": no_proxy, "HTTP_PROXY": "127.0.0.1:1"})
    assert (ended.stdout, ended.returncode) == ((b"ok", 0) if proxied else (b"", 3)), ended


@pytest.mark.parametrize("content, status, with_option", [
    ("[get]\nmax-size = 10\n[cert.list]\njson = true\n", 8, 0), ("[get]\ncolour = red\n", 2, 2),
    ("[get]\ntimeout = 99\n", 2, 2), (f"[get]\nsha256 = {'0' * 64}#\n", 2, 2), ("[get]\nheader = a\n", 2, 2),
    ("[get]\nuser = a b # c\npassword = x, #y\nmax-size = 10\n", 8, 0),
])
def test_defaults_of_a_configuration_file(fetchrig, content, status, with_option):
    fetchrig.write("fetchrig.conf", content)
    line = "get -o /dev/null {http}/a.bin"
    by_itself = fetchrig.run(line, env={"XDG_CONFIG_HOME": "."})
    assert (by_itself.returncode, "./fetchrig.conf: " in by_itself.stderr) == (status, status == 2), by_itself
    assert fetchrig.run(f"--config fetchrig.conf {line}").returncode == status
    assert fetchrig.run(f"--config fetchrig.conf {line} --max-size 1M").returncode == with_option
    fetchrig.done("--config fetchrig.conf --version", b"fetchrig 5.3.0.4\n")
    (fetchrig.work / "d/fetchrig.conf").mkdir(parents=True)
    fetchrig.fails(line, "d/fetchrig.conf: is no file", status=2, env={"XDG_CONFIG_HOME": "d"})


@pytest.mark.parametrize("words, offers", [
    ("", "get put cert ring"), ("cert i", "info install"), ("get --tl", "--tls-method"), ("put --method ", "put post"),
    ("get -o ", ""), ("cert device install-", "install-part"),
])
def test_shells_are_told_what_may_come(fetchrig, words, offers):
    script = os.path.join(os.path.dirname(__file__), "../../cli/completion/fetchrig.bash")
    line = f'. {script}; COMP_WORDS=("$0" "$@"); COMP_CWORD=$#; _fetchrig; echo ${{COMPREPLY[@]}}'
    told = fetchrig.run("", shell=f"exec bash -c '{line}' \"$@\"" + "".join(f" '{each}'" for each in words.split(" ")))
    assert told.stdout.decode().split() == offers.split(), told
