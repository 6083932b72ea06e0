"""The emulated phone crashes, the boot application saves its RAM, and the service extracts it.

A start through the firmware takes seconds, so each test is one session that shows several cases."""

import json
import os
import re
import struct
import sys
from pathlib import Path

sys.path.append(str(Path(__file__).parents[1] / "emulator"))
from emulated import (BLOCK, DATA_START, MAP, MISC_START, REPO, device, read_disk, read_log,
                      run, walk, write_text)

sys.path.append(f"{REPO}/emulator")
import firmware

# The long form has phones of common sizes: TARNIX_CRASH_MEMORY=256 for one, 512 for the other.
MEMORY = int(os.environ.get("TARNIX_CRASH_MEMORY", "192"))
MIB = 1 << 20
WHOLE_MAP = (MEMORY + MEMORY // 64 + 1) * MIB
ANCHOR = 3184
APQ = "/data/vendor/ramdump/apq"

# Almost all memory that the system has left holds this, so that no write of the firmware's into it
# goes unseen.
PATTERN = b"xxxxxxx\n"
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


def make(folder, fs, data_size):
    phone = folder / "phone"
    device("make", phone, "--size", f"{data_size}M", "--fs", fs)
    return phone


def crash(phone, events, map_size, *options):
    """Returns result.json and what the boot application has said, start by start, without times."""
    device("crash", phone, "--memory", MEMORY, "--timeout", 400, "--events",
           ",".join(events), *options, "--", "-a", map_size, MAP)
    result = json.loads((phone / "result.json").read_bytes())
    starts = [[]]
    for line in result["boot_application"]:
        starts[-1].append(re.sub(r"\d+ ms\b", "N ms", line.removeprefix("ramdump: ")))
        if line.startswith("ramdump: starting the system"):
            starts.append([])
    print(*starts, sep="\n")
    return result, starts if starts[-1] else starts[:-1]


def anchor_of(phone):
    return struct.unpack("<6I", read_disk(phone, MISC_START + ANCHOR, 24))


def check_chain(phone, flags):
    """The chain must be whole, and the anchor's flags these."""
    chain, is_right = walk(anchor_of(phone),
                           lambda at: read_disk(phone, DATA_START + at * BLOCK, 12))
    assert is_right and anchor_of(phone)[5] == flags
    return chain


def extracted(phone):
    """The dump directory, of which there is one, read back."""
    device("read", phone, APQ, "-o", phone / "out")
    folder, = (phone / f"out{APQ}").iterdir()
    return folder


def compare_ram(dump, ram):
    return run(f"{REPO}/emulator/compare-ram", dump, ram).stdout


def boot_info(dump):
    found = {}
    for line in (dump / "boot_info.txt").read_text("ascii").splitlines()[1:]:
        found.setdefault(line.split(": ")[0], []).append(line.split(": ")[1])
    return found


CRASHED = "the system ended without a shutdown: panic, hang or watchdog; try {} of 3"
FOUND = "misc and userdata found in N ms"
STARTING = "starting the system after N ms"
SAVED = "saved in N ms, waits for the system"
PENDING = "nothing saved: a dump is already waiting for the device"
NO_CRASH = ["no crash", STARTING]


def verified(chain):
    runs = 1 + sum(b != a + 1 for a, b in zip(chain, chain[1:]))
    return f"chain of {len(chain)} blocks in {runs} runs verified in N ms"


def saved(name, size):
    return f"{name}: {size} bytes in N ms"


def test_panic_and_crash_loop(tmp_path):
    """The dump of the first crash is exact and stays; three more crashes end in a plain start."""
    phone = make(tmp_path, "ext4", 3 * MEMORY + 300)
    (tmp_path / "ram").mkdir()
    result, starts = crash(phone, ["panic", "early-panic", "early-panic", "early-panic"], WHOLE_MAP,
                           "--save-ram", tmp_path / "ram", "--after",
                           write_text(tmp_path / "fill", FILL))
    chain = check_chain(phone, 1)
    dump = extracted(phone)
    info_size = (dump / "boot_info.txt").stat().st_size
    checked = [FOUND, verified(chain)]
    assert starts == [
        NO_CRASH,
        [CRASHED.format(1), *checked, saved("boot_info.txt", info_size),
         saved("ramoops.bin", firmware.LOG_SIZE), saved("ddr_cs0.bin", MEMORY * MIB), SAVED,
         STARTING],
        [CRASHED.format(2), *checked, PENDING, STARTING],
        [CRASHED.format(3), *checked, PENDING, STARTING],
        ["crashed again, and 3 starts in a row have tried a dump: plain start, nothing is saved",
         STARTING]]
    written = [reset["written_bytes"] for reset in result["resets"]]
    assert written[0] < written[1] == written[2] == written[3]

    compare_ram(dump, tmp_path / "ram/1.bin")
    ram = (tmp_path / "ram/1.bin").read_bytes()
    page = PATTERN * (BLOCK // len(PATTERN))
    filled = sum(ram[at:at + BLOCK] == page for at in range(0, len(ram), BLOCK)) * BLOCK
    node = r"reg = <0 (0x\w+) 0 (0x\w+)>"
    reserved = [" ".join(words) for words in re.findall(node, firmware.reserved_nodes(MEMORY))]
    kept = sum(int(words.split()[1], 16) for words in reserved)
    assert filled > (MEMORY * MIB - kept) / 4
    assert boot_info(dump)["reserved"] == reserved
    assert b"sysrq triggered crash" in (dump / "ramoops.bin").read_bytes()
    offset = re.search(r"Kernel Offset: (\w+)", (phone / "console").read_text("latin-1"))[1]
    assert offset not in ("disabled", "0x0")


def test_hang_and_power_cut(tmp_path):
    """A reboot is no crash, a hang is one; power that goes in the middle of a dump leaves none."""
    phone = make(tmp_path, "f2fs", 3 * MEMORY + 300)
    (tmp_path / "ram").mkdir()
    _, starts = crash(phone, ["reboot", "hang", "panic"], WHOLE_MAP, "--cut-power", "--save-ram",
                      tmp_path / "ram")
    check_chain(phone, 1)
    assert starts[:2] == [NO_CRASH, NO_CRASH]
    assert SAVED in starts[2]
    assert starts[3][-1].startswith("ramoops.bin")  # in the middle of the RAM
    device("boot", phone)
    assert "parsing ramdump" not in (phone / "log").read_text("latin-1")
    check_chain(phone, 1)
    compare_ram(extracted(phone), tmp_path / "ram/2.bin")


def test_refusals(tmp_path):
    """No chain, one that is too small for the RAM, and one that has lost a block."""
    phone = make(tmp_path, "ext4", 400)
    result, starts = crash(phone, ["early-panic", "panic", "panic", "early-panic"], 64 * MIB,
                           "--log-writes", tmp_path / "log", "--after",
                           write_text(tmp_path / "lose", LOSE_BLOCK))
    first = anchor_of(phone)[1]
    assert starts[1][2:] == [
        "nothing saved: the anchor's magic is not there",
        f"  position 0, block 0, offset {ANCHOR} of misc, expected 0x72644842, found 0x0", STARTING]
    dump = extracted(phone)
    assert starts[2][3:] == [
        saved("boot_info.txt", (dump / "boot_info.txt").stat().st_size),
        saved("ramoops.bin", firmware.LOG_SIZE),
        f"ddr_cs0.bin: {MEMORY * MIB} bytes left out: they do not fit in what is left of the chain",
        SAVED, STARTING]
    assert sorted(path.name for path in dump.iterdir()) == ["boot_info.txt", "ramoops.bin"]
    info = boot_info(dump)
    assert "ram" not in info and info["ram-left-out"] == [
        f"ddr_cs0.bin {firmware.RAM_START:#x} {MEMORY * MIB:#x}"]
    refusal = ["nothing saved: a block of the chain has lost its magic",
               f"  position 100, block {first + 100}, offset {(first + 100) * BLOCK} of userdata, "
               "expected 0x6e684342, found 0x0", STARTING]
    assert starts[3][2:] == starts[4][2:] == refusal
    written = [reset["written_bytes"] for reset in result["resets"]]
    assert written[0] == 0 and written[2] == written[3]
    check_order(read_log(tmp_path / "log"), first)


def check_order(entries, first):
    """The dump's blocks, flush, the flag, flush; then none of them changes before the flag does."""
    misc = MISC_START // BLOCK

    def flags(entry):
        return struct.unpack_from("<I", entry[misc], ANCHOR + 20)[0] if misc in entry else None

    flag = next(at for at, entry in enumerate(entries) if entry and flags(entry) == 3)
    data = max(at for at, entry in enumerate(entries[:flag]) if entry)
    assert DATA_START // BLOCK + first in entries[data]
    assert flag - data > 1 and entries[flag + 1] is None
    after = [entry for entry in entries[flag + 1:] if entry]
    taken = next(at for at, entry in enumerate(after) if flags(entry) == 1)
    assert not any(DATA_START // BLOCK + first in entry for entry in after[:taken])
