"""The guard before the service: the map's blocks moved, gone or damaged, with a dump and without."""

import random
import re
import struct
from pathlib import Path

import pytest
from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET
from emulated import BLOCK, MAP, compile_for_device, crash
from phone import (APQ, DATA, MAP_SIZE, MISC, NODES, Step, anchor_of, boot, chain_of, is_untouched,
                   pending, poke)

PAYLOAD = BLOCK - 12
DUMP = {name: random.Random(name).randbytes(size)
        for name, size in {"regs.bin": 5000, "ddr_cs0.bin": 2500000, "last.bin": 1}.items()}
# f2fs on so small a disk writes in place otherwise.
MOVE = f"""
    [ ! -e /sys/fs/f2fs/vda5/ipu_policy ] || echo 0 >/sys/fs/f2fs/vda5/ipu_policy
    echo 3 >/proc/sys/vm/drop_caches
    move_blocks --unpin {MAP}
    """
# What the run left: the dump, everybody's files, and the chain once more, every header of it.
LOOK = f"""
    cp -r {APQ} $results/apq || :
    (cd /data && md5sum other first) >$results/others
    /vendor/bin/tarnix-guard --full 2>&1"""
SERVICE = f"-a {MAP_SIZE} {MAP}"
FILL = "fallocate -l $(( $(stat -f -c %a /data) * 4096 - 200000000 )) /data/f\n"

GOOD = "I the chain is the map file's: N blocks in N runs, N headers read"
PINNED = "I the map file is pinned"
ELSEWHERE = "E map file and chain differ at block N, device block N: the anchor leads elsewhere"
WHOLE = "E the anchor's chain is whole: N blocks"
BEGINS_WELL = "E the anchor's chain is good in its first N blocks"
NO_PLACE = "E map file and chain differ at block N: it has no place"
LEFT = "E the map file holds the pending dump: it is left to the service"
ANEW = f"E anchor and map file are gone, the service makes new ones: {MAP}"
SAVED = "E the pending dump is saved along the links: N blocks"
SIZES_DIFFER = "E the map file has N blocks of N bytes, the chain N of N"
UNSAFE = "E the pending dump is not safe: it stays, and nothing is started: File too large"
STAYS = "E the pending dump cannot be saved: it stays, and nothing is started"


def guarded(before, *log, options="", tool=SERVICE, status=0, chain=None, after=LOOK):
    """A run of the service's by the guard. log: the guard's; chain: what its property then says."""
    step = Step(f"""{before}
        way='/vendor/bin/tarnix-guard {options} --'
        tarnix {tool}
        getprop vendor.tarnix.chain >$results/chain
        {after}""", status)
    return step, list(log), chain


def guard_log(text):
    """The guard's lines. Of numbers that depend on the disk's layout only that there is one."""
    lines = re.findall(r"^tarnix_guard ([EI]) [-\d]+ [:\d]+ +\d+ +\d+ (.*)$", text, re.M)
    return [f"{priority} " + re.sub(r"\b\d+\b", "N", message) for priority, message in lines]


def files_of(run):
    return {path.name: path.read_bytes() for path in (run.folder / "apq").rglob("*")
            if path.is_file()}


def boot_guarded(phone, helper, rows):
    """One boot with the rows' runs; each but a refusal must leave a chain that is the map's."""
    runs = boot(phone, [step for step, _, _ in rows], "--file", f"/bin/move_blocks={helper}")
    for run, (step, log, chain) in zip(runs, rows):
        assert guard_log(run.text) == log
        assert (run.folder / "chain").read_text() == (chain or "")
        assert ("tarnix_v3 start!!" in run.text) == (step.status != 3)
        if "--full" in step.script:
            assert GOOD in guard_log(run.shell)
    others = {(run.folder / "others").read_bytes() for run in runs
              if (run.folder / "others").exists()}
    assert len(others) == 1
    return runs


@pytest.fixture(name="helper", scope="session")
def fixture_helper(tmp_path_factory):
    source = Path(__file__).parent / "move_blocks.c"
    return compile_for_device(source, tmp_path_factory.mktemp("helper") / "move_blocks")


