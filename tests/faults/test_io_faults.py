"""Errors of the disk, and no space left, at each stage of the tool's runs on the emulated device.

In ./test only the rows marked so; all of them with TARNIX_LONG=1."""

import collections
import os

import pytest

from disks import (CHAIN, CREATE, DATA, DATA_SIZE, MAP, MISC, SERVICE, boot, chain_of, crash,
                   device, device_of, dump_files, holds_dump, load_blocks, look_at, run, write_text)

EIO, NO_SPACE = "Input/output error", "Not enough space available to create ramdump file: " + MAP
FILL, DELETE_MAP = "fallocate -l 50M /data/fill", f"rm -f {MAP}"
# A full disk, for one who may use the space kept for root: no file gets more than 51,200 bytes.
NO_ROOM = """sh -c 'trap "" XFSZ; ulimit -f 100; exec "$@"' sh"""

# What comes of a fault when the next run has none of it.
WORKS = "the next run does what this one was to do"
REBUILD = "the chain stays broken until somebody deletes the map file"
PULL = "the dump is given up, and tarnix-chain still gets it from the chain"

# disk: what the device holds: nothing (new), a chain (ready), a dump (pending). fails: the
# operation and the place, or the write from which on all fail. says: what the log holds, in this
# order. fast: in ./test, on ext4. setup: before the run, on the device. wrap: around the tool.
Fault = collections.namedtuple("Fault", "name disk fails arguments status says after fast fs setup "
                               "wrap", defaults=(False, ("ext4", "f2fs"), "", ""))
EXT4 = ("ext4",)
FAULTS = (
    Fault("misc unreadable", "new", "read misc", CREATE, 0, ["(magic: 0x0)", "Success"], WORKS),
    Fault("misc unreadable", "pending", "read misc", CREATE, 0, ["(magic: 0x0)", "Success"],
          REBUILD),
    Fault("misc unwritable", "new", "write misc", CREATE, 0, ["Success"], WORKS),
    Fault("misc unwritable", "pending", "write misc", SERVICE, 0, ["flag = 0x3", "Success"], WORKS,
          True),
    Fault("dump unreadable", "pending", "read chain", SERVICE, 255,
          [f"error reading: {EIO}", "main: parsing error"], WORKS, True),
    Fault("chain unreadable", "ready", "read chain", ["-t", MAP], 255, [f"error reading: {EIO}"],
          WORKS),
    Fault("chain unreadable for the copy", "ready", "read chain", ["-r", "/data/out", MAP], 255,
          [f"error reading: {EIO}"], WORKS),
    Fault("header not written", "new", "read chain", CREATE, 0,
          [f"error writing: {EIO}", "Success"], REBUILD, True, EXT4),
    Fault("header lost on its way", "new", "write chain", CREATE, 0, ["Success"], REBUILD, fs=EXT4),
    Fault("directory unreadable", "pending", "read directory", CREATE, 255,
          [f"failed to open file:{MAP} for writing: {EIO}", "create_file failed"], WORKS, fs=EXT4),
    Fault("journal unwritable", "pending", "write journal", SERVICE, 0,
          ["Could not open", "Success"], PULL, fs=EXT4),
    *(Fault(f"disk unwritable from write {count}", disk, f"write {count}", arguments, 0,
            ["Success"], WORKS, fs=EXT4) for count in (2, 4, 8) for disk, arguments in
      (("new", CREATE), ("pending", SERVICE))),
    Fault("no space for the map", "new", "", ["-a", "400000000", MAP], 255,
          ["create_file: " + NO_SPACE, "create_file failed"], WORKS),
    Fault("no room before the map's end", "new", "", CREATE, 255,
          ["error writing: File too large", "create_file failed"], WORKS, wrap=NO_ROOM),
    Fault("no space for the dump", "pending", "", SERVICE, 255, [NO_SPACE, "main: parsing error"],
          WORKS, fs=EXT4, setup=FILL),
    Fault("no room before a dump file's end", "pending", "", SERVICE, 0,
          ["Could not write", "Success"], PULL, True, EXT4, wrap=NO_ROOM),
)
ROWS = [pytest.param(fault, fs, id=f"{fault.name}, {fault.disk}, {fs}") for fault in FAULTS
        for fs in fault.fs if fault.fast and fs == "ext4" or os.environ.get("TARNIX_LONG")]


