# SPDX-License-Identifier: MIT
"""What the command says and how it ends when nothing is transferred: wrong usage, help, rings; and the talk with a
person at a terminal."""
import json
import threading

import pexpect
import pytest
from conftest import BINARY, LIMIT_S, response, sized, until

URL = "http://127.0.0.1:1/a"  # refused connections would end in 1


@pytest.mark.parametrize("line, complaint", [
    ("", "subcommand"), ("get", "URL is required"), (f"gett --wrong=5 {URL}", 'unknown option "--wrong"\n'),
    (f"gett {URL}", 'unknown subcommand "gett"\n'), (f"cert lst {URL}", 'unknown subcommand "lst"\n'),
    (f"put a {URL} c", 'unexpected word "c"\n'), (f"get -o '' {URL}", "name of a file"),
    ("get http://127.0.0.1:1/..", "names no file"),
    ("get gopher://127.0.0.1/a", "only http, https, ftp, ftpes and tftp"), ("get http:///a", "no host"),
    ("get http:/127.0.0.1/a", "two slashes"), (f"get --json -o /dev/fd/1 {URL}", "both need standard output"),
    ("get ftp://:secret@127.0.0.1/a", "no user name"),
    ("get 'http://127.0.0.1/a\r\nX: y'", "control characters"),
    (f"get --sha256 {'0' * 63} {URL}", "64 hexadecimal digits"),
    (f"get --timeout 0 {URL}", "--timeout"), (f"get --classic --max-size 4G {URL}", "--max-size"),
    (f"get --header 'A: b\r\nC: d' {URL}", "--header"), (f"get --auth ntlm {URL}", "--auth"),
    ("get --header 'A: b' ftp://127.0.0.1/a", "--header"),
    (f"get --proxy {URL} ftp://127.0.0.1/a", "--proxy"), (f"get --proxy socks5://a {URL}", "begins with http://"),
    (f"get --proxy u:p@a:99999 {URL}", "the proxy is wrong: http://a:99999"),
    (f"get --retry-delay nan {URL}", "--retry-delay"), (f"get --classic --proxy {URL} https://127.0.0.1/a", "--proxy"),
    (f"get --config a {URL}", "before the subcommand"), (f"get --timeout '\x1b[31m' {URL}", r"\x1b[31m"),
    (f"get --cert missing.pem {URL}", "missing.pem"),
    (f"get --ca-dir missing {URL}", "missing is not a directory"),
    (f"get --option user-agent={'d' * 512} {URL}", "too long"),
    (f"get --option colour=red {URL}", "colour"), (f"get --option net-timeout=61 {URL}", "net-timeout"),
    (f"put --append s.txt {URL}", "--append"), ("put --append s.txt tftp://127.0.0.1/a", "--append is for ftp"),
    (f"put --name no s.txt {URL}", "--name"), ("put --name 'a\tb' s.txt ftp://127.0.0.1/x", "control characters"),
    ("put --method post s.txt ftp://127.0.0.1/x", "--method"),
    (f"put --method post --header 'Content-Type: text/plain' s.txt {URL}", "boundary="),
    (f"ring x --entry {'n' * 126}=1", "--entry"), ("cert list", "--store"), ("cert device show", "--device-cert"),
])
def test_wrong_usage(fetchrig, line, complaint):
    fetchrig.write("s.txt", "short")
    fetchrig.fails(line, complaint, "--help", status=2, shell='unset FETCHRIG_STORE FETCHRIG_DEVICE_CERT; exec "$@"')


def test_help_and_version(fetchrig):
    fetchrig.fails("--help", "standard output cannot be written", shell='exec "$@" >/dev/full')
    fetchrig.done("--version", b"fetchrig 5.3.0.4\n")
    told = fetchrig.run("cert device install --help")
    assert told.returncode == 0 and told.stdout.count(b"  fetchrig ") == 2 and b"Environment" not in told.stdout


