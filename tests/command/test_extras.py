# SPDX-License-Identifier: MIT
"""What the command does beyond the library's classic ways, with servers and proxies of today."""
import pytest
from conftest import CONTENT

LOGIN = "--user phone --password s3cret"


@pytest.mark.parametrize("path", ["301/a.bin", "302/a.bin", "303/a.bin", "307/a.bin", "308/a.bin", "folder"])
def test_redirects_of_today(fetchrig, places, path):
    (places.served / "folder").mkdir(exist_ok=True)
    (places.served / "folder/index").write_bytes(CONTENT)
    fetchrig.done(f"get -o - {{lighttpd}}/{path}", CONTENT)


def test_digest_with_sha_256_and_hashed_names(fetchrig):
    fetchrig.done(f"get -o - {LOGIN} {{lighttpd}}/private/a.bin", CONTENT)
    fetchrig.fails("get --user phone --password other {lighttpd}/private/a.bin", "login refused", status=6)


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
