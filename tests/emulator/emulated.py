"""The emulated device as the tests have it: its command, a crash, and its disk while it is off."""

import os
import struct
import subprocess
import sys
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.append(f"{REPO}/tests/tools")
from chain_image import ANCHOR_MAGIC, BLOCK, headers

SYSROOT = os.environ.get("TARNIX_EMULATOR_CACHE", f"{REPO}/build/emulator") + "/sysroot"
CHAIN = os.environ.get("TARNIX_CHAIN", f"{REPO}/build/native/tools/tarnix-chain")
KERNEL = os.environ.get("TARNIX_KERNEL", "bookworm")
EMULATOR_FAILED = 125

MAP = "/data/vendor/ramdump/ramdump.map"
# Where the partitions begin on the disk.
MISC_START, DATA_START = 1 << 20, 8 << 20

# Shell words on the device. f2fs puts what is rewritten elsewhere, on so small a disk only when it
# is told not to write in place; ext4 leaves it where it is.
REWRITE = f"""
    [ ! -e /sys/fs/f2fs/vda5 ] || echo 0 >/sys/fs/f2fs/vda5/ipu_policy
    echo 3 >/proc/sys/vm/drop_caches
    dd if={MAP} of={MAP} bs={BLOCK} conv=notrunc,fsync 2>/dev/null
"""
COPY = f"cp {MAP} {MAP}.copy\nmv {MAP}.copy {MAP}\nsync\n"
# Has all blocks of a map that is not pinned moved: by f2fs itself, on ext4 by a copy.
MOVE = f"{REWRITE}[ -e /sys/fs/f2fs/vda5 ] || {{ {COPY} }}\n"


def run(*command, accept=(0,), **how):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                            errors="replace", check=False, **how)
    assert result.returncode in accept, (f"{' '.join(map(str, command))} ended with status "
                                         f"{result.returncode}:\n{result.stdout}{result.stderr}")
    return result


def device(command, folder, *arguments, accept=(0,)):
    kernel = ("--kernel", KERNEL) if command == "make" else ()
    return run(f"{REPO}/emulator/device", command, folder, *kernel, *arguments, accept=accept)


def write_text(path, text):
    Path(path).write_text(text, "utf-8")
    return path


def crash(folder, files):
    """The boot side writes a dump of name -> bytes."""
    for name, content in files.items():
        Path(folder, name).write_bytes(content)
    run(CHAIN, "write", "--disk", f"{folder}/disk.img",
        *(f"{name}={folder}/{name}" for name in files))


def read_disk(folder, offset, size):
    with open(f"{folder}/disk.img", "rb") as disk:
        disk.seek(offset)
        return disk.read(size)


def walk(anchor, read_header):
    """The blocks of the chain of an anchor's six fields by their links, and whether it is right.
    read_header: gives the 12 bytes at the start of a block."""
    chain, found, following = [], [], anchor[1]
    while following != 0 and len(chain) < anchor[3]:
        chain.append(following)
        found.append(read_header(following))
        following = struct.unpack("<III", found[-1])[1]
    ends = (anchor[0], *anchor[2:4], following) == (ANCHOR_MAGIC, BLOCK, len(chain), 0)
    return chain, ends and found == headers(chain, anchor[4])


def read_log(path):
    """What --log-writes logged: {block: bytes} of a write, None for a flush."""
    log = Path(path).read_bytes()
    _, _, count, sector_size = struct.unpack_from("<QQQI", log)
    position, entries = sector_size, []
    for _ in range(count):
        sector, sectors, flags, _ = struct.unpack_from("<QQQQ", log, position)
        position += sector_size
        size = 0 if flags & 4 else sectors * sector_size  # what is discarded may as well stay
        if size:
            first, rest = divmod(sector * sector_size, BLOCK)
            assert rest == 0 and size % BLOCK == 0
            entries.append({first + at // BLOCK: log[position + at:position + at + BLOCK]
                            for at in range(0, size, BLOCK)})
            position += size
        if flags & 1:
            entries.append(None)
    return entries
