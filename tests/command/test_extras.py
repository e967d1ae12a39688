# SPDX-License-Identifier: MIT
"""What the command does beyond the library's classic ways, with servers and proxies of today."""
import hashlib
import json

import pytest
from conftest import ASK, CONTENT, response, sized, until

LOGIN = "--user phone --password s3cret"


@pytest.mark.parametrize("path", ["301/a.bin", "302/a.bin", "303/a.bin", "307/a.bin", "308/a.bin", "folder"])
def test_redirects_of_today(fetchrig, places, path):
    (places.served / "folder").mkdir(exist_ok=True)
    (places.served / "folder/index").write_bytes(CONTENT)
    fetchrig.done(f"get -o - {{lighttpd}}/{path}", CONTENT)


@pytest.mark.parametrize("url", ["{digest}/a.bin", "{lighttpd}/private/a.bin"])  # which hashes names, by SHA-256
def test_digest(fetchrig, url):
    fetchrig.done(f"get -o - {LOGIN} {url}", CONTENT)
    fetchrig.fails(f"get --user phone --password other {url}", "login", status=6)


@pytest.mark.parametrize("proxy", ["squid", "tinyproxy"])
@pytest.mark.parametrize("path", ["{http}/a.bin", "{https}/a.bin", "{http}/to-https/a.bin", "{lighttpd}/303/a.bin",
                                  f"{LOGIN} {{lighttpd}}/private/a.bin"])
def test_proxies(fetchrig, places, proxy, path):
    at = places[proxy].replace("//", "//phone:s3cret@")
    quietly = 'exec "$@" 2>/dev/null'  # a warning tells that a redirect leaves its origin
    fetchrig.done(f"get -o - --ca-dir {{ca}} --proxy {at} {path}", CONTENT, shell=quietly)


@pytest.mark.parametrize("proxy", ["squid", "tinyproxy"])
@pytest.mark.parametrize("scheme", ["http", "https"])
def test_a_proxy_that_refuses(fetchrig, places, proxy, scheme):
    wrong = places[proxy].replace("//", "//phone:other@")
    refused = fetchrig.fails(f"get --proxy {wrong} {{{scheme}}}/a.bin", "login", status=6)
    assert "other" not in refused
    env = {f"{scheme}_proxy": places[proxy]}
    fetchrig.fails(f"get {{{scheme}}}/a.bin", "407 (the proxy wants a login", status=6, env=env)
    # Without its proxy the server answers.
    fetchrig.done(f"get -o - --ca-dir {{ca}} {{{scheme}}}/a.bin", CONTENT, env=env | {"no_proxy": "127.0.0.1"})


TAG = 'ETag: "1"\r\nLast-Modified: Sun, 09 Sep 2001 01:46:40 GMT\r\n'
BEGUN = [ASK, response(headers=TAG + "Content-Length: 10\r\n", body=b"1234")]
REST = [ASK, response("206 Part", TAG + "Content-Range: bytes 4-9/10\r\nContent-Length: 6\r\n", b"567890")]
CHANGED = [ASK, response(headers='ETag: "2"\r\nContent-Length: 3\r\n', body=b"new")]
DIGEST = hashlib.sha256(b"1234567890").hexdigest()


@pytest.mark.parametrize("options, then, status, content", [
    (f"--sha256 {DIGEST}", [REST], 0, b"1234567890"),
    ("--remote-time --show-headers --json", [BEGUN, REST], 0, b"1234567890"),
    ("--retry 1 --retry-delay 0.01", [BEGUN, REST], 0, b"1234567890"), ("", [CHANGED], 0, b"new"),
    (f"--sha256 {DIGEST}", [CHANGED], 11, b"old"), ("--max-size 9", [REST], 8, b"old"), ("", [[ASK]], 10, b"old"),
    ("--no-clobber", [REST], 0, b"old"), ("-o -", [sized(2, b"ok")], 0, b"old"),
])
def test_a_download_that_was_interrupted_goes_on(fetchrig, peer, options, then, status, content):
    """The file is the old one until all of the new one is there and right; the part waits for who goes on."""
    server = peer(BEGUN, *then)
    fetchrig.write("a", "old")
    begun = fetchrig.run("get --continue --json http://{peer}/a", peer=server.address)
    assert (begun.returncode, json.loads(begun.stdout)["bytes"]) == (10, 4), begun
    waiting = fetchrig.work / "a.fetchrig"
    assert (waiting / "whole.part").read_bytes() == b"1234" and fetchrig.files() == {"a": b"old"}
    ended = fetchrig.run(f"get --continue {options} http://{server.address}/a")
    assert (ended.returncode, fetchrig.files()) == (status, {"a": content}), ended
    left_alone = options in ("--no-clobber", "-o -")
    assert waiting.exists() == (status == 10 or left_alone)
    asked = len(server.received) > 1 and "-o" not in options
    assert (b"Range: bytes=4-\r\n" in server.received[-1]) == asked == (b'If-Range: "1"' in server.received[-1])
    assert ((fetchrig.work / "a").stat().st_mtime == 1e9) == ("--remote-time" in options)


def test_a_part_lies_where_nobody_else_writes(fetchrig):
    (fetchrig.work / "a.fetchrig").symlink_to("/tmp")
    fetchrig.fails("get --continue -o a {http}/a.bin", "a.fetchrig is in the way", status=9)
    (fetchrig.work / "a.fetchrig").unlink()
    for url in ("{ftp}", "{tftp}", "{http}"):
        fetchrig.done(f"get --continue -o a {url}/a.bin")
        assert [path.name for path in fetchrig.work.iterdir()] == ["a"]


def test_several_files_of_one_server_come_over_one_connection(fetchrig, peer):
    two = response(headers="Content-Length: 2\r\n", body=b"ok")
    server = peer([ASK, two, until(b"GET /b "), two, until(b"GET /c "), two])
    fetchrig.done(f"get http://{server.address}/a http://{server.address}/b http://{server.address}/c")
    assert fetchrig.files() == {"a": b"ok", "b": b"ok", "c": b"ok"} and len(server.received) == 1
    server = peer(sized(2, b"ok"))
    fetchrig.done("get --classic http://{peer}/a http://{peer}/b", peer=server.address)
    assert len(server.received) == 2
