"""The emulated device, with shell commands in the tool's place: what goes in arrives, what happens
comes back."""

import json
import shlex

import pytest
from emulated import (EMULATOR_FAILED, MISC_START, SYSROOT, device, read_disk, read_log, write_text)

PAYLOAD = bytes(range(256)) * 4099  # not a whole number of blocks
# Each run's argument is a command for the device's shell, to which the tool is $0.
SHELL = ("--tool", f"{SYSROOT}/bin/busybox", "--wrap", """sh -c 'eval "$1"'""")
# What a terminal or a line-based channel would change.
BYTES = r"""printf '\0\r\n\377\033'; printf 'uid %d, %d argument\r\n' $(id -u) $# >&2"""


def boot(folder, *options, runs, accept=(0,)):
    device("boot", folder, *SHELL, *options, *(f"--run={shlex.quote(run)}" for run in runs),
           accept=accept)
    return json.loads((folder / "result.json").read_bytes())


@pytest.mark.parametrize("fs,size", [("ext4", "64M"), ("f2fs", "80M")])
def test_what_goes_in_comes_back_exactly(tmp_path, fs, size):
    folder, payload = tmp_path / "device, with a comma", tmp_path / "payload"
    payload.write_bytes(PAYLOAD)
    script = write_text(tmp_path / "script", """set -e
        cp /payload "/data/vendor/ramdump/a b"
        printf anchor | dd of=/dev/block/bootdevice/by-name/misc bs=1 seek=3184 conv=notrunc,fsync
        cd /dev/__properties__; printf changed | tee persist.kept debug.gone
        """)
    device("make", folder, "--fs", fs, "--size", size, "--file", f"/payload={payload}",
           "--cmdline", "androidboot.slot_suffix=_a=x plain", "--prop", "persist.kept=made",
           "--prop", "ro.boot.qorramdump=2")
    disk = bytearray((folder / "disk.img").read_bytes())
    result = boot(folder, "--before", script, "--log-writes", tmp_path / "writes", runs=[
        BYTES, "exit 254", "kill -ABRT $$", "dd if=/dev/zero of=/dev/null bs=20M count=1", "$0"],
        accept=[254])
    assert (folder / "boot/1/stdout").read_bytes() == b"\0\r\n\xff\x1b"
    assert (folder / "boot/1/log").read_bytes() == b"uid 0, 1 argument\r\n"
    assert (folder / "boot/5/log").read_bytes() == b"tarnix: applet not found\n"
    assert [run["status"] for run in result["runs"]] == [0, 254, 134, 0, 127]
    assert 20 << 10 <= result["runs"][3]["rss_kib"] < 24 << 10
    expected = {"ro.hardware": "virt", "ro.boot.qorramdump": "2", "ro.boot.slot_suffix": "_a=x",
                "persist.kept": "changed", "debug.gone": "changed"}
    assert expected.items() <= result["properties"].items()

    assert read_disk(folder, MISC_START + 3184, 8) == b"anchor\0\0"
    for write in filter(None, read_log(tmp_path / "writes")):
        for at, data in write.items():
            disk[at * len(data):(at + 1) * len(data)] = data
    assert disk == (folder / "disk.img").read_bytes()
    device("read", folder, "/data/vendor", "-o", tmp_path / "out")
    assert (tmp_path / "out/data/vendor/ramdump/a b").read_bytes() == PAYLOAD
    assert disk == (folder / "disk.img").read_bytes()

    properties = boot(folder, "--uid", 2000, runs=[BYTES])["properties"]
    assert (folder / "log").read_bytes() == b"uid 2000, 1 argument\r\n"
    assert properties["persist.kept"] == "changed" and "debug.gone" not in properties


def test_trouble_is_told_from_the_tools_status(tmp_path):
    device("make", tmp_path / "made", "--size", "64M")
    failing = write_text(tmp_path / "failing", "false")
    for words, said in ((["--timeout", 4, "--", "sleep 1000"], "running after 4"),
                        (["--before", failing], "--before ended with status 1"),
                        (["--tool", "/bin/true"], "another machine")):
        trouble = device("boot", tmp_path / "made", *SHELL, *words, accept=[EMULATOR_FAILED]).stderr
        assert said in trouble, trouble
