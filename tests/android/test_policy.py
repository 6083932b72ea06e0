"""android/sepolicy/, as far as this machine can try it; the service's test tries it further."""

import re

import pytest
from emulated import REPO, run, write_text

POLICY = REPO / "android/sepolicy"
ROOMS = ("bootside", "chain", "config", "driver", "extract", "fs_mgr", "guard", "partitions")


def compile_policy(variant, output, addition=""):
    policy = run("m4", "-D", f"target_build_variant={variant}", "-I", POLICY,
                 REPO / "tests/android/platform.m4").stdout
    source = write_text(output.with_suffix(".conf"),
                        policy.replace("\nrole r;", f"{addition}\nrole r;"))
    return run("checkpolicy", "-M", "-c", "30", "-o", output, source, accept=range(256))


@pytest.mark.parametrize("variant", ["user", "userdebug"])
def test_policy_compiles_and_labels_what_it_declares(tmp_path, variant):
    policy = tmp_path / "policy"
    result = compile_policy(variant, policy)
    assert result.returncode == 0, result.stderr
    run("/usr/sbin/sefcontext_compile", "-p", policy, "-o", tmp_path / "contexts",
        POLICY / "file_contexts")
    # Without "exact" the label would go to every property whose name begins so.
    labels = re.findall(r"^(\S+) +u:object_r:(\w+):s0 exact string$",
                        (POLICY / "property_contexts").read_text(), re.M)
    declared = re.findall(r"^type (\w+), property_type;", (POLICY / "property.te").read_text(),
                          re.M)
    assert {label for _, label in labels} == set(declared)
    sources = "".join(path.read_text() for room in ROOMS for path in (REPO / room).glob("*.cpp"))
    used = set(re.findall(r'property_[gs]et\("([^"]+)"', sources))
    assert {name for name, _ in labels} == used - {"ro.hardware", "ro.crypto.state"} | {
        "vendor.tarnix.start"}
