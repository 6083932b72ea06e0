"""The guard before the service: the map's blocks moved, gone or damaged, with a dump and without."""

import random
import re
import struct

from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET
from emulated import BLOCK, COPY, MAP, MOVE, REWRITE, crash
from phone import (APQ, DATA, MAP_SIZE, MISC, NODES, Step, anchor_of, boot, chain_of, is_untouched,
                   pending, poke)

PAYLOAD = BLOCK - 12
DUMP = {name: random.Random(name).randbytes(size)
        for name, size in {"regs.bin": 5000, "ddr_cs0.bin": 2500000, "last.bin": 1}.items()}
# What the run left: the dump, everybody's files, and the chain once more, every header of it.
LOOK = f"""
    cp -r {APQ} $results/apq || :
    (cd /data && md5sum other first) >$results/others
    /vendor/bin/tarnix-guard --full 2>&1"""
SERVICE = f"-a {MAP_SIZE} {MAP}"
FILL = "fallocate -l $(( $(stat -f -c %a /data) * 4096 - 200000000 )) /data/f\n"

MISSING = f"E the map file is missing: {MAP}"
GOOD = "I the chain is the map file's: N blocks in N runs, N headers read"
PINNED = "I the map file is pinned"
ELSEWHERE = "E map file and chain differ at block N, device block N: the anchor leads elsewhere"
WHOLE = "E the anchor's chain is whole: N blocks"
BEGINS_WELL = "E the anchor's chain is good in its first N blocks"
NO_PLACE = "E map file and chain differ at block N: it has no place"
BAD_CRC = "E map file and chain differ at block N, device block N: bad CRC"
LOST = "E the pending dump is lost: its first block cannot be found"
LEFT = "E the map file holds the pending dump: it is left to the service"
ANEW = f"E anchor and map file are gone, the service makes new ones: {MAP}"
SAVED = "E the pending dump is saved along the links: N blocks"
SIZES_DIFFER = "E the map file has N blocks of N bytes, the chain N of N"
UNSAFE = "E the pending dump is not safe: it stays, and nothing is started: File too large"
STAYS = "E the pending dump cannot be saved: it stays, and nothing is started"
# What the property says behind a line that begins so.
STATES = {"I the chain is the map": "good", "E the anchor's chain breaks": "broken", LEFT: "broken",
          WHOLE: "moved", BEGINS_WELL: "moved", "I no chain to guard": "none"}
PATTERN = "echo 1 >/data/first; dd if=/dev/urandom of=/data/other bs=1M count=4 2>/dev/null\n"


def off(reason):
    return f"E the anchor's chain breaks off behind N of N blocks: {reason}"


def cut(reason):
    return ("E the pending dump is cut: N of N blocks are saved, then the chain breaks off: "
            + reason)


def guarded(before, *log, options="", tool=SERVICE, status=0, after=LOOK):
    """A run of the service's by the guard. log: the guard's."""
    return list(log), Step(f"""{before}
        way='/vendor/bin/tarnix-guard {options} --'
        tarnix {tool}
        getprop vendor.tarnix.chain >$results/chain
        {after}""", status)


def guard_log(text):
    """The guard's lines. Of numbers that depend on the disk's layout only that there is one."""
    lines = re.findall(r"^tarnix_guard ([EI]) [-\d]+ [:\d]+ +\d+ +\d+ (.*)$", text, re.M)
    return [f"{priority} " + re.sub(r"\b\d+\b", "N", message) for priority, message in lines]


def files_of(run):
    return {path.name: path.read_bytes() for path in (run.folder / "apq").rglob("*")
            if path.is_file()}


def boot_guarded(phone, rows):
    """One boot with the rows' runs; each but a refusal must leave a chain that is the map's."""
    runs = boot(phone, [step for _, step in rows])
    state = ""
    for run, (log, step) in zip(runs, rows):
        assert guard_log(run.text) == log
        for line in log:
            state = next((STATES[start] for start in STATES if line.startswith(start)), state)
        assert (run.folder / "chain").read_text() == state
        assert ("tarnix_v3 start!!" in run.text) == (step.status != 3)
        if "--full" in step.script:
            assert GOOD in guard_log(run.shell)
            state = "good"
    assert len({path.read_bytes() for run in runs for path in run.folder.glob("others")}) == 1
    return runs


def test_a_pending_dump_is_saved(prepared):
    phone, _ = prepared
    crash(phone, DUMP)
    flags = f"dd if={MISC} bs=1 skip={ANCHOR_OFFSET + 20} count=1 2>/dev/null >$results/flags\n"
    runs = boot_guarded(phone, [
        # Files get no more than 51,200 bytes: the run is refused.
        guarded(f"{PATTERN}{MOVE}trap '' XFSZ\nulimit -f 100", ELSEWHERE, WHOLE, UNSAFE, status=3,
                after=""),
        guarded("", ELSEWHERE, WHOLE, SAVED, ANEW),
        # No room: the run is refused, map and flag stay.
        guarded(pending() + COPY + FILL, ELSEWHERE, WHOLE, STAYS, status=3,
                after=f"[ -e {MAP} ]\nrm /data/f\n{flags}"),
        # The same chain, which holds no file.
        guarded("", ELSEWHERE, WHOLE, SAVED, ANEW),
    ])
    assert files_of(runs[1]) == DUMP and files_of(runs[3]) == {}
    assert (runs[2].folder / "flags").read_bytes() == b"\3"

    chain, broken = chain_of(phone), 70  # a block within the second file
    crash(phone, DUMP)
    runs = boot_guarded(phone, [
        guarded(PATTERN + poke(DATA, chain[broken] * BLOCK, b"gone"),
                BAD_CRC.replace("CRC", "magic"), off("bad magic"), cut("bad magic"), ANEW,
                options="--full"),
        # Nothing of it can be reached: the files of the dump before stay.
        guarded(pending() + poke(MISC, ANCHOR_OFFSET + 4, bytes(4)), ELSEWHERE,
                off("it ends too early"), LOST, ANEW),
    ])
    saved = broken * PAYLOAD - (40 + len(DUMP["regs.bin"])) - 40
    cut_short = {"regs.bin": DUMP["regs.bin"], "ddr_cs0.bin": DUMP["ddr_cs0.bin"][:saved]}
    assert files_of(runs[0]) == files_of(runs[1]) == cut_short
    assert is_untouched(phone) and len(chain_of(phone)) == MAP_SIZE // BLOCK


