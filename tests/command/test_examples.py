# SPDX-License-Identifier: MIT
"""The programs of examples/, each at its task with real servers, and at one failure."""
import pathlib
import struct

import pytest
from conftest import ASK, BINARY, CONTENT, arrived, brief, response, tls_server, until

EXAMPLES = pathlib.Path(BINARY).with_name("examples")
WAVE = b"RIFF\0\0\0\0WAVEfmt " + struct.pack("<IHHIIH", 18, 7, 1, 8000, 8000, 1) + bytes(100)


@pytest.mark.skipif(not EXAMPLES.is_dir(), reason="the examples are not built")
@pytest.mark.parametrize("line, status, told", [
    ("get {https}/a.bin got {ca}", 0, ""), ("get {http}/none got", 1, ": 404 "),
    ("get {https}/a.bin got /usr", 1, "cause 7, 20 "),  # trusting nobody
    ("download {https}/a.bin got {ca}", 0, "200000 of 200000 bytes"), ("download {http}/chunked/a.bin got", 0, ""),
    ("download {ftp}/a.bin got", 0, "200000 of 200000 bytes"), ("download {tftp}/a.bin got", 0, "200000 bytes"),
    ("download {cut} got", 1, "ended early"),
    ("client_certificate {mutual} got {good} {ca}", 0, 'I am "127.0.0.1"'),
    ("client_certificate {mutual} got {locked} {ca}", 1, "no private key"),
    ("upload sent {https}/upload/got-https put {ca}", 0, ""), ("upload sent {ftp}/upload/got-ftp", 0, ""),
    ("upload sent {tftp}/upload/got-tftp", 0, ""), ("upload sent {form} post", 0, ""),
    ("upload sent {http}/got", 1, ": 405 "),
    ("credentials {digest}/a.bin text logins", 0, "status 200"), ("credentials {digest}/a.bin text bad", 1, ": -11 "),
    ("for i in 'install ca.pem' list 'remove ca.pem'; do trust_store $PWD/store $i || exit; done", 0, "root, by root"),
    ("for i in 1 2; do trust_store $PWD/store install ca.pem; done", 1, "installed already"),
    ("certificate {good} {ca}", 0, ": trusted"), ("certificate {expired} {ca}", 1, "code 5; problem 10"),
    ("ring 'Door Bell'", 0, "ring 7"), ("ring unknown {ca}", 1, "default"),
    ("ring {ringing}/ring.wav >path && rm $(sed 's/play //' path)", 0, ""),
    ("threads {ca} {http}/a.bin {https}/a.bin {ftp}/a.bin", 0, "[3] "),
    ("threads {ca} {http}/none", 1, "none: 0 bytes, failed"),
])
def test_examples(fetchrig, places, peer, line, status, told):
    mutual = tls_server(places["good"], places["root"])
    for name, *script, tls in [("cut", ASK, response(headers="Content-Length: 9\r\n", body=b"short"), None),
                               ("form", until(b"--\r\n"), response(), None),
                               ("mutual", ASK, response(body=CONTENT), mutual)]:
        if f"{{{name}}}" in line:
            places[name] = f"http{'s' if tls else ''}://{peer(script, tls=tls).address}/"
    places["ringing"] = places["http"].replace("127.0.0.1", "localhost")  # the address alone asks for no file
    (places.served / "ring.wav").write_bytes(WAVE)
    for name, content in {"sent": CONTENT, "logins": "phone wrong\nphone s3cret\n", "bad": "phone wrong\n",
                          "ca.pem": places["root"].read_bytes()}.items():
        fetchrig.write(name, content)
    ended = fetchrig.run("", shell=f"PATH={EXAMPLES}:$PATH; {line.format_map(places)}")
    both = ended.stdout.decode(errors="replace") + ended.stderr
    assert (ended.returncode, told in both) == (status, True), both
    place, _, name = line.split()[2].rpartition("/")
    if status == 0 and "got" in name:
        assert arrived((places.served / "upload" if place else fetchrig.work) / name, len(CONTENT)) == brief(CONTENT)
    assert status == 0 or "got" not in fetchrig.files()
