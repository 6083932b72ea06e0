"""The emulated device, with shell commands in the tool's place: what the other tests, which run on
it all day, would not notice."""

import json
import shlex

from emulated import EMULATOR_FAILED, SYSROOT, device, write_text

# Each run's argument is a command for the device's shell.
SHELL = ("--tool", f"{SYSROOT}/bin/busybox", "--wrap", """sh -c 'eval "$1"'""")
# What a terminal or a line-based channel would change.
BYTES = r"""printf '\0\r\n\377\033'; printf 'uid %d, %d argument\r\n' $(id -u) $# >&2"""


def test_what_goes_in_comes_back_exactly(tmp_path):
    folder = tmp_path / "device, with a comma"
    device("make", folder, "--size", "64M")
    device("boot", folder, *SHELL, "--uid", 2000, *(f"--run={shlex.quote(run)}" for run in (
        BYTES, "kill -ABRT $$", "dd if=/dev/zero of=/dev/null bs=20M count=1")),
           accept=[134])
    runs = json.loads((folder / "result.json").read_bytes())["runs"]
    assert (folder / "boot/1/stdout").read_bytes() == b"\0\r\n\xff\x1b"
    assert (folder / "boot/1/log").read_bytes() == b"uid 2000, 1 argument\r\n"
    assert [run["status"] for run in runs] == [0, 134, 0]
    assert 20 << 10 <= runs[2]["rss_kib"] < 24 << 10


def test_trouble_is_told_from_the_tools_status(tmp_path):
    device("make", tmp_path / "made", "--size", "64M")
    failing = write_text(tmp_path / "failing", "false")
    for words, said in ((["--timeout", 4, "--", "sleep 1000"], "running after 4"),
                        (["--before", failing], "--before ended with status 1"),
                        (["--tool", "/bin/true"], "another machine")):
        trouble = device("boot", tmp_path / "made", *SHELL, *words, accept=[EMULATOR_FAILED]).stderr
        assert said in trouble, trouble