def test_a_copied_map(prepared):
    phone, chain = prepared
    first = "echo 1 | tee /data/other >/data/first\n"  # little: the old blocks may be free
    left = LOOK.replace("/vendor/bin/tarnix-guard --full 2>&1", "")  # put right at the next start

    def lose(block):
        return poke(DATA, block * BLOCK, b"gone")

    # Copied before the crash, and an old block given away after it: the copy knows nothing of it.
    boot(phone, [Step(f"{COPY}tarnix -t {MAP}")])
    crash(phone, DUMP)
    runs = boot_guarded(phone, [
        guarded(first + lose(chain[70]), ELSEWHERE, off("bad magic"), cut("bad magic"), ANEW)])
    assert files_of(runs[0])["regs.bin"] == DUMP["regs.bin"]
    # Left to the service, which goes by the file's own blocks:
    chain = chain_of(phone)
    for rows in [
        # the file was copied after the crash. What is in its old blocks then, now free, depends on
        # the file system;
        [guarded(first + COPY + lose(chain[70]), ELSEWHERE, off("bad magic"), LEFT, after=left),
         guarded(poke(MISC, ANCHOR_OFFSET, bytes(4)), "I no chain to guard")],
        # the anchor's seed is lost;
        [guarded(first + poke(MISC, ANCHOR_OFFSET + 16, bytes(4)), BAD_CRC, LEFT, after=left),
         guarded("", BAD_CRC, off("bad CRC"), ANEW)],
        # its first block is.
        [guarded(first + poke(MISC, ANCHOR_OFFSET + 4, bytes(4)), ELSEWHERE,
                 off("it ends too early"),
                 "E the map file begins with a dump: it is left to the service", after=left),
         guarded("", ELSEWHERE, off("it ends too early"), ANEW)],
    ]:
        crash(phone, DUMP)
        runs = boot_guarded(phone, rows)
        assert files_of(runs[0]) == files_of(runs[1]) == DUMP
    # No old block tells whether the file was copied after the crash: somebody has to choose.
    chain = chain_of(phone)
    crash(phone, DUMP)
    boot_guarded(phone, [
        guarded(first + COPY + lose(chain[0]), ELSEWHERE, off("bad magic"),
                "E the map file may hold the pending dump: it stays, and nothing is started",
                status=3, after=f"[ -e {MAP} ]\n"),
        guarded(f"rm {MAP}", MISSING, off("bad magic"), LOST, ANEW),
    ])
    assert is_untouched(phone) and len(chain_of(phone)) == MAP_SIZE // BLOCK


def test_nothing_is_pending(prepared, request):
    phone, _ = prepared
    good = [GOOD, PINNED] if "f2fs" in request.node.name else [GOOD]
    other_device = struct.pack("<6I", ANCHOR_MAGIC, 1000, 512, 1 << 31, 7, 1)
    boot_guarded(phone, [
        guarded(PATTERN, *good, tool=f"-t {MAP}", after=REWRITE + LOOK),
        guarded(f"rm {MAP}", MISSING, BEGINS_WELL, ANEW),
        guarded(COPY, ELSEWHERE, BEGINS_WELL, ANEW),
        guarded(f"truncate -s 100000 {MAP}", SIZES_DIFFER, BEGINS_WELL, ANEW),
        # A hole, and a block that the file system has not written.
        guarded(f"truncate -s {BLOCK} {MAP}\ntruncate -s {MAP_SIZE} {MAP}", NO_PLACE, BEGINS_WELL,
                ANEW),
        guarded(f"rm {MAP}\nfallocate -l {MAP_SIZE} {MAP}", NO_PLACE, BEGINS_WELL, ANEW),
        guarded(poke(MISC, ANCHOR_OFFSET, other_device), SIZES_DIFFER, off("Invalid argument"),
                ANEW),
        guarded(poke(MISC, ANCHOR_OFFSET, bytes(4)), "I no chain to guard"),
        # What keeps it from looking does not keep the service from running.
        guarded(f"""cp {MAP} /tmp/map
                cp /fstab.virt /fstab.kept
                echo '{NODES}userdata /tmp tmpfs defaults wait' >>/fstab.virt""",
                "E cannot look at the map file's blocks: FIEMAP: Operation not supported",
                options="/tmp/map"),
        guarded("mv /fstab.virt /fstab.gone", "E cannot look: no fstab", status=1,
                after="mv /fstab.kept /fstab.virt"),
        guarded("setprop ro.sf 1", after="setprop ro.sf 0"),
        guarded("", *good),
    ])
    assert is_untouched(phone) and anchor_of(phone)[5] == 1
    assert len(chain_of(phone)) == MAP_SIZE // BLOCK
