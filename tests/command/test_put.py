# SPDX-License-Identifier: MIT
"""fetchrig put: every scheme and way of sending, remote names, limits and refusals."""
import email

import pytest
from conftest import CONTENT, CREATED, PASSWORD, arrived, brief, until



@pytest.fixture(autouse=True)
def sources(fetchrig):
    fetchrig.write("up file.bin", CONTENT)
    fetchrig.write("s.txt", "short")


@pytest.mark.parametrize("line, remote", [
    ("{http}/upload/", "up file.bin"), ("--user phone {http}/closed/y", "y"), ("--ca-dir {ca} {https}/upload/z", "z"),
    ("{ftp}/upload/", "up file.bin"), ("--user phone --name upload/n {ftp_login}/", "n"),
    ("{tftp}/upload/", "up file.bin"),
])
def test_every_scheme(fetchrig, places, line, remote):
    path = places.served / "upload" / remote
    path.unlink(missing_ok=True)
    fetchrig.done(f"put 'up file.bin' {line}", env=PASSWORD)
    assert arrived(path, len(CONTENT)) == brief(CONTENT)


@pytest.mark.parametrize("option, content_type", [
    ("", b"Content-Type: application/octet-stream"),
    ("--header 'content-type: text/plain'", b"content-type: text/plain"),
])
def test_a_put_sends_the_file_itself(fetchrig, peer, option, content_type):
    server = peer([until(b"\r\n\r\nshort"), CREATED])
    fetchrig.done(f"put {option} s.txt 'http://{server.address}/d?q=1'")
    lines = server.received[0].split(b"\r\n")
    assert lines[0] == b"PUT /d?q=1 HTTP/1.1"
    assert [line for line in lines if line.lower().startswith(b"content-type")] == [content_type]


def test_a_post_sends_a_form_with_a_boundary_of_its_own(fetchrig, peer):
    server = peer([until(b"--\r\n"), CREATED])
    boundaries = set()
    for number in range(2):
        fetchrig.done(f"put --method post s.txt 'http://{server.address}/d?q=1'")
        line, message = server.received[number].split(b"\r\n", 1)
        assert line == b"POST /d?q=1 HTTP/1.1"
        form = email.message_from_bytes(message)
        assert [part.get_payload() for part in form.get_payload()] == ["short"]
        boundaries.add(form.get_boundary())
    assert len(boundaries) == 2 and len(min(boundaries, key=len)) >= 32


def test_ftp_append_and_the_limit(fetchrig, places):
    log = places.served / "upload/log"
    log.unlink(missing_ok=True)
    for _ in range(2):
        fetchrig.done("put --append 'up file.bin' {ftp}/upload/log")
    assert brief(log.read_bytes()) == brief(CONTENT + CONTENT)
    limited = "put --append --max-size 500000 'up file.bin' {ftp}/upload/log"
    fetchrig.fails(limited, "exceed max file size", "code -15", status=8)
    assert brief(log.read_bytes()) == brief(CONTENT + CONTENT)
    fetchrig.done(limited + " --when-full store")
    assert brief(log.read_bytes()) == brief(CONTENT)