def test_a_pending_dump_is_saved(prepared, helper):
    phone, chain = prepared
    crash(phone, DUMP)
    first = "echo 1 >/data/first; dd if=/dev/urandom of=/data/other bs=1M count=4 2>/dev/null\n"
    flags = f"dd if={MISC} bs=1 skip={ANCHOR_OFFSET + 20} count=1 2>/dev/null >$results/flags\n"
    runs = boot_guarded(phone, helper, [
        # Files get no more than 51,200 bytes: the run is refused.
        guarded(f"{first}{MOVE}trap '' XFSZ\nulimit -f 100", ELSEWHERE, WHOLE, UNSAFE, status=3,
                chain="moved", after=""),
        guarded("", ELSEWHERE, WHOLE, SAVED, ANEW, chain="moved"),
        # No room: the run is refused, map and flag stay.
        guarded(pending() + MOVE + FILL, ELSEWHERE, WHOLE, STAYS, status=3, chain="moved",
                after=f"[ -e {MAP} ]\nrm /data/f\n{flags}"),
        # The same chain, which holds no file.
        guarded("", ELSEWHERE, WHOLE, SAVED, ANEW, chain="moved"),
    ])
    assert files_of(runs[1]) == DUMP and files_of(runs[3]) == {}
    assert (runs[2].folder / "flags").read_bytes() == b"\3"

    chain, cut = chain_of(phone), 70  # a block within the second file
    crash(phone, DUMP)
    runs = boot_guarded(phone, helper, [
        guarded(first + poke(DATA, chain[cut] * BLOCK, b"gone"),
                "E map file and chain differ at block N, device block N: bad magic",
                "E the anchor's chain breaks off behind N of N blocks: bad magic",
                "E the pending dump is cut: N of N blocks are saved, then the chain breaks off: "
                "bad magic", ANEW, options="--full", chain="broken"),
        # Nothing of it can be reached: the files of the dump before stay.
        guarded(pending() + poke(MISC, ANCHOR_OFFSET + 4, bytes(4)), ELSEWHERE,
                "E the anchor's chain breaks off behind N of N blocks: it ends too early",
                "E the pending dump is lost: its first block cannot be found", ANEW,
                chain="broken"),
    ])
    saved = cut * PAYLOAD - (40 + len(DUMP["regs.bin"])) - 40
    cut_short = {**DUMP, "ddr_cs0.bin": DUMP["ddr_cs0.bin"][:saved]}
    del cut_short["last.bin"]
    assert files_of(runs[0]) == files_of(runs[1]) == cut_short

    assert is_untouched(phone) and len(chain_of(phone)) == MAP_SIZE // BLOCK


def test_a_copied_map(prepared, helper):
    phone, chain = prepared
    first, cut = "echo 1 | tee /data/other >/data/first\n", 70
    copy = f"cp {MAP} {MAP}.copy\nmv {MAP}.copy {MAP}\nsync\n"
    off = "E the anchor's chain breaks off behind N of N blocks: bad magic"
    left = LOOK.replace("/vendor/bin/tarnix-guard --full 2>&1", "")  # put right at the next start
    # Copied before the crash, and an old block given away after it: the copy knows nothing of it.
    boot(phone, [Step(f"{copy}tarnix -t {MAP}")])
    crash(phone, DUMP)
    runs = boot_guarded(phone, helper, [
        guarded(first + poke(DATA, chain[cut] * BLOCK, b"gone"), ELSEWHERE, off,
                "E the pending dump is cut: N of N blocks are saved, then the chain breaks off: "
                "bad magic", ANEW, chain="broken")])
    assert files_of(runs[0])["regs.bin"] == DUMP["regs.bin"]
    # Copied after it: the copy's own blocks are the dump.
    chain = chain_of(phone)
    crash(phone, DUMP)
    runs = boot_guarded(phone, helper, [
        guarded(first + copy + poke(DATA, chain[cut] * BLOCK, b"gone"), ELSEWHERE, off,
                LEFT, chain="broken", after=left),
        # Its old blocks are free by then: what they hold depends on the file system.
        guarded(poke(MISC, ANCHOR_OFFSET, bytes(4)), "I no chain to guard", chain="none"),
    ])
    assert files_of(runs[0]) == files_of(runs[1]) == DUMP
    # The anchor's seed, or its first block, is lost: the service needs neither.
    crash(phone, DUMP)
    crc = "E map file and chain differ at block N, device block N: bad CRC"
    runs = boot_guarded(phone, helper, [
        guarded(first + poke(MISC, ANCHOR_OFFSET + 16, bytes(4)), crc, LEFT,
                chain="broken", after=left),
        guarded("", crc, off.replace("magic", "CRC"), ANEW, chain="broken"),
    ])
    assert files_of(runs[0]) == files_of(runs[1]) == DUMP
    crash(phone, DUMP)
    short = off.replace("bad magic", "it ends too early")
    runs = boot_guarded(phone, helper, [
        guarded(first + poke(MISC, ANCHOR_OFFSET + 4, bytes(4)), ELSEWHERE, short,
                "E the map file begins with a dump: it is left to the service",
                chain="broken", after=left),
        guarded("", ELSEWHERE, short, ANEW, chain="broken"),
    ])
    assert files_of(runs[0]) == files_of(runs[1]) == DUMP
    # No old block tells whether the file was copied after the crash: somebody has to choose.
    chain = chain_of(phone)
    crash(phone, DUMP)
    boot_guarded(phone, helper, [
        guarded(first + copy + poke(DATA, chain[0] * BLOCK, b"gone"), ELSEWHERE, off,
                "E the map file may hold the pending dump: it stays, and nothing is started",
                status=3, chain="broken", after=f"[ -e {MAP} ]\n"),
        guarded(f"rm {MAP}", f"E the map file is missing: {MAP}", off,
                "E the pending dump is lost: its first block cannot be found", ANEW,
                chain="broken"),
    ])
    assert is_untouched(phone) and len(chain_of(phone)) == MAP_SIZE // BLOCK


