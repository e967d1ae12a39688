# SPDX-License-Identifier: MIT
"""What the command's tests share: the built command in a working directory of its own, real servers that start when a
test names them, and scripted ones. FETCHRIG is the path of the command."""
import collections
import contextlib
import hashlib
import os
import pathlib
import random
import shlex
import socket
import socketserver
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import warnings

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "scripts"))
import servers  # noqa: E402

BINARY = os.environ["FETCHRIG"]
DEVICE = "device/server/WebServer.pem"
LIMIT_S = 60
PASSWORD = {"FETCHRIG_PASSWORD": "s3cret"}
CONTENT = random.Random(1).randbytes(200000)


def brief(content):
    """What comparisons show: the bytes when they are few, or else their number and digest."""
    return content if len(content) < 1000 else (len(content), hashlib.sha256(content).hexdigest())


class Fetchrig:
    """Runs the command. "{name}" in its words stands for one of the places, or of the names in the call."""

    def __init__(self, work, places):
        self.work, self.places = work, places

    def words(self, line, names):
        return [BINARY, *(word.format_map(collections.ChainMap(names, self.places)) for word in shlex.split(line))]

    def run(self, line, env=(), shell='exec "$@"', **names):
        """The outcome of a command line, which `shell` finds as "$@"."""
        known = {"FETCHRIG_STORE": "store", "FETCHRIG_DEVICE_CERT": DEVICE, "HOME": self.work, "XDG_CONFIG_HOME": "",
                 "http_proxy": "", "https_proxy": "", "HTTPS_PROXY": "",
                 "all_proxy": "", "ALL_PROXY": "", "no_proxy": ""}
        words = ["sh", "-c", shell, "sh", *self.words(line, names)]
        done = subprocess.run(words, cwd=self.work, env={**os.environ, **known, **dict(env)}, input=b"typed",
                              capture_output=True, timeout=LIMIT_S)
        done.stderr = done.stderr.decode(errors="surrogateescape")
        return done

    def done(self, line, output=b"", **how):
        """It ends well and tells nothing but `output`."""
        ended = self.run(line, **how)
        assert (ended.returncode, ended.stderr, brief(ended.stdout)) == (0, "", brief(output)), ended.stderr

    def fails(self, line, *parts, status=None, **how):
        """It ends with one message, which holds each of `parts`, and no output. Returns the message."""
        ended = self.run(line, **how)
        right = ended.returncode == status if status else ended.returncode not in (0, 2)
        assert (right, ended.stdout, ended.stderr[:10]) == (True, b"", "fetchrig: "), ended
        assert [part for part in parts if part not in ended.stderr] == [], ended.stderr
        return ended.stderr

    def ends(self, line, complaint, output=b"", **how):
        """It fails with the complaint, or, where there is none, it ends well."""
        return self.fails(line, complaint, **how) if complaint else self.done(line, output, **how)

    def files(self):
        """What is in the working directory, by name."""
        return {path.name: brief(path.read_bytes()) for path in self.work.iterdir() if path.is_file()}

    def write(self, name, content):
        (self.work / name).parent.mkdir(parents=True, exist_ok=True)
        (self.work / name).write_bytes(content if isinstance(content, bytes) else content.encode())


class Places(dict):
    """By name: base URLs of servers, which start when they are named; the CA behind HTTPS; certificates with keys."""

    programs = {"http": "nginx", "https": "nginx", "digest": "apache", "ftp": "vsftpd", "ftp_login": "pyftpd",
                "tftp": "atftpd", "lighttpd": "lighttpd", "squid": "squid", "tinyproxy": "tinyproxy"}

    def __init__(self, directory):
        self.place = servers.Place(directory)
        self.served, self.authority, self.running = self.place.root, self.place.authority, []
        issue = self.authority.issue
        super().__init__(
            ca=self.authority.hashed, root=self.authority.file, good=self.place.certificate,
            other=issue("other", "other.example", "DNS:other.example"), expired=issue("expired", days=-1),
            locked=issue("locked", "phone", passphrase="open"),
            stranger=servers.Authority(self.place.directory / "stranger", "stranger").file)
        (self.served / "a.bin").write_bytes(CONTENT)

    def start(self, program, host="127.0.0.1", options=()):
        try:
            self.running.append(servers.start(program, self.place, host, options))
        except servers.Missing as why:
            pytest.skip(str(why))
        return self.running[-1]

    def __missing__(self, name):
        server = self.start(self.programs[name])
        self |= {"https" if scheme == "https" else name: server.url(scheme) for scheme in server.ports}
        return self[name]


