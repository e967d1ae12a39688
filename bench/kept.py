#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Measures 500 small files from nginx on this machine, over one kept connection and over one connection each, in one
process and one run, through the library's own calls: wall and CPU time, and their ratios. scripts/bench.sh --kept
runs it.

  kept.py LIBRARY
"""
import ctypes
import pathlib
import resource
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TOP / "scripts"))
import servers  # noqa: E402

FILES = 500
BYTES = 1000
KEPT_CONNECTIONS = 12
OPTION_VERIFY_PEER, OPTION_TIMEOUT, OPTION_HTTPS_CA_DIR, OPTION_METHOD = 4, 7, 11, 3
BEST_METHOD = 3


class Request(ctypes.Structure):
    _fields_ = [(name, ctypes.c_char_p) for name in ("url", "user", "password", "proxy")]


class Result(ctypes.Structure):
    _fields_ = [("code", ctypes.c_int32), ("message", ctypes.c_char * 256)]


def seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return time.monotonic(), usage.ru_utime + usage.ru_stime


def fetch_all(library, url, target):
    """Wall and CPU seconds of all files."""
    redirect, result = ctypes.create_string_buffer(512), Result()
    began = seconds()
    for number in range(FILES):
        request = Request(f"{url}/{number}".encode(), None, None, None)
        if library.dl_download(ctypes.byref(request), str(target).encode(), redirect, ctypes.byref(result)) != 0:
            sys.exit(f"{request.url.decode()}: {result.code} {result.message.decode()}")
    return [after - before for before, after in zip(began, seconds())]


def main(library):
    library.dl_config_init()
    library.dl_log_init(0, None)
    for option, value in ((OPTION_VERIFY_PEER, 1), (OPTION_TIMEOUT, 10), (OPTION_METHOD, BEST_METHOD)):
        library.dl_set_option(option, ctypes.byref(ctypes.c_uint32(value)))
    with tempfile.TemporaryDirectory() as directory:
        place = servers.Place(pathlib.Path(directory))
        for number in range(FILES):
            (place.root / str(number)).write_bytes(bytes(BYTES))
        library.dl_set_option(OPTION_HTTPS_CA_DIR, f"{place.authority.hashed}/".encode())
        server = servers.start("nginx", place)
        print(f"{FILES} files of {BYTES} bytes; wall and CPU seconds over one connection each, over a kept one, ratios")
        try:
            for scheme in ("http", "https"):
                each, kept = [], []
                for kept_connections, into in ((0, each), (1, kept)):
                    library.dl_set_extra(KEPT_CONNECTIONS, kept_connections)
                    into += fetch_all(library, server.url(scheme), place.directory / "got")
                print(f"{scheme:5} {each[0]:6.2f} {each[1]:6.2f}  {kept[0]:6.2f} {kept[1]:6.2f}  "
                      f"{each[0] / kept[0]:5.1f} {each[1] / kept[1]:5.1f}")
        finally:
            server.stop()
            library.dl_exit()


if len(sys.argv) != 2:
    sys.exit(__doc__)
main(ctypes.CDLL(sys.argv[1]))
