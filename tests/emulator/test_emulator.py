"""The emulated device, with a stand-in for the tool: what goes in arrives, what happens comes back.

Run with /usr/bin/python3 -m pytest tests/emulator."""

import json

import pytest
from emulated import (BLOCK, DATA_START, EMULATOR_FAILED, MISC_START, REPO, compile_for_device,
                      device, read_disk, read_log, write_text)

PAYLOAD = bytes(range(256)) * 4099  # not a whole number of blocks


@pytest.fixture(scope="module", name="tool")
def fixture_tool(tmp_path_factory):
    return compile_for_device(REPO / "tests/emulator/standin.c",
                              tmp_path_factory.mktemp("tool") / "standin")


@pytest.mark.parametrize("fs,size", [("ext4", "64M"), ("f2fs", "80M")])
def test_what_goes_in_comes_back_exactly(tmp_path, tool, fs, size):
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
    device("boot", folder, "--tool", tool, "--before", script, "--uid", 0,
           "--log-writes", tmp_path / "writes", "--run", "bytes 'one argument'",
           "--run", "status 254", "--run", "abort", "--run", "memory 20",
           "--run", "block '/data/vendor/ramdump/a b'", accept=[254])
    assert (folder / "boot/1/stdout").read_bytes() == b"\0\r\n\xff\x1b"
    assert (folder / "boot/1/log").read_bytes() == b"uid 0, 3 arguments\r\n"
    result = json.loads((folder / "result.json").read_bytes())
    assert [run["status"] for run in result["runs"]] == [0, 254, 134, 0, 0]
    assert 20 << 10 <= result["runs"][3]["rss_kib"] < 24 << 10
    expected = {"ro.hardware": "virt", "ro.boot.qorramdump": "2", "ro.boot.slot_suffix": "_a=x",
                "persist.kept": "changed", "debug.gone": "changed"}
    assert expected.items() <= result["properties"].items()

    assert read_disk(folder, MISC_START + 3184, 8) == b"anchor\0\0"
    block = int((folder / "boot/5/stdout").read_text())
    assert read_disk(folder, DATA_START + block * BLOCK, BLOCK) == PAYLOAD[:BLOCK]
    for write in filter(None, read_log(tmp_path / "writes")):
        for at, data in write.items():
            disk[at * BLOCK:(at + 1) * BLOCK] = data
    device("read", folder, "/data/vendor", "-o", tmp_path / "out")
    assert (tmp_path / "out/data/vendor/ramdump/a b").read_bytes() == PAYLOAD
    assert disk == (folder / "disk.img").read_bytes()

    device("boot", folder, "--tool", tool, "--uid", 2000, "--", "bytes")
    assert (folder / "log").read_bytes() == b"uid 2000, 2 arguments\r\n"
    properties = json.loads((folder / "result.json").read_bytes())["properties"]
    assert properties["persist.kept"] == "changed" and "debug.gone" not in properties


def test_trouble_is_told_from_the_tools_status(tmp_path, tool):
    device("make", tmp_path / "made", "--size", "64M")
    failing = write_text(tmp_path / "failing", "false")
    for words, said in ((["--timeout", 4, "--", "hang"], "running after 4"),
                        (["--before", failing], "--before ended with status 1"),
                        (["--tool", "/bin/true"], "another machine")):
        trouble = device("boot", tmp_path / "made", "--tool", tool, *words,
                         accept=[EMULATOR_FAILED]).stderr
        assert said in trouble, trouble
