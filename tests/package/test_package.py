"""The library as those get it who install it: through CMake and pkg-config, in C and C++, shared and static, in a tree
that was moved, and as a part of another project. FETCHRIG_BUILD is the folder of the build."""
import os
import pathlib
import re
import shutil
import subprocess

import pytest

HERE = pathlib.Path(__file__).resolve().parent
TOP, BUILD = HERE.parents[1], pathlib.Path(os.environ["FETCHRIG_BUILD"])
VERSION = re.search(r'FETCHRIG_VERSION "(.*)"', (TOP / "include/fetchrig_types.h").read_text()).group(1)
HEADERS = {"include/fetchrig.h", "include/fetchrig_types.h", "include/fetchrig_openssl.h"}
FOR_CMAKE = {f"lib/cmake/fetchrig/fetchrig-{name}.cmake"
             for name in ("config", "config-version", "targets", "targets-release")}
ONE_CALL = "share/man/man3/dl_open.3"
MANUAL = {ONE_CALL, "share/man/man7/libfetchrig.7"}
COMPONENTS = {
    "runtime": {"lib/libfetchrig.so.5", f"lib/libfetchrig.so.{VERSION}"},
    "development": HEADERS | FOR_CMAKE | MANUAL | {"lib/libfetchrig.so", "lib/pkgconfig/fetchrig.pc"},
    "command": {"bin/fetchrig", "share/man/man1/fetchrig.1", "share/bash-completion/completions/fetchrig",
                "share/zsh/vendor-completions/_fetchrig", "share/fish/vendor_completions.d/fetchrig.fish"},
}


def run(*words, **environment):
    done = subprocess.run(list(map(str, words)), env={**os.environ, **environment}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert done.returncode == 0, f"{words}\n{done.stdout}"
    return done.stdout


def files_in(prefix):
    """But for the manual of the library's calls, one of which stands for them all."""
    names = {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir()}
    return {name for name in names if "/man3/" not in name or name == ONE_CALL}


@pytest.fixture(scope="module")
def shared(tmp_path_factory):
    """Where the shared library and the command lie after they were installed elsewhere."""
    first, moved = (tmp_path_factory.mktemp("shared") / name for name in ("first", "moved"))
    run("cmake", "--install", BUILD, "--prefix", first)
    return first.rename(moved)


@pytest.fixture(scope="module")
def static():
    """Where the static library lies that another project built along and installed with itself. What has not changed
    is not built again."""
    work = BUILD / "package"
    shutil.rmtree(work / "prefix", ignore_errors=True)
    run("cmake", "-G", "Ninja", "-S", HERE, "-B", work / "build", "-DEXTENSION=c", f"-DFETCHRIG_TREE={TOP}",
        "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O0", "-DCMAKE_UNITY_BUILD=ON",
        "-DBUILD_SHARED_LIBS=OFF", "-DFETCHRIG_INSTALL=ON", f"-DCMAKE_INSTALL_PREFIX={work / 'prefix'}",
        "-DCMAKE_INSTALL_LIBDIR=lib")
    run("cmake", "--build", work / "build", "-j", 2)
    assert run(work / "build/consumer") == VERSION + "\n"
    assert "Total Tests: 0" in run("ctest", "--test-dir", work / "build", "-N")
    assert not list(work.glob("build/**/bench")) and not (work / "build/fetchrig/fetchrig").exists()
    run("cmake", "--install", work / "build")
    return work / "prefix"


@pytest.fixture(params=["shared", "static"])
def installed(request):
    return request.param, request.getfixturevalue(request.param)


@pytest.mark.parametrize("extension", ["c", "cpp"])
def test_cmake(installed, extension, tmp_path):
    kind, prefix = installed
    run("cmake", "-G", "Ninja", "-S", HERE, "-B", tmp_path, f"-DEXTENSION={extension}", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", tmp_path)
    assert run(tmp_path / "consumer") == VERSION + "\n"
    assert ("libfetchrig.so" in run("readelf", "-d", tmp_path / "consumer")) == (kind == "shared")


@pytest.mark.parametrize("compiler, source", [("cc", "consumer.c"), ("c++", "consumer.cpp")])
def test_pkg_config(installed, compiler, source, tmp_path):
    kind, prefix = installed
    private = ["--static"] if kind == "static" else []
    where = {"PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig"), "LD_LIBRARY_PATH": str(prefix / "lib")}
    assert run("pkg-config", "--modversion", "fetchrig", **where) == VERSION + "\n"
    flags = run("pkg-config", *private, "--cflags", "--libs", "fetchrig", **where).split()
    run(compiler, HERE / source, *flags, "-o", tmp_path / "program")
    assert run(tmp_path / "program", **where) == VERSION + "\n"


def test_components(tmp_path):
    for name, files in COMPONENTS.items():
        run("cmake", "--install", BUILD, "--prefix", tmp_path / name, "--component", name)
        assert files_in(tmp_path / name) == files


def test_installed_trees(shared, static):
    assert files_in(shared) == set.union(*COMPONENTS.values())
    assert files_in(static) == HEADERS | FOR_CMAKE | MANUAL | {"lib/libfetchrig.a", "lib/pkgconfig/fetchrig.pc"}
    assert run(shared / "bin/fetchrig", "--version") == f"fetchrig {VERSION}\n"
