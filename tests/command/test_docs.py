# SPDX-License-Identifier: MIT
"""Every command and program in the README and in docs/, run as printed: with the library installed, in a folder that
looks like the top of the sources, with the servers of the demonstration. What is not to be run is fenced as text."""
import os
import pathlib
import re
import subprocess

import pytest
from conftest import BINARY

TOP, BUILD = pathlib.Path(__file__).resolve().parents[2], pathlib.Path(BINARY).parent
FENCE = re.compile(r"^```(\w*)\n(.*?)^```$", re.S | re.M)
COMPILE = "cc -std=c99 -Wall -Wextra -Werror {0}.c $(pkg-config --cflags --libs fetchrig) -pthread -o {0}\n"


def run(*words, **how):
    done = subprocess.run(words, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          **how)
    assert done.returncode == 0, done.stdout
    return done.stdout


@pytest.fixture(scope="module")
def surroundings(tmp_path_factory):
    """The environment of a shell in which the library is installed and the demonstration's servers run."""
    prefix = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--prefix", prefix)
    kept = run(TOP / "scripts/demo.sh", "--keep")
    assert "FAILED" not in kept
    yield {**os.environ, "PATH": f"{prefix}/bin:{os.environ['PATH']}", "PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig",
           "LD_LIBRARY_PATH": f"{prefix}/lib", "TMPDIR": str(prefix), "HOME": str(prefix),
           "XDG_CONFIG_HOME": "", "http_proxy": ""}
    run("kill", re.search(r"kill (\d+)", kept)[1])


@pytest.mark.skipif(BUILD != TOP / "build", reason="the demonstration has a build of its own")
@pytest.mark.parametrize("page", ["README.md", *sorted(f"docs/{page.name}" for page in (TOP / "docs").glob("*.md"))])
def test_as_printed(surroundings, tmp_path, page):
    for name in ("build", "examples", "docs", "scripts", "tests"):
        (tmp_path / name).symlink_to(TOP / name)
    script = "set -euo pipefail\n. build/demo.env\n"
    for language, text in FENCE.findall((TOP / page).read_text()):
        assert language in ("sh", "c", "cmake", "text")
        if language == "c":
            name = re.match(r"/\* (\w+)\.c", text)[1]
            (tmp_path / f"{name}.c").write_text(text)
        script += {"sh": text, "c": language == "c" and COMPILE.format(name)}.get(language, "")
    run("bash", "-c", script, cwd=tmp_path, env=surroundings)