@pytest.fixture(scope="module", name="made")
def fixture_made(tmp_path_factory):
    """What gives for a file system a device folder and {what the disk holds: its blocks}."""
    made = {}

    def make(fs):
        if fs not in made:
            folder, disks = tmp_path_factory.mktemp(fs) / "device", {}
            device("make", folder, "--fs", fs, "--size", DATA_SIZE)
            disks["new"] = load_blocks(folder / "disk.img")
            boot(folder, "--", *CREATE)
            disks["ready"] = load_blocks(folder / "disk.img")
            crash(folder, 0)
            disks["pending"] = load_blocks(folder / "disk.img")
            made[fs] = folder, disks
        return made[fs]
    return make


def rules(fails, disks, folder):
    """The faults as rules of QEMU's blkdebug, whose sectors have 512 bytes."""
    operation, _, place = fails.partition(" ")
    error = '[inject-error]\nevent = "{}"\niotype = "{}"\n{} = "{}"\n'.format
    if not place:
        return ""
    if place.isdigit():
        last = int(place) + 1
        return "".join(f'[set-state]\nevent = "pwritev"\nstate = "{n}"\nnew_state = "{n + 1}"\n'
                       for n in range(1, last)) + error("pwritev", "write", "state", last)
    if place == "misc":
        block = MISC[0]
    elif place == "chain":
        # Within the dump. A new disk's map file comes to lie where it lay in the other run.
        block = DATA[0] + chain_of(disks["ready"])[20]
    else:
        inode, index = ("/vendor/ramdump", 0) if place == "directory" else ("<8>", 1)
        image = f"{folder}/disk.img?offset={DATA[0] * 4096}"
        block = DATA[0] + int(run("debugfs", "-R", f"blocks {inode}", image).stdout.split()[index])
    return error("none", operation, "sector", block * 8)


@pytest.mark.parametrize("fault,fs", ROWS)
def test_fault(fault, fs, made, tmp_path):
    original, disks = made(fs)
    with device_of(original, disks[fault.disk]) as folder:
        def next_run(setup, arguments):
            boot(folder, "--before", write_text(tmp_path / "setup", setup), "--", *arguments)
            return look_at(fs, load_blocks(f"{folder}/disk.img"), tmp_path, saw_errors=True)

        rule_file = write_text(tmp_path / "rules", rules(fault.fails, disks, folder))
        log = boot(folder, "--blkdebug", rule_file, "--before",
                   write_text(tmp_path / "setup", fault.setup), "--wrap", fault.wrap, "--",
                   *fault.arguments, accept=(fault.status,)).stderr
        position = 0
        for line in fault.says:
            position = log.find(line, position) + 1
            assert position, f"not said: {line}\n{log}"

        disk = look_at(fs, load_blocks(f"{folder}/disk.img"), tmp_path, saw_errors=True)
        pending = fault.disk == "pending"
        if fault.after == PULL:
            assert disk.flags == 1 and not holds_dump(disk, 0)
            # 1: with its flag taken away, no dump is known to be whole.
            run(CHAIN, "pull", "--disk", f"{folder}/disk.img", tmp_path / "pulled", accept=(1,))
            assert {path.name: path.read_bytes() for path in (tmp_path / "pulled").iterdir()
                    } == dump_files(0)
            return
        if fault.after == WORKS:
            assert disk.flags == {"new": None, "ready": 1, "pending": 3}[fault.disk]
        after = next_run("rm -f /data/fill", SERVICE if pending else CREATE)
        if fault.after == REBUILD:
            assert not after.whole, "no limit any more: say so in docs/testing.md"
            after, pending = next_run(DELETE_MAP, CREATE), False
        assert after.flags == 1 and after.whole, after.verdict
        assert holds_dump(after, 0) == pending
