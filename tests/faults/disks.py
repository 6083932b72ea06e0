"""The emulated device's disks in the fault tests: made, booted, and looked at while off.

Every failure is an AssertionError whose message says what broke."""

import collections
import contextlib
import os
import random
import re
import struct
import subprocess
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
TOOL = os.environ.get("TARNIX", f"{REPO}/build/arm64/driver/tarnix")
CHAIN = os.environ.get("TARNIX_CHAIN", f"{REPO}/build/native/tools/tarnix-chain")
os.environ["PATH"] += ":/usr/sbin:/sbin"

BLOCK = 4096  # the device's sector: a write is torn between two of them, never inside one
DATA_SIZE = 360 << 20  # an extraction asks for 256 MiB of free space
# The partitions, in blocks of the disk.
MISC, DATA = range(1 << 8, 2 << 8), range(2 << 10, (2 << 10) + DATA_SIZE // BLOCK)
ANCHOR_MAGIC = 0x72644842
MAP = "/data/vendor/ramdump/ramdump.map"
CREATE, SERVICE = ["-a", str(1 << 20), MAP], ["-s", MAP]


def run(*command, accept=(0,), **how):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                            errors="replace", check=False, **how)
    assert result.returncode in accept, (f"{' '.join(map(str, command))} ended with status "
                                         f"{result.returncode}:\n{result.stdout}{result.stderr}")
    return result


def device(command, folder, *arguments, **how):
    return run(f"{REPO}/emulator/device", command, folder, *arguments, **how)


def boot(folder, *options, **how):
    return device("boot", folder, "--tool", TOOL, *options, **how)


def write_text(path, text):
    with open(path, "w", encoding="ascii") as stream:
        stream.write(text)
    return path


def dump_files(number):
    """The files of a crash, by name: of many blocks, of two, and of the least there is."""
    rng = random.Random(number)
    return {f"ddr{number}.bin": rng.randbytes(300000), "regs.bin": rng.randbytes(5000 + number),
            "one.bin": rng.randbytes(1)}


def crash(folder, number):
    for name, data in dump_files(number).items():
        with open(f"{folder}/{name}", "wb") as stream:
            stream.write(data)
    run(CHAIN, "write", "--disk", f"{folder}/disk.img",
        *(f"{name}={folder}/{name}" for name in dump_files(number)))


