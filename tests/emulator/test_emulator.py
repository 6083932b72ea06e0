"""The emulated device, with a stand-in for the tool: what goes in arrives, what happens comes back.

Run with /usr/bin/python3 -m pytest tests/emulator."""

import json
import os
import struct
import subprocess

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SYSROOT = os.path.join(os.environ.get("TARNIX_EMULATOR_CACHE", f"{REPO}/build/emulator"), "sysroot")
EMULATOR_FAILED = 125
PAYLOAD = bytes(range(256)) * 4099  # not a whole number of blocks


def device(command, *arguments, status=0):
    result = subprocess.run([f"{REPO}/emulator/device", command, *map(str, arguments)],
                            capture_output=True, check=False)
    assert result.returncode == status, result.stderr.decode()
    return result


def read_file(*path):
    with open(os.path.join(*map(str, path)), "rb") as stream:
        return stream.read()


def on_disk(folder, partition, offset, size):
    table = device("partitions", folder).stdout.decode().splitlines()
    start = next(int(line.split()[1]) for line in table if line.split()[0] == partition)
    with open(folder / "disk.img", "rb") as stream:
        stream.seek(start + offset)
        return stream.read(size)


def replay(disk, log):
    """The disk's bytes with all that a log of QEMU's blklogwrites holds written to them."""
    disk = bytearray(disk)
    _, _, entries, sector_size = struct.unpack_from("<QQQI", log)
    position = sector_size
    for _ in range(entries):
        sector, count, flags, _ = struct.unpack_from("<QQQQ", log, position)
        position += sector_size
        if not flags & 4:  # a discard has no data
            size = count * sector_size
            disk[sector * sector_size:sector * sector_size + size] = log[position:position + size]
            position += size
    return disk


@pytest.fixture(scope="module", name="tool")
def fixture_tool(tmp_path_factory):
    subprocess.run([f"{REPO}/emulator/fetch-arm64"], check=True)
    program = tmp_path_factory.mktemp("tool") / "standin"
    subprocess.run(["clang", "--target=aarch64-linux-gnu", f"--sysroot={SYSROOT}", "-fuse-ld=lld",
                    "-Wall", "-Werror", "-o", program, f"{REPO}/tests/emulator/standin.c"],
                   check=True)
    return program


@pytest.fixture(scope="module", name="made")
def fixture_made(tmp_path_factory):
    """A device that no test writes to: those that only boot share it."""
    folder = tmp_path_factory.mktemp("device") / "made, with a comma"
    device("make", folder, "--size", "64M", "--links", "msm_sdcc.1", "--no-fstab", "--dt",
           "android/compatible=android,firmware", "--dt", "other/empty=", "--cmdline",
           "androidboot.slot_suffix=_a=x androidboot.none= plain androidboot.ddrsize=4",
           "--prop", "ro.boot.ddrsize=6", "--prop", "persist.kept=made")
    return folder


@pytest.mark.parametrize("fs,size", [("ext4", "64M"), ("f2fs", "80M")])
def test_runs_and_files_come_back_exactly(tmp_path, tool, fs, size):
    folder, payload, script = tmp_path / "device", tmp_path / "payload", tmp_path / "script"
    payload.write_bytes(PAYLOAD)
    script.write_text("""set -e
        mkdir -m 750 /data/vendor/ramdump/apq
        cp /payload "/data/vendor/ramdump/a b"; chmod 640 "/data/vendor/ramdump/a b"
        printf anchor | dd of=/dev/block/bootdevice/by-name/misc bs=1 seek=3184 conv=notrunc,fsync
        """)
    device("make", folder, "--fs", fs, "--size", size, "--file", f"/payload={payload}")
    before = read_file(folder, "disk.img")
    result = device("boot", folder, "--tool", tool, "--before", script, "--uid", 0,
                    "--log-writes", tmp_path / "writes", "--run", "bytes 'one argument'",
                    "--run", "status 254", "--run", "abort", "--run", "memory 20",
                    "--run", "block '/data/vendor/ramdump/a b'", status=254)
    assert result.stdout == read_file(folder, "stdout") and b"\0\r\n\xff\x1b" in result.stdout
    assert read_file(folder, "boot/1/stdout") == b"\0\r\n\xff\x1b"
    assert read_file(folder, "boot/1/log") == b"uid 0, 3 arguments\r\n"
    runs = json.loads(read_file(folder, "result.json"))["runs"]
    assert [run["status"] for run in runs] == [0, 254, 134, 0, 0]
    assert 20 << 10 <= runs[3]["rss_kib"] < 24 << 10

    assert on_disk(folder, "misc", 3184, 8) == b"anchor\0\0"
    block = int(read_file(folder, "boot/5/stdout"))
    assert on_disk(folder, "userdata", block * 4096, 4096) == PAYLOAD[:4096]
    after = read_file(folder, "disk.img")
    assert replay(before, read_file(tmp_path, "writes")) == after

    device("read", folder, "/data/vendor", "-o", tmp_path / "out")
    assert read_file(tmp_path, "out/data/vendor/ramdump/a b") == PAYLOAD
    assert device("read", folder, "/data/vendor/ramdump/a b").stdout == PAYLOAD
    listing = device("ls", folder, "/data/vendor/ramdump").stdout.decode()
    assert f"100640 0 0 {len(PAYLOAD)} /data/vendor/ramdump/a b\n" in listing
    assert "040750 0 0 " in listing
    assert read_file(folder, "disk.img") == after


