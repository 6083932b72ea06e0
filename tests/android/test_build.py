"""Android.bp and android/sepolicy/, as far as this machine can try them."""

import json
import re
import subprocess

import pytest
from guide import REPO

POLICY = REPO / "android/sepolicy"


def test_build_file_is_formatted_and_names_each_source(tmp_path):
    listing = subprocess.run(["bpfmt", "-l", "Android.bp"], cwd=REPO, check=False,
                             capture_output=True, text=True)
    assert (listing.returncode, listing.stdout, listing.stderr) == (0, "", "")
    named = re.findall(r'"([^" :]+\.(?:cpp|rc))"', (REPO / "Android.bp").read_text())
    files = {pattern: {path.relative_to(REPO).as_posix() for path in REPO.glob(pattern)}
             for pattern in named}
    assert [pattern for pattern, paths in files.items() if not paths] == []
    # The build for the emulated device has the phone's targets, and host/ for what it lacks of one.
    subprocess.run(["cmake", "--preset", "arm64", "-B", tmp_path], cwd=REPO, check=True,
                   capture_output=True)
    compiled = json.loads((tmp_path / "compile_commands.json").read_text())
    sources = {path.relative_to(REPO) for entry in compiled
               if (path := REPO / entry["directory"] / entry["file"]).is_relative_to(REPO)}
    wanted = {path.as_posix() for path in sources if "host" not in path.parts}
    assert wanted and wanted == {path for paths in files.values() for path in paths
                                 if path.endswith(".cpp")}
    # Calls that the unit tests answer; fstatvfs is fstatvfs64 where it has a second name.
    wrapped = [set(re.findall(r"--wrap=(\w+)", path.read_text()))
               for path in (tmp_path / "build.ninja", REPO / "Android.bp")]
    assert wrapped[0] | {"fstatvfs"} == wrapped[1]


def compile_policy(variant, output, addition=""):
    policy = subprocess.run(["m4", "-D", f"target_build_variant={variant}", "-I", POLICY,
                             REPO / "tests/android/platform.m4"], check=True, capture_output=True)
    source = output.with_suffix(".conf")
    source.write_bytes(policy.stdout.replace(b"\nrole r;", addition.encode() + b"\nrole r;"))
    return subprocess.run(["checkpolicy", "-M", "-c", "30", "-o", output, source], check=False,
                          capture_output=True, text=True)


@pytest.mark.parametrize("variant", ["user", "userdebug"])
def test_policy_compiles_and_labels_what_it_declares(tmp_path, variant):
    policy = tmp_path / "policy"
    result = compile_policy(variant, policy)
    assert result.returncode == 0, result.stderr
    subprocess.run(["/usr/sbin/sefcontext_compile", "-p", policy, "-o", tmp_path / "contexts",
                    POLICY / "file_contexts"], check=True)
    lines = [line.split() for line in (POLICY / "property_contexts").read_text().splitlines()
             if not line.startswith("#")]
    types = (POLICY / "property.te").read_text()
    declared = re.findall(r"^type (\w+), property_type;", types, re.M)
    assert {context for _, context, *_ in lines} == {f"u:object_r:{name}:s0" for name in declared}
    # Without "exact" the label would go to every property whose name begins so.
    assert all(rest == ["exact", "string"] for _, _, *rest in lines)
    names = {name for name, *_ in lines}
    sources = "".join(path.read_text() for room in ("chain", "config", "driver")
                      for path in (REPO / room).glob("*.cpp"))
    used = set(re.findall(r'property_[gs]et\("([^"]+)"', sources))
    assert names == used - {"ro.hardware", "ro.crypto.state"} | {"vendor.tarnix.start"}