def load_blocks(path):
    """An image as {block number: its bytes}, without the blocks that are holes."""
    blocks = {}
    with open(path, "rb") as image:
        size, end = os.fstat(image.fileno()).st_size, 0
        while end < size:
            try:
                start = os.lseek(image.fileno(), end, os.SEEK_DATA)
            except OSError:  # no data after end
                break
            end = os.lseek(image.fileno(), start, os.SEEK_HOLE)
            for at in range(start // BLOCK, -(-end // BLOCK)):
                blocks[at] = os.pread(image.fileno(), BLOCK, at * BLOCK)
    return blocks


def save_blocks(path, blocks, part):
    """Writes those of `blocks` that lie in the range `part` as a sparse image."""
    with open(path, "wb") as image:
        image.truncate(len(part) * BLOCK)
        for at, data in blocks.items():
            if at in part:
                os.pwrite(image.fileno(), data, (at - part[0]) * BLOCK)


@contextlib.contextmanager
def device_of(original, blocks):
    """A device folder like the original, with this disk."""
    with tempfile.TemporaryDirectory(dir=original) as folder:
        for name in ("device.json", "root"):
            os.symlink(f"{original}/{name}", f"{folder}/{name}")
        size = os.path.getsize(f"{original}/disk.img")
        save_blocks(f"{folder}/disk.img", blocks, range(size // BLOCK))
        yield folder


def check_file_system(fs, image, saw_errors):
    """The journal replays, and nothing is left to repair. saw_errors: the kernel may have noted
    errors of the disk."""
    if fs == "ext4":
        # Of what -p may do only this is not repair but what a mount does.
        known = r": (recovering journal|clean, |Clearing orphaned inode)"
        known += r"|contains a file system with errors|: \d+/\d+ files" if saw_errors else ""
        done = run("e2fsck", "-p", image, accept=(0, 1)).stdout
        assert all(re.search(known, line) for line in done.splitlines()), done
        run("e2fsck", "-fn", image)
    else:
        checked = run("fsck.f2fs", "-f", "--dry-run", image).stdout
        assert "[FSCK]" in checked and not re.search(r"\[Fail\]|\[ASSERT\]", checked), checked


def read_ext4(image, scratch):
    """{"NN/name": (mode, bytes)} of the dump directories' files, and the map file's blocks."""
    run("debugfs", "-R", f"rdump /vendor/ramdump/apq {scratch}", image)
    files = {}
    for parent, _, names in os.walk(f"{scratch}/apq"):
        for name in names:
            path = os.path.join(parent, name)
            with open(path, "rb") as stream:
                files[os.path.relpath(path, f"{scratch}/apq")] = (
                    os.stat(path).st_mode & 0o777, stream.read())
    listed = run("debugfs", "-R", "blocks /vendor/ramdump/ramdump.map", image).stdout
    return files, [int(word) for word in listed.split()]


def dump_f2fs(image, inode, scratch):
    text = run("dump.f2fs", "-i", inode, image, cwd=scratch, input="y\n").stdout
    with open(f"{scratch}/lost_found/" + re.search(r"i_name .*\[(.*)\]", text)[1], "rb") as stream:
        data = stream.read()
    mode = int(re.search(r"i_mode .*\[0x *([0-9a-f]+)", text)[1], 16)
    return (mode & 0o777, data), [int(at) for at in re.findall(r"i_addr\[.*: (\d+)\]", text)]


def read_f2fs(image, scratch):
    """As read_ext4."""
    path, files, map_blocks = [], {}, []
    for line in run("fsck.f2fs", "--dry-run", "-t", image).stdout.splitlines():
        entry = re.match(r"([|` ]*)(?:\||`)-- (.*) <ino = (0x[0-9a-f]+)>", line)
        if entry:
            path[len(entry[1]) // 4:] = [entry[2]]
            if path == ["vendor", "ramdump", "ramdump.map"]:
                map_blocks = dump_f2fs(image, entry[3], scratch)[1]
            elif path[:3] == ["vendor", "ramdump", "apq"] and len(path) == 5:
                files["/".join(path[3:])] = dump_f2fs(image, entry[3], scratch)[0]
    return files, map_blocks


def anchor_of(blocks):
    """The anchor's six fields: magic, first block, block length, count, seed, flags."""
    return struct.unpack_from("<6I", blocks.get(MISC[0], bytes(BLOCK)), 3184)


def chain_of(blocks):
    """The chain's blocks, as numbers on the data partition; the chain must verify."""
    found, block = [], anchor_of(blocks)[1]
    while block:
        found.append(block)
        block = struct.unpack_from("<I", blocks[DATA[0] + block], 4)[0]
    return found


# flags: the anchor's, None without its magic; verifies: the chain, by its links; whole: it is also
# the map file's blocks, in order; verdict: tarnix-chain's; files: as read_ext4 says.
Disk = collections.namedtuple("Disk", "anchor flags verifies whole verdict files")


def look_at(fs, blocks, folder, saw_errors=False):
    """Checks the file system of a disk that is off, and says what is on it."""
    anchor = anchor_of(blocks)
    with tempfile.TemporaryDirectory(dir=folder) as scratch:
        data, misc = f"{scratch}/data", f"{scratch}/misc"
        save_blocks(data, blocks, DATA)
        save_blocks(misc, blocks, MISC)
        check_file_system(fs, data, saw_errors)
        files, map_blocks = (read_ext4 if fs == "ext4" else read_f2fs)(data, scratch)
        if anchor[0] != ANCHOR_MAGIC:
            return Disk(anchor, None, False, False, "no anchor", files)
        verified = run(CHAIN, "verify", "--misc", misc, "--data", data, accept=(0, 1))
    verifies = verified.returncode == 0
    whole = verifies and chain_of(blocks) == map_blocks
    return Disk(anchor, anchor[5], verifies, whole, verified.stdout + verified.stderr, files)


def newest_dump(disk):
    """{name: (mode, bytes)} of the newest dump directory."""
    newest = max((path.split("/")[0] for path in disk.files), key=int, default="")
    return {path.split("/")[1]: entry for path, entry in disk.files.items()
            if path.split("/")[0] == newest}


def holds_dump(disk, number):
    return {name: data for name, (_, data) in newest_dump(disk).items()} == dump_files(number)