@pytest.mark.parametrize("line, number", [
    ("Bellcore-dr3", 3), ("unknown --name ringtone-5", 5), ("'Door Bell' --entry 'door bell=7' --entry x=1", 7),
    ("a=b --entry a=b=0", 0), ("bell --option ring-entry=9:4:Bell", 4),
    ("http://127.0.0.1/x.wav --name MyMelody2", 2), ("unknown", None),
])
def test_rings(fetchrig, line, number):
    told = fetchrig.run(f"ring {line}")
    status, words = (1, b"") if number is None else (0, f"ring {number}\n".encode())
    assert (told.returncode, told.stdout) == (status, words)
    answer = json.loads(fetchrig.run(f"ring {line} --json").stdout)
    assert (answer["ok"], answer["number"], answer["file"]) == (number is not None, number, None)


@pytest.fixture
def terminal(fetchrig):
    """Starts the command on a terminal of its own."""
    return lambda line: pexpect.spawn(BINARY, fetchrig.words(line, {})[1:], cwd=fetchrig.work, timeout=LIMIT_S)


def screen_and_status(shown):
    screen = shown.read()
    shown.close()
    return screen, shown.exitstatus


@pytest.mark.parametrize("options, leaves", [("-q -o a", b""), ("-o -", b"ok")])
def test_no_progress_is_shown_when_nobody_asks_or_the_file_is_shown(terminal, peer, options, leaves):
    server = peer(sized(2, b"ok"))
    assert screen_and_status(terminal(f"get {options} http://{server.address}/a")) == (leaves, 0)


@pytest.mark.parametrize("options", ["", "--continue"])
def test_progress_on_a_terminal_tells_of_a_stall(fetchrig, terminal, peer, options):
    seen = threading.Event()
    half = b"x" * (1 << 20)
    fetchrig.write("a.fetchrig/whole.part", half)  # of another source, which does not count
    fetchrig.write("a.fetchrig/whole.part.info", "fetchrig part 1\nurl x\nvalidator x\nsize 1\n")
    server = peer(sized(2 << 20, half) + [lambda _: seen.wait(LIMIT_S), half])
    shown = terminal(f"get {options} -o a http://{server.address}/a")
    shown.expect(rb"50% of 2\.0 MiB  stalled for 2 s")
    seen.set()
    screen, status = screen_and_status(shown)
    assert status == 0 and b"a: 2.0 MiB in " in screen and (fetchrig.work / "a").read_bytes() == half + half


def test_progress_of_an_upload_is_what_has_arrived(fetchrig, terminal, peer):
    fetchrig.write("big", b"x" * (32 << 20))
    seen = threading.Event()

    def take(count):
        def step(slow):
            missing = count - len(slow.received.pop().partition(b"\r\n\r\n")[2])
            while missing > 0:
                missing -= len(slow.connection.recv(min(missing, 1 << 20)))
            slow.received.append(b"")
        return step

    server = peer([until(b"xxxx"), take(8 << 20), lambda _: seen.wait(LIMIT_S), take(24 << 20),
                   response("201 Created", "Content-Length: 0\r\n")])
    shown = terminal(f"put big http://{server.address}/a")
    shown.expect(rb"[1-9]\d?% of 32\.0 MiB  [\d.]+ [KM]iB/s  [\dmin ]+s left")
    seen.set()
    screen, status = screen_and_status(shown)
    assert status == 0 and b"big: sent 32.0 MiB in " in screen


@pytest.mark.parametrize("typed, status, shows", [
    ("wrong\x15s3crex\x7ft\n", 0, b"KiB in"), ("s3\x03", 6, b"no password given"),
])
def test_a_password_is_asked_for_without_echo(fetchrig, terminal, typed, status, shows):
    talk = terminal("get --user phone -o a {http}/private/a.bin")
    talk.expect_exact("Password for phone: ")
    talk.delaybeforesend = None
    talk.send(typed)
    screen, ended = screen_and_status(talk)
    assert ended == status and shows in screen
    assert b"wrong" not in screen and b"s3" not in screen
    assert (fetchrig.work / "a").exists() == (status == 0)