def test_device_is_as_described(tmp_path, tool, made):
    script = tmp_path / "script"
    script.write_text("""
        readlink -f /dev/block/platform/msm_sdcc.1/by-name/userdata >/host/userdata
        ls /dev/block/platform/msm_sdcc.1/by-name /dev/block >/host/links
        cd /proc/device-tree/firmware
        cat android/compatible >/host/compatible
        [ -f other/empty ] && [ ! -s other/empty ] && [ ! -e /fstab.virt ] && [ -f /added ]
        """)
    device("boot", made, "--tool", tool, "--after", script, "--uid", 2000, "--cmdline",
           "androidboot.extra=1", "--prop", "debug.once=yes", "--file", f"/added={script}",
           "--", "bytes")
    assert read_file(made, "log") == b"uid 2000, 2 arguments\r\n"
    properties = json.loads(read_file(made, "result.json"))["properties"]
    expected = {"ro.hardware": "virt", "ro.boot.qorramdump": "1", "ro.boot.slot_suffix": "_a=x",
                "ro.boot.none": "", "ro.boot.ddrsize": "6", "ro.boot.extra": "1",
                "persist.kept": "made", "debug.once": "yes"}
    assert expected.items() <= properties.items() and "plain" not in properties
    assert read_file(made, "boot/userdata") == b"/dev/vda5\n"
    assert b"board_info\nmfg\nmisc\ntool_diag\nuserdata\n" in read_file(made, "boot/links")
    assert b"bootdevice" not in read_file(made, "boot/links")
    assert read_file(made, "boot/compatible") == b"android,firmware\0"


def test_only_persistent_properties_survive(tmp_path, made):
    script = tmp_path / "script"
    script.write_text("cd /dev/__properties__; printf changed | tee persist.kept debug.gone")
    device("boot", made, "--no-run", "--before", script)
    device("boot", made, "--no-run")
    properties = json.loads(read_file(made, "result.json"))["properties"]
    assert properties["persist.kept"] == "changed" and "debug.gone" not in properties


def test_trouble_is_told_from_the_tools_status(tmp_path, tool, made):
    result = device("boot", made, "--tool", tool, "--timeout", 4, "--", "hang",
                    status=EMULATOR_FAILED)
    assert b"before the hang" in result.stderr and b"still running after 4" in result.stderr
    assert b"the device's console" in result.stderr
    failing, rules = tmp_path / "failing", tmp_path / "rules"
    failing.write_text("dd if=/dev/zero of=/dev/vda1 bs=4096 count=1 conv=fsync")
    rules.write_text('[inject-error]\nevent = "none"\niotype = "write"\nsector = "2048"\n')
    result = device("boot", made, "--tool", tool, "--before", failing, "--blkdebug", rules,
                    status=EMULATOR_FAILED)
    assert b"--before ended with status 1" in result.stderr and b"Input/output" in result.stderr
    for arguments, message in ((["boot", made, "--tool", "/missing"], b"no tool at /missing"),
                               (["boot", made, "--tool", "/bin/true"], b"another machine"),
                               (["boot", tmp_path / "none"], b"is no device"),
                               (["read", made, "/data/x"], b"userdata has no /data/x"),
                               (["make", made], b"is a device already")):
        assert message in device(*arguments, status=EMULATOR_FAILED).stderr