def until(mark):
    """A step of a script: what the client sends holds the mark."""
    return lambda peer: peer.read_until(mark)


ASK = until(b"\r\n\r\n")


def stall(peer):
    while peer.connection.recv(4096):
        pass


def reset(peer):
    peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")


class Peer(socketserver.TCPServer):
    """A scripted server. Each connection plays the next script, the last one again and again: bytes are sent, other
    steps are called. `received` has the bytes of each connection."""

    def __init__(self, scripts, tls):
        super().__init__(("127.0.0.1", 0), None)
        self.scripts, self.tls, self.received, self.connection = scripts, tls, [], None
        self.address = f"127.0.0.1:{self.server_address[1]}"

    def finish_request(self, request, _):
        script = self.scripts[min(len(self.received), len(self.scripts) - 1)]
        self.received.append(b"")
        request.settimeout(LIMIT_S)
        with contextlib.suppress(OSError):  # the client has gone
            self.connection = self.tls.wrap_socket(request, server_side=True) if self.tls else request
            with self.connection:
                for step in script:
                    step(self) if callable(step) else self.connection.sendall(step)

    def read_until(self, mark):
        while mark not in self.received[-1]:
            more = self.connection.recv(65536)
            if not more:
                raise OSError("the client has gone")
            self.received[-1] += more


def response(status="200 OK", headers="", body=b""):
    return f"HTTP/1.1 {status}\r\n{headers}\r\n".encode() + body


OK = response(headers="Content-Length: 2\r\n", body=b"ok")
CREATED = response("201 Created", "Content-Length: 0\r\n")
CHALLENGE = response("401 Unauthorized", 'WWW-Authenticate: Basic realm="x"\r\nContent-Length: 0\r\n')


def sized(number, body):
    """A script: an answer of so many bytes, of which these come."""
    return [ASK, response(headers=f"Content-Length: {number}\r\n", body=body)]


def chunked(body):
    return [ASK, response(headers="Transfer-Encoding: chunked\r\n", body=body)]


def ftp_store(verdict):
    """A script: an FTP server that takes a file and says this of it."""
    data = socket.create_server(("127.0.0.1", 0))
    port = data.getsockname()[1]

    def take(_):
        with data.accept()[0] as sender:
            while sender.recv(65536):
                pass

    steps = {b"USER": b"331", b"PASS": b"230", b"TYPE": b"200",
             b"PASV": b"227 (127,0,0,1,%d,%d)" % divmod(port, 256), b"SIZE": b"550", b"STOR": b"150"}
    talk = [step for word, reply in steps.items() for step in (until(word), reply + b" x\r\n")]
    return [b"220 hi\r\n", *talk, take, verdict, stall]


def tls_server(certificate, ca_file=None, oldest=ssl.TLSVersion.TLSv1_2):
    """How a scripted server talks TLS; with `ca_file` it wants a client certificate."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # versions that are out of fashion
        context.minimum_version = oldest
    context.set_ciphers("DEFAULT:@SECLEVEL=0")
    context.load_cert_chain(certificate)
    if ca_file:
        context.verify_mode = ssl.CERT_REQUIRED
        context.load_verify_locations(ca_file)
    return context


def wait_for(happened, limit_s=20):
    limit = time.monotonic() + limit_s
    while not happened():
        assert time.monotonic() < limit
        time.sleep(0.01)


def arrived(path, size):
    """The whole of a file, once it is there: a TFTP server may acknowledge the last block before it has written it."""
    wait_for(lambda: path.exists() and path.stat().st_size >= size)
    return brief(path.read_bytes())


@pytest.fixture(scope="session")
def places():
    with tempfile.TemporaryDirectory() as directory:
        places = Places(directory)
        yield places
        for server in places.running:
            server.stop()


@pytest.fixture
def fetchrig(places):
    with tempfile.TemporaryDirectory(prefix="server") as directory:  # a word that must count in typed paths only
        yield Fetchrig(pathlib.Path(directory), places)


@pytest.fixture
def peer():
    """Starts a scripted server, which stops with the test."""
    started = []

    def start(*scripts, tls=None):
        started.append(Peer(scripts, tls))
        threading.Thread(target=started[-1].serve_forever, args=[0.01], daemon=True).start()
        return started[-1]

    yield start
    for server in started:
        server.shutdown()
        server.server_close()


def pytest_terminal_summary(terminalreporter):
    for report in terminalreporter.stats.get("skipped", []):
        terminalreporter.write_line(report.longrepr[2].replace("Skipped", "SKIPPED"))
