"""Blocks that fail, and files that cannot grow, in the tool's runs on the emulated device.

In ./test only the rows marked so; all of them with TARNIX_LONG=1."""

import collections
import os

import pytest

from disks import (CREATE, DATA, DATA_SIZE, MISC, SERVICE, anchor_of, chain_of, device_of,
                   dump_files, load_blocks, start)
from emulated import BLOCK, CHAIN, MAP, crash, device, run, write_text

EIO = "Input/output error"
# A full disk, for one who may use the space kept for root: no file gets more than 51,200 bytes.
NO_ROOM = """sh -c 'trap "" XFSZ; ulimit -f 100; exec "$@"' sh"""

# What comes of a fault when the next run has none of it.
WORKS = "the next run does what this one was to do"
REBUILD = "the chain stays broken until somebody deletes the map file"
PULL = "the dump is given up, and tarnix-chain still gets it from the chain"

# holds: what the device has, nothing (new) or a dump (pending); a run is to make a chain or files
# of it. fails: read or write, and of what. says: what the log has, in this order. fast: in ./test.
# wrap: around the tool.
Fault = collections.namedtuple("Fault", "holds fails says after arguments status wrap fast",
                               defaults=(None, 0, "", False))
FAULTS = {
    "misc unreadable": Fault("pending", "read misc", ["(magic: 0x0)", "Success"], REBUILD, CREATE),
    "misc unwritable, nothing there": Fault("new", "write misc", ["Success"], WORKS),
    "misc unwritable, a dump pending": Fault(
        "pending", "write misc", ["flag = 0x3", "Success"], WORKS, fast=True),
    "dump unreadable": Fault(
        "pending", "read chain", [f"error reading: {EIO}", "main: parsing error"], WORKS,
        status=255, fast=True),
    "header not written": Fault(
        "new", "read chain", [f"error writing: {EIO}", "Success"], REBUILD, fast=True),
    "header lost on its way": Fault("new", "write chain", ["Success"], REBUILD),
    "no room before the map's end": Fault(
        "new", "", ["error writing: File too large", "create_file failed"], WORKS, status=255,
        wrap=NO_ROOM),
    "no room before a dump file's end": Fault(
        "pending", "", ["Could not write", "Success"], PULL, wrap=NO_ROOM, fast=True),
}


@pytest.fixture(scope="module", name="made")
def fixture_made(tmp_path_factory):
    """A device folder, and its blocks by what the disk holds."""
    folder, disks = tmp_path_factory.mktemp("made") / "device", {}
    device("make", folder, "--size", DATA_SIZE)
    disks["new"] = load_blocks(folder)
    device("boot", folder, "--", *CREATE)
    crash(folder, dump_files(0))
    disks["pending"] = load_blocks(folder)
    return folder, disks


def rule(fails, disks):
    """The fault as a rule of QEMU's blkdebug, whose sectors have 512 bytes."""
    if not fails:
        return ""
    operation, place = fails.split()
    # Within the dump. A new disk's map file comes to lie where it lay in the other run.
    block = MISC if place == "misc" else DATA + chain_of(disks["pending"])[0][20]
    return (f'[inject-error]\nevent = "none"\niotype = "{operation}"\n'
            f'sector = "{block * BLOCK // 512}"\n')


@pytest.mark.parametrize("name", (name for name, fault in FAULTS.items()
                                  if fault.fast or os.environ.get("TARNIX_LONG")))
def test_fault(name, made, tmp_path):
    fault, (original, disks) = FAULTS[name], made
    purpose = CREATE if fault.holds == "new" else SERVICE
    with device_of(original, disks[fault.holds]) as folder:
        rule_file = write_text(tmp_path / "rule", rule(fault.fails, disks))
        log = device("boot", folder, "--blkdebug", rule_file, "--wrap", fault.wrap, "--",
                     *(fault.arguments or purpose), accept=[fault.status]).stderr
        lines = iter(log.splitlines())
        assert not [said for said in fault.says if not any(said in line for line in lines)], log

        anchor = anchor_of(load_blocks(folder))
        if fault.after == PULL:
            assert anchor[5] == 1
            # 1: with its flag taken away, no dump is known to be whole.
            run(CHAIN, "pull", "--disk", f"{folder}/disk.img", tmp_path / "pulled", accept=(1,))
            assert {path.name: path.read_bytes() for path in (tmp_path / "pulled").iterdir()
                    } == dump_files(0)
            return
        if fault.after == WORKS:
            assert anchor == anchor_of(disks[fault.holds])
        phone = start(folder, "--", *purpose)
        if fault.after == REBUILD:
            assert not phone.whole, "no limit any more: say so in docs/testing.md"
            delete = write_text(tmp_path / "delete", f"rm {MAP}")
            phone = start(folder, "--before", delete, "--", *CREATE)
        assert phone.flags == 1 and phone.whole
        assert (phone.dump == dump_files(0)) == (fault.after == WORKS and fault.holds == "pending")