def test_nothing_is_pending(prepared, helper, request):
    phone, chain = prepared
    good = [GOOD] + ([PINNED] if "f2fs" in request.node.name else [])
    first = "echo 1 >/data/first; dd if=/dev/urandom of=/data/other bs=1M count=4 2>/dev/null\n"
    stays = "".join(f"\n[ \"$(move_blocks {MAP} 2>&1)\" = '{MAP}: nothing has moved' ]"
                    for _ in good[1:])
    other_device = struct.pack("<6I", ANCHOR_MAGIC, 1000, 512, 1 << 31, 7, 1)
    boot_guarded(phone, helper, [
        guarded(first, *good, tool=f"-t {MAP}", chain="good", after=stays + LOOK),
        guarded(MOVE, ELSEWHERE, BEGINS_WELL, ANEW, chain="moved"),
        guarded(f"rm {MAP}", f"E the map file is missing: {MAP}", BEGINS_WELL, ANEW,
                chain="moved"),
        guarded(f"cp {MAP} {MAP}.copy\nmv {MAP}.copy {MAP}", ELSEWHERE, BEGINS_WELL, ANEW,
                chain="moved"),
        guarded(f"truncate -s 100000 {MAP}", SIZES_DIFFER, BEGINS_WELL, ANEW, chain="moved"),
        # A hole, and a block that the file system has not written.
        guarded(f"truncate -s {BLOCK} {MAP}\ntruncate -s {MAP_SIZE} {MAP}",
                NO_PLACE, BEGINS_WELL, ANEW, chain="moved"),
        guarded(f"rm {MAP}\nfallocate -l {MAP_SIZE} {MAP}", NO_PLACE, BEGINS_WELL, ANEW,
                chain="moved"),
        guarded(poke(MISC, ANCHOR_OFFSET, other_device), SIZES_DIFFER,
                "E the anchor's chain breaks off behind N of N blocks: Invalid argument", ANEW,
                chain="broken"),
        guarded(poke(MISC, ANCHOR_OFFSET, bytes(4)), "I no chain to guard", chain="none"),
        # What keeps it from looking does not keep the service from running.
        guarded(f"""cp {MAP} /tmp/map
                cp /fstab.virt /fstab.kept
                echo '{NODES}userdata /tmp tmpfs defaults wait' >>/fstab.virt""",
                "E cannot look at the map file's blocks: FIEMAP: Operation not supported",
                options="/tmp/map", chain="good"),
        guarded("mv /fstab.virt /fstab.gone", "E cannot look: no fstab", status=1, chain="good",
                after="mv /fstab.kept /fstab.virt"),
        guarded("setprop ro.sf 1", chain="good", after="setprop ro.sf 0"),
        guarded("", *good, chain="good"),
    ])
    assert is_untouched(phone) and anchor_of(phone)[5] == 1
    assert len(chain_of(phone)) == MAP_SIZE // BLOCK
