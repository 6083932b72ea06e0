"""Android.bp in a tree, as Soong sees it: the platform's build system, as Debian packages it (of
2020, so newer than Android 9's)."""

import os
import re
from pathlib import Path

import pytest
from emulated import REPO, run, write_text

GO_LIBRARY = Path("/usr/share/gocode")
BUILD = REPO / "build/soong"
COMPILER = "prebuilts/clang/host/linux-x86/clang-r399163b/bin/clang++"
ROOMS = ("bootside", "chain", "config", "driver", "extract", "fs_mgr", "guard", "partitions",
         "tests/support", "tests/unit")

pytestmark = pytest.mark.skipif(
    not (GO_LIBRARY / "src/android/soong/cc/testing.go").exists(),
    reason="this machine has no Soong: cmake/install-packages tests/soong/optional-packages")


@pytest.fixture(name="judge", scope="module")
def compile_judge():
    judge = BUILD / "judge"
    source = REPO / "tests/soong/judge.go"
    assert run("gofmt", "-l", source).stdout == ""
    run("go", "build", "-o", judge, source,
        env={**os.environ, "GO111MODULE": "off", "GOPATH": str(GO_LIBRARY),
             "GOCACHE": str(BUILD / "go-cache")})
    return judge


def test_build_file_builds_every_source_with_the_trees_options(judge):
    tree = BUILD / "tree"
    tree.mkdir(exist_ok=True)
    run(judge, REPO, REPO / "Android.bp", cwd=tree)
    for place, target in (("vendor/crash/tarnix", "."), (COMPILER, "tests/soong/compiler")):
        (tree / place).parent.mkdir(parents=True, exist_ok=True)
        run("ln", "-sfn", REPO / target, tree / place)
    run(f"{REPO}/emulator/fetch-arm64")
    run("ninja", "-C", tree, "-k", "0", "tarnix_objects")
    commands = run("ninja", "-C", tree, "-t", "commands", "tarnix_objects").stdout
    compiled = set(re.findall(r" vendor/crash/tarnix/(\S+\.cpp)$", commands, flags=re.M))
    assert compiled == {str(path.relative_to(REPO)) for room in ROOMS
                        for path in (REPO / room).glob("*.cpp")}


@pytest.mark.parametrize("right, wrong, message", [
    ("local_include_dirs:", "local_includes:", 'unrecognized property "local_includes"'),
    ('"libz",', '"libzip",', 'depends on undefined module "libzip"'),
    ("chain/transfer.cpp", "chain/transport.cpp", "chain/transport.cpp"),
])
def test_fault_is_reported_with_its_line(judge, tmp_path, right, wrong, message):
    build_file = write_text(tmp_path / "Android.bp",
                            (REPO / "Android.bp").read_text().replace(right, wrong, 1))
    errors = run(judge, REPO, build_file, cwd=tmp_path, accept=[1]).stderr
    assert re.search(rf"^vendor/crash/tarnix/Android.bp:\d+:\d+: .*{re.escape(message)}", errors,
                     flags=re.M), errors
