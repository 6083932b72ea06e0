"""The emulated phone crashes, the boot application saves its RAM, and the service extracts it.

A start through the firmware takes seconds, so each test is one session that shows several cases."""

import json
import os
import re
import struct

import firmware
from emulated import (BLOCK, DATA_START, MAP, MISC_START, REPO, device, read_disk, read_log,
                      run, walk, write_text)

# The long form has phones of common sizes: TARNIX_CRASH_MEMORY=256 for one, 512 for the other.
MEMORY = int(os.environ.get("TARNIX_CRASH_MEMORY", "192"))
MIB = 1 << 20
WHOLE_MAP = (MEMORY + MEMORY // 64 + 1) * MIB
ANCHOR = 3184
APQ = "/data/vendor/ramdump/apq"

# Almost all memory that the system has left holds this, so that no write of the firmware's into it
# goes unseen.
PAGE = b"xxxxxxx\n" * (BLOCK // 8)
FILL = """
[ $starts = 1 ] || exit 0
free=$(sed -n 's/^MemAvailable: *\\([0-9]*\\) kB/\\1/p' /proc/meminfo)
mkdir /tmp/fill
mount -t tmpfs -o size=100% fill /tmp/fill
yes xxxxxxx | head -c $(((free - 12288) * 1024)) >/tmp/fill/pattern
"""
# What a file system does that gives a block of the map to another file.
LOSE_BLOCK = """
[ $starts = 3 ] || exit 0
first=$(dd if=/dev/vda1 bs=4 skip=797 count=1 2>/dev/null | od -An -tu4)
dd if=/dev/zero of=/dev/vda5 bs=4096 seek=$((first + 100)) count=1 conv=notrunc,fsync 2>/dev/null
"""

# What the boot application says, times left out.
CRASHED = "the system ended without a shutdown: panic, hang or watchdog; try {} of 3"
STARTING = "starting the system after N ms"
SAVED = "saved in N ms, waits for the system"
PENDING = "nothing saved: a dump is already waiting for the device"
RAMOOPS = f"ramoops.bin: {firmware.LOG_SIZE} bytes in N ms"
NO_CRASH = ["no crash", STARTING]


def crash(phone, events, fs, data_size, map_size, *options):
    """Makes the phone and crashes it. Returns how many bytes it had written at each reset, and what
    the boot application has said, start by start."""
    device("make", phone, "--size", f"{data_size}M", "--fs", fs)
    device("crash", phone, "--memory", MEMORY, "--timeout", 400, "--events", events, *options, "--",
           "-a", map_size, MAP)
    result = json.loads((phone / "result.json").read_bytes())
    said = "\n".join(line.removeprefix("ramdump: ") for line in result["boot_application"])
    starts = re.split(f"(?<={STARTING})\n", re.sub(r"\d+ ms\b", "N ms", said))
    written = [reset["written_bytes"] for reset in result["resets"]]
    return written, [start.split("\n") for start in starts]


def check_chain(phone):
    """The chain must be whole, and no dump pending. Returns its blocks."""
    anchor = struct.unpack("<6I", read_disk(phone, MISC_START + ANCHOR, 24))
    chain, is_right = walk(anchor, lambda at: read_disk(phone, DATA_START + at * BLOCK, 12))
    assert is_right and anchor[5] == 1
    return chain


def extracted(phone):
    """The dump directory, of which there is one, read back; and its boot_info.txt."""
    device("read", phone, APQ, "-o", phone / "out")
    folder, = (phone / f"out{APQ}").iterdir()
    return folder, (folder / "boot_info.txt").read_text("ascii")


def test_panic_and_crash_loop(tmp_path):
    """The dump of the first crash is exact and stays; three more crashes end in a plain start."""
    phone = tmp_path / "phone"
    written, starts = crash(phone, "panic,early-panic,early-panic,early-panic", "ext4",
                            3 * MEMORY + 300, WHOLE_MAP, "--save-ram", tmp_path, "--after",
                            write_text(tmp_path / "fill", FILL))
    chain = check_chain(phone)
    runs = 1 + sum(b != a + 1 for a, b in zip(chain, chain[1:]))
    dump, info = extracted(phone)
    checked = ["misc and userdata found in N ms",
               f"chain of {len(chain)} blocks in {runs} runs verified in N ms"]
    assert starts == [
        NO_CRASH,
        [CRASHED.format(1), *checked, f"boot_info.txt: {len(info)} bytes in N ms", RAMOOPS,
         f"ddr_cs0.bin: {MEMORY * MIB} bytes in N ms", SAVED, STARTING],
        *([CRASHED.format(n), *checked, PENDING, STARTING] for n in (2, 3)),
        ["crashed again, and 3 starts in a row have tried a dump: plain start, nothing is saved",
         STARTING]]
    assert written[0] < written[1] == written[2] == written[3]
    assert (tmp_path / "1.bin").read_bytes().count(PAGE) * BLOCK > MEMORY * MIB / 8
    run(f"{REPO}/emulator/compare-ram", dump, tmp_path / "1.bin")
    # What compare-ram goes by.
    assert re.findall(r"reserved: (\w+) (\w+)", info) == re.findall(
        r"reg = <0 (\w+) 0 (\w+)>", firmware.reserved_nodes(MEMORY))
    assert b"sysrq triggered crash" in (dump / "ramoops.bin").read_bytes()
    assert "sysrq triggered crash" in run(f"{REPO}/emulator/kernel-log", dump).stdout


def test_hang_and_power_cut(tmp_path):
    """A reboot is no crash, a hang is one; power that goes in the middle of a dump leaves none."""
    phone = tmp_path / "phone"
    _, starts = crash(phone, "reboot,hang,panic", "f2fs", 3 * MEMORY + 300, WHOLE_MAP,
                      "--cut-power", "--save-ram", tmp_path)
    check_chain(phone)
    assert starts[:2] == [NO_CRASH, NO_CRASH]
    assert SAVED in starts[2]
    assert starts[3][-1] == RAMOOPS  # in the middle of the RAM
    device("boot", phone)
    assert "parsing ramdump" not in (phone / "log").read_text("latin-1")
    check_chain(phone)
    run(f"{REPO}/emulator/compare-ram", extracted(phone)[0], tmp_path / "2.bin")


def test_refusals(tmp_path):
    """No chain, one that is too small for the RAM, and one that has lost a block."""
    phone = tmp_path / "phone"
    written, starts = crash(phone, "early-panic,panic,panic,early-panic", "ext4", 400, 64 * MIB,
                            "--log-writes", tmp_path / "log", "--after",
                            write_text(tmp_path / "lose", LOSE_BLOCK))
    first, = struct.unpack("<I", read_disk(phone, MISC_START + ANCHOR + 4, 4))
    _, info = extracted(phone)
    assert starts[1][2:] == [
        "nothing saved: the anchor's magic is not there",
        f"  position 0, block 0, offset {ANCHOR} of misc, expected 0x72644842, found 0x0", STARTING]
    assert starts[2][4:] == [
        RAMOOPS,
        f"ddr_cs0.bin: {MEMORY * MIB} bytes left out: they do not fit in what is left of the chain",
        SAVED, STARTING]
    assert f"\nram-left-out: ddr_cs0.bin {firmware.RAM_START:#x} {MEMORY * MIB:#x}\n" in info
    assert starts[3][2:] == starts[4][2:] == [
        "nothing saved: a block of the chain has lost its magic",
        f"  position 100, block {first + 100}, offset {(first + 100) * BLOCK} of userdata, "
        "expected 0x6e684342, found 0x0", STARTING]
    assert written[0] == 0 and written[2] == written[3]
    check_order(read_log(tmp_path / "log"), DATA_START // BLOCK + first)


def check_order(entries, first):
    """The dump's blocks, flush, the flag, flush; then none of them changes before the flag does."""
    misc = [(entry or {}).get(MISC_START // BLOCK, bytes(BLOCK)) for entry in entries]
    flags = [struct.unpack_from("<I", block, ANCHOR + 20)[0] for block in misc]
    flag = flags.index(3)
    assert entries[flag - 1] is entries[flag + 1] is None
    data = max(at for at, entry in enumerate(entries[:flag]) if entry)
    assert first in entries[data]
    assert not any(first in (entry or {}) for entry in entries[flag:flags.index(1, flag)])
