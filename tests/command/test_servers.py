# SPDX-License-Identifier: MIT
"""Transfers with real servers, as they understand the protocols: sizes around a block, an empty and a large file, both
ways, with every option that servers negotiate."""
import os

import pytest
from conftest import arrived, brief
from servers import have_ipv6

PHONE = "--user phone --password s3cret"
MIB = 1 << 20
WRAPS = 65537 * 512 + 1  # block numbers start again


@pytest.mark.parametrize("program, host, started_with, options, sizes", [
    ("nginx", "127.0.0.1", [], "", [0, 1, 2 * MIB, 40 * MIB]),
    ("nginx https", "127.0.0.1", ["TLSv1.2"], "", [0, 1, 40 * MIB]),
    ("nginx https", "127.0.0.1", ["TLSv1.3"], "", [0, 1, 2 * MIB, 40 * MIB]),
    ("nginx https", "[::1]", [], "--ipv6", [2 * MIB]),
    ("vsftpd", "127.0.0.1", [], "", [0, 100000, 40 * MIB]),
    ("vsftpd", "127.0.0.1", [], "--ipv6 --user anonymous --password a@b", [100000]),  # EPSV works on IPv4, too
    ("vsftpd", "127.0.0.1", ["tls"], "--ftp-tls", [0, 40 * MIB]),
    ("pureftpd", "127.0.0.1", ["tls"], f"--ftp-tls {PHONE}", [0, 40 * MIB]),
    ("pyftpd", "127.0.0.1", [], PHONE, [0, 100000, 40 * MIB]),
    ("pyftpd", "::1", [], f"--ipv6 {PHONE}", [100000]),
    ("tftpd", "127.0.0.1", [], "", [0, 1432, 1433, 100000]),
    ("tftpd", "127.0.0.1", ["--refuse", "blksize"], "", [0, 512, 513, WRAPS]),
    ("tftpd", "::1", [], "--ipv6", [100000]),
    ("atftpd", "127.0.0.1", [], "--classic", [0, 1432, 1433, 100000]),
    ("atftpd", "127.0.0.1", [], "--tftp-window 64", [0, 1432, 64 * 1432, 10 * MIB]),
    ("atftpd", "127.0.0.1", ["--no-blksize"], "", [0, 512, 513]),
])
def test_files_go_both_ways(fetchrig, places, program, host, started_with, options, sizes):
    if ":" in host and not have_ipv6():
        pytest.skip("no IPv6 here")
    name, _, scheme = program.partition(" ")
    server = places.start(name, "127.0.0.1" if scheme else host, started_with)  # nginx is at home in both families
    base = server.url(scheme or next(iter(server.ports))).replace("127.0.0.1", host)
    remote, local = places.served / "upload/file", fetchrig.work / "file"
    for size in sizes:
        remote.unlink(missing_ok=True)
        local.write_bytes(os.urandom(size))
        sent = brief(local.read_bytes())
        limit = "--max-size 300M --timeout 20 --ca-dir {ca} " + options
        fetchrig.done(f"put {limit} file {base}/upload/file")
        assert arrived(remote, size) == sent
        got = fetchrig.run(f"get -vv {limit} {base}/upload/file")
        assert (got.returncode, arrived(local, size)) == (0, sent), got.stderr
        if "tftp" in name:
            assert ("using blksize 1432" in got.stderr) == (not started_with)
    remote.unlink()


@pytest.mark.parametrize("program, started_with, options, login, validator", [
    ("nginx", [], "", "", '"3b9aca00-300000"'),
    ("vsftpd", [], "", "", "20010909014640"),
    ("vsftpd", ["tls"], "--ftp-tls", "", "20010909014640"),
    ("pureftpd", ["tls"], f"--ftp-tls {PHONE}", "phone@", "20010909014640"),
])
def test_a_download_goes_on_behind_its_part(fetchrig, places, program, started_with, options, login, validator):
    server = places.start(program, options=started_with)
    url = server.url(next(iter(server.ports))) + "/upload/source"
    size, source, waiting = 3 * MIB, places.served / "upload/source", fetchrig.work / "file.fetchrig"
    source.write_bytes(os.urandom(size))
    os.utime(source, (1e9, 1e9))
    for held in [1, 2 * MIB] + [size] * url.startswith("ftp"):
        waiting.mkdir(0o700)
        (waiting / "whole.part").write_bytes(bytes(held))  # another beginning shows that it is kept
        (waiting / "whole.part.info").write_text(
            f"fetchrig part 1\nurl {url.replace('//', '//' + login)}\nvalidator {validator}\nsize {size}\n")
        fetchrig.done(f"get --continue --ca-dir {{ca}} {options} -o file {url}")
        assert fetchrig.files() == {"file": brief(bytes(held) + source.read_bytes()[held:])}
