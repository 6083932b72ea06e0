"""The emulated device's disks in the fault tests: taken apart, put together, and started from.

Every failure is an AssertionError whose message says what broke."""

import collections
import contextlib
import os
import random
import struct
import sys
import tempfile
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[1] / "emulator"))
from emulated import BLOCK, DATA_START, MAP, MISC_START, device, walk, write_text

DATA_SIZE = 360 << 20  # an extraction asks for 256 MiB of free space
# Where the partitions begin, in blocks. A write is torn between two blocks, never inside one.
MISC, DATA = MISC_START // BLOCK, DATA_START // BLOCK
HOLE = bytes(BLOCK)
CREATE, SERVICE = ["-a", str(1 << 20), MAP], ["-s", MAP]
APQ = "/data/vendor/ramdump/apq"
LOOK = f"""
echo 3 >/proc/sys/vm/drop_caches
cp {MAP} /host/map
[ -e {APQ} ] || exit 0
cp -r {APQ} /host
find {APQ} -type f -exec stat -c %a {{}} + >/host/modes
"""


def dump_files(number):
    """The files of a crash, by name: of many blocks, of two, and of the least there is."""
    rng = random.Random(number)
    return {f"ddr{number}.bin": rng.randbytes(300000), "regs.bin": rng.randbytes(5000 + number),
            "one.bin": rng.randbytes(1)}


def load_blocks(folder):
    """A device's disk as {block number: its bytes}, without the blocks that are zeros."""
    with open(f"{folder}/disk.img", "rb", buffering=1 << 20) as disk:
        blocks = enumerate(iter(lambda: disk.read(BLOCK), b""))
        return {at: block for at, block in blocks if block != HOLE}


def save_blocks(path, blocks):
    with open(path, "wb") as disk:
        for at, block in blocks.items():
            os.pwrite(disk.fileno(), block, at * BLOCK)


@contextlib.contextmanager
def device_of(original, blocks):
    """A device folder like the original, with this disk."""
    with tempfile.TemporaryDirectory(dir=original) as folder:
        for name in ("device.json", "root"):
            os.symlink(f"{original}/{name}", f"{folder}/{name}")
        save_blocks(f"{folder}/disk.img", blocks)
        yield folder


def anchor_of(blocks):
    """The anchor's six fields: magic, first block, block length, count, seed, flags."""
    return struct.unpack_from("<6I", blocks.get(MISC, HOLE), 3184)


def chain_of(blocks):
    """The chain's blocks, as numbers on the data partition, and whether it is right."""
    return walk(anchor_of(blocks), lambda at: blocks.get(DATA + at, HOLE)[:12])


# flags: the anchor's; whole: the chain is right, and its blocks are the map file's, in order;
# dump: name -> bytes of the newest dump directory's files; modes: those of all, in octal.
Phone = collections.namedtuple("Phone", "flags whole dump modes")


def start(folder, *options):
    """Starts the device, which must end with status 0, and looks at what it has then."""
    device("boot", folder, "--after", write_text(f"{folder}/look", LOOK), *options)
    blocks, boot = load_blocks(folder), Path(folder, "boot")
    chain, is_right = chain_of(blocks)
    # No two headers are the same, so this holds each block to its place.
    is_map = (boot / "map").read_bytes() == b"".join(blocks.get(DATA + at, HOLE) for at in chain)
    if not (boot / "apq").exists():
        return Phone(anchor_of(blocks)[5], is_right and is_map, {}, set())
    newest = max((boot / "apq").iterdir(), key=lambda path: int(path.name))
    return Phone(anchor_of(blocks)[5], is_right and is_map,
                 {path.name: path.read_bytes() for path in newest.iterdir()},
                 set((boot / "modes").read_text().split()))
