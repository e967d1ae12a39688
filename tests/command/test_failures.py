# SPDX-License-Identifier: MIT
"""How get and put end when a transfer fails: in the status of its class, with the cause in words and in JSON, and with
every file as it was."""
import json

import pytest
from conftest import ASK, CHALLENGE, reset, response, sized, stall, until

HERE = "http://{peer}/a"
PUT = until(b"short")
HELLO = b"220 hi\r\n"


@pytest.mark.parametrize("line, script, status, told", [
    ("get ftp://127.0.0.1:99999/x", [], 2, "ftp://127.0.0.1:99999/x: the host or the port is wrong (code -9)"),
    ("get tftp://[::1]/x", [], 2, "--ipv6 (code -13)"),
    ("get http://127.0.0.1:1/x", [], 3, "connection refused"),
    (f"get --timeout 1 {HERE}", [ASK, stall], 4, "no answer within 1 s"),
    (f"get --timeout 1 {HERE}", sized(10, b"four") + [stall], 4, "no answer within 1 s (code -8)"),
    ("get --timeout 1 {peer}/a", [], 4, "no TFTP server answered in time ... did you mean http://"),
    ("put --timeout 1 s.txt tftp://{peer}/a", [], 4, "no TFTP server answered in time (code -8)"),
    ("get https://{peer}/a", [b"SSH-2.0-x\r\n"], 5, "TLS failed: wrong version number, is there a TLS server?"),
    (f"get {HERE}", [ASK, CHALLENGE], 6, "login needed"),
    ("put --user u --password p s.txt {ftp_login}/x", [], 6, "does not take this user name and password (code -19)"),
    ("get --user u --password p ftp://{peer}/x", [HELLO, until(b"\n"), b"530 no\r\n"], 6, "take this user name (code"),
    ("get {http}/none", [], 7, "the server answered 404 (not found)"),
    ("get {ftp}/none", [], 7, "550 "),
    ("get {tftp}/none", [], 7, "TFTP error 1) (code -8)"),
    ("get ftp://{peer}/x", [b"500 \x1b[2Jgo\x9b away\r\n"], 7, "500 \\x1b[2Jgo\\x9b away (code -15)"),
    (f"get {HERE}", [ASK, response("300 Which", "Location: /b\r\n")], 7, "answered 300 (multiple choices)"),
    (f"put s.txt {HERE}", [PUT, response("308 P", "Location: /b\r\nContent-Length: 0\r\n")], 7, "too many redirects"),
    ("put s.txt {ftp}/no/such/dir", [], 7, "the server answered 553 (name not allowed)"),
    (f"get --max-size 1 {HERE}", sized(2, b"ok"), 8, "larger than the limit of 1 bytes"),
    (f"get --classic --max-size 10 {HERE}", [ASK, response(body=b"1234567890")], 8, "announced no length"),
    (f"get --max-size 10 {HERE}", [ASK, response(body=b"12345678901")], 8, "larger than the limit of 10 bytes"),
    (f"get --max-size 5G {HERE}", sized(5 * 2**30 + 1, b""), 8, "larger than the limit of 5368709120 bytes"),
    (f"put --max-size 1 s.txt {HERE}", [], 8, "larger"),
    (f"put --max-size 1 - {HERE}", [], 8, "standard input is larger"),
    ("get http://{peer}/d", sized(2, b"ok"), 9, "d is a directory"),
    (f"get -o missing/x {HERE}", sized(2, b"ok"), 9, "missing/x ... No such file"),
    (f"put missing {HERE}", [], 9, "missing: No such file"),
    (f"put /tmp {HERE}", [], 9, "not a regular file"),
    (f"get {HERE}", [ASK, response("206 Part", "Content-Length: 2\r\n", b"ok")], 10, "206"),
    (f"get {HERE}", [ASK, b"SSH-2.0\r\n"], 10, "not HTTP (code -5)"),
    (f"get {HERE}", [ASK], 10, "closed the connection without an answer (code -5)"),
    (f"get {HERE}", [ASK, b"HTTP/1.1 200 OK\r\nContent-Le"], 10, "ends inside its header"),
    (f"get --classic {HERE}", [ASK, response("308 P", "Location: /b\r\n")], 7, "answered 308 (permanent redirect)"),
    (f"get --classic {HERE}", sized(10, b"four"), 10, "ended after 4 of 10 bytes"),
    (f"get {HERE}", sized(10, b"four"), 10, "ended before the whole file had come"),
    (f"get {HERE}", sized(10, b"four") + [reset], 10, "the connection broke: Connection reset by peer (code -8)"),
    ("get ftp://{peer}/x", [HELLO, until(b"\n"), reset], 10, "broke: Connection reset by peer (code -8)"),
    ("get ftp://{peer}/x", [b"220 " + b"x" * 600 + b"\r\n"], 10, "FTP reply is too long (code -1"),
    ("get ftp://{peer}/x", [b"220-\r\n" * 12000], 10, "FTP reply is too long (code -8"),
    (f"get --sha256 {'0' * 64} {HERE}", sized(2, b"ok"), 11, "SHA-256"),
])
def test_the_status_is_that_of_the_class_and_the_cause_is_named(fetchrig, peer, line, script, status, told):
    fetchrig.write("s.txt", "short")
    fetchrig.write("a", "old")
    (fetchrig.work / "d").mkdir()
    ended = fetchrig.run(f"{line} --json", peer=peer(script).address)
    answer = json.loads(ended.stdout)
    assert (ended.returncode, answer["exit"], answer["ok"]) == (status, status, False), ended
    assert [part for part in told.split(" ... ") if part not in answer["message"]] == [], answer
    assert ended.stderr == f"fetchrig: {answer['message']}\n" and not set("\x1b\x9b\udc9b") & set(ended.stderr)
    assert fetchrig.files() == {"s.txt": b"short", "a": b"old"}
