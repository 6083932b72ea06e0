"""The emulated device in the hands of a test: runs of the tool, and what they left.

A boot takes seconds and a run a tenth of one, so a test gives a table of runs for one boot."""

import json
import os
import re
import struct
import subprocess
import sys
from dataclasses import dataclass
from itertools import groupby

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, f"{REPO}/tests/tools")
from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET, headers

TOOL = os.environ.get("TARNIX", f"{REPO}/build/arm64/driver/tarnix")
CHAIN_TOOL = os.environ.get("TARNIX_CHAIN", f"{REPO}/build/native/tools/tarnix-chain")
CACHE = os.environ.get("TARNIX_EMULATOR_CACHE", f"{REPO}/build/emulator")

MAP = "/data/vendor/ramdump/ramdump.map"
MISC, DATA = "/dev/vda1", "/dev/vda5"
NODES = "/dev/block/bootdevice/by-name/"
BLOCK = 4096
SEED = 0x12345678
ANCHOR_END = ANCHOR_OFFSET + 24
RSS_LIMIT_KIB = 8192

# How a step's own scripts get around its run of the tool. $results is the run's folder of /host.
WRAPPER = """
script() { sh -e $step.$1 >$results/$1 2>&1 || { cat $results/$1 >&2; exit 97; }; }
tool=$1 step=/steps/$2
export results=/host/$2
shift 2
script before
set -- $tool "$@"
. $step.way
status=$?
script after
exit $status
"""
AS_IT_IS = '"$@"'
TRACED = 'strace -y -o $results/trace "$@"'


def as_user(uid):
    return (f"echo u{uid}:x:{uid}:{uid}::/:/bin/sh >>/etc/passwd\n"
            f"su -s /bin/sh -c '\"$@\"' -- u{uid} sh \"$@\"")


@dataclass
class Step:
    """One run: the tool's arguments, its status and log, and what the shell does around it.

    log: lines as tool_log() gives them, or a function of the phone that gives them, or None."""

    arguments: str
    status: int = 0
    log: object = None
    before: str = ""
    after: str = ""
    way: str = AS_IT_IS


@dataclass
class Run:
    """What one run of the tool left. folder: what its scripts put into $results."""

    log: list
    text: str  # the log as it came
    properties: dict
    folder: str

    def file(self, *names):
        with open(os.path.join(self.folder, *names), "rb") as stream:
            return stream.read()


def tool_log(text):
    """The log's messages as "PRIORITY TEXT". A message without its line end ends in a backslash."""
    parts = re.split(r"^(\S+) ([A-Z]) \d\d-\d\d \d\d:\d\d:\d\d +\d+ +\d+ ", text, flags=re.M)
    lines = []
    for tag, priority, message in zip(parts[1::3], parts[2::3], parts[3::3]):
        # The shell's and getopt's own words.
        message = re.sub(r"^(Aborted|/vendor/bin/tarnix: .*)\n", "", message, flags=re.M)
        message = re.sub(r"((?:avail|available_|total_) ?space: )\d+", r"\1N", message[:-1])
        message = re.sub(r"x{100,}", "x...", message)
        if tag == "tarnix_v3":
            message = message[:-1] if message.endswith("\n") else message + "\\"
        else:
            assert tag == "tarnix", tag
            message = re.sub(r"^\S+:\d+\] ", "", message)
        lines.append(f"{priority} {message}")
    return lines


def unordered(lines):
    """The lines with each stretch that follows the order of a directory sorted."""
    stretches = groupby(lines, lambda line: " for /data/vendor/ramdump/apq/" in line)
    return [line for sort, stretch in stretches for line in (sorted(stretch) if sort else stretch)]


def poke(device, offset, data):
    """Shell words that write bytes into a partition of the device."""
    text = "".join(f"\\{byte:03o}" for byte in data)
    return f"printf '{text}' | dd of={device} bs=1 seek={offset} conv=notrunc,fsync 2>/dev/null\n"


def set_property(key, value):
    return f"printf '%s' '{value}' >/dev/__properties__/{key}\n"


class Phone:
    """A device folder (emulator/README.md)."""

    def __init__(self, folder):
        self.folder = str(folder)

    def device(self, command, *arguments):
        # The status is the first run's that is not 0; the runs are judged one by one.
        words = [f"{REPO}/emulator/device", command, self.folder, *map(str, arguments)]
        done = subprocess.run(words, capture_output=True, check=False)
        assert done.returncode != 125, done.stderr.decode(errors="replace")
        return done.stdout.decode(errors="replace")

    @classmethod
    def make(cls, folder, *options):
        """A new phone whose small partitions are full of bytes that nobody may change."""
        phone = cls(folder)
        phone.device("make", "--size", "400M", *options)
        pattern = bytes(range(7, 253)) * (4 << 20)
        phone.write("misc", 0, pattern[:ANCHOR_OFFSET] + bytes(24) + pattern[ANCHOR_END:4 << 20])
        return phone

    def copy(self, folder):
        subprocess.run(["cp", "-r", "--sparse=always", "--reflink=auto", self.folder, folder],
                       check=True)
        return Phone(folder)

    def place(self, partition, offset):
        with open(f"{self.folder}/device.json", "rb") as stream:
            return json.load(stream)["partitions"][partition][0] + offset

    def read(self, partition, offset, size):
        with open(f"{self.folder}/disk.img", "rb") as disk:
            disk.seek(self.place(partition, offset))
            return disk.read(size)

    def write(self, partition, offset, data):
        with open(f"{self.folder}/disk.img", "r+b") as disk:
            disk.seek(self.place(partition, offset))
            disk.write(data)

    def anchor(self):
        """magic, first_block, block_length, n_blocks, crc32, flags"""
        return struct.unpack("<6I", self.read("misc", ANCHOR_OFFSET, 24))

    def kept_bytes(self):
        """What the tool must leave alone: the small partitions, which lie side by side, but for
        the anchor."""
        disk = self.read("misc", 0, 4 << 20)
        return disk[:ANCHOR_OFFSET] + disk[ANCHOR_END:]

    def chain(self):
        """The chain's blocks by their links, each header on the disk being what it must be."""
        magic, first, length, count, seed, _ = self.anchor()
        assert (magic, length) == (ANCHOR_MAGIC, BLOCK)
        blocks, found = [first], []
        while len(found) < count:
            found.append(self.read("userdata", blocks[-1] * BLOCK, 12))
            blocks.append(struct.unpack("<III", found[-1])[1])
        assert blocks.pop() == 0 and len(set(blocks)) == count
        assert found == headers(blocks, seed)
        return blocks

    def crash(self, files):
        """The boot side writes a dump of name -> bytes."""
        words = []
        for name, content in files.items():
            path = f"{self.folder}/{name}"
            with open(path, "wb") as stream:
                stream.write(content)
            words.append(f"{name}={path}")
        subprocess.run([CHAIN_TOOL, "write", "--disk", f"{self.folder}/disk.img", *words],
                       check=True)

    def boot(self, steps, *options):
        """One boot with all the runs. Checks each one's status, memory and log."""
        script = f"mkdir /steps\ncat >/steps/wrap <<'END'{WRAPPER}END\n"
        words = ["--tool", TOOL, "--wrap", "sh /steps/wrap", "--timeout", 300,
                 "--file", f"/bin/strace={CACHE}/sysroot/usr/bin/strace", *options]
        for number, step in enumerate(steps, 1):
            words.append(f"--run={number} {step.arguments}")
            for name in ("before", "way", "after"):
                script += f"cat >/steps/{number}.{name} <<'END'\n{getattr(step, name)}\nEND\n"
        with open(f"{self.folder}/before", "w", encoding="utf-8") as stream:
            stream.write(script)
        self.device("boot", "--before", f"{self.folder}/before", *words)
        with open(f"{self.folder}/result.json", "rb") as stream:
            results = json.load(stream)["runs"]
        return [self.judge(step, result, f"{self.folder}/boot/{number}")
                for number, (step, result) in enumerate(zip(steps, results, strict=True), 1)]

    def judge(self, step, result, folder):
        with open(f"{folder}/log", encoding="latin-1") as stream:
            text = stream.read()
        print(f"--- tarnix {step.arguments}: status {result['status']}\n{text}")
        run = Run(tool_log(text), text, result["properties"], folder)
        assert result["status"] == step.status, f"{step.arguments}: {run.log[-1:]}"
        assert result["rss_kib"] < RSS_LIMIT_KIB
        if step.log is not None:
            assert unordered(run.log) == unordered(
                step.log(self) if callable(step.log) else step.log)
        return run


# The log's lines, by the steps of a run.
START = ["I tarnix_v3 start!!", "I security off, continue tarnix jobs"]
SPACE = "E get_directory_available_space: available_space: N"
USAGE = ["I usage: /vendor/bin/tarnix "
         "[-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] <block file>",
         "I     -r <out file> read from raw block of <block file> to <out file>",
         "I     -c <size>     also create <block file> of size and convert\n",
         "I     -t            test block chain integrity",
         "I     -a <in file>  parsing maps to ramdump files",
         "I     -p            print progress",
         "I     -i <crc>      specify initial hex crc value",
         "I Convert between raw blocks and files.  If only <block file> parameter",
         "I is supplied, then just re-write <block file> as raw data.  <block file> must",
         "I exist, otherwise, use the -c option to create the file before",
         "I converting it."]


def found_device(seed=SEED, node="userdata", encryptable="yes", encrypted="no"):
    return [f"I   block dev: {NODES}{node}", f"I encryptable: {encryptable}",
            f"I   encrypted: {encrypted}", f"I initial CRC: {seed:08x}"]


def plain(seed=SEED, **device):
    """What follows when nothing is to be done."""
    return [*found_device(seed, **device), f"I initializing block chain (i={seed:08x})",
            "I Success"]


def created(path, size, magic):
    """A map file is made. size: None when the attempt fails, before it says how much it makes."""
    lines = [f"E no valid map file is found (magic: {magic:#x}): {path}, start create", SPACE]
    if size is None:
        return lines
    chunks = size // 65536
    return [*lines, f"I Creating reserved area {size} bytes",
            *(f"I {i}/{chunks}" for i in range(0, chunks, 256)), f"I {chunks}/{chunks}",
            "E start to clear init header!!", "E clear init header ok!!"]


def anchor_fields(first, count, seed, flags, magic=ANCHOR_MAGIC, length=BLOCK):
    values = {"magic       ": magic, "first_block ": first, "block_length": length,
              "n_blocks    ": count, "crc32       ": seed, "flags       ": flags}
    # C prints 0 without the 0x of the other values.
    return [f"I initial_block_header.{name} = {f'{value:#x}' if value else 0}"
            for name, value in values.items()]


def first_header(blocks, seed):
    magic, following, crc = struct.unpack("<III", headers(blocks, seed)[0])
    return (f"I first block_header = {{magic={magic:#x}, "
            f"next_block={f'{following:#x}' if following else 0}, crc32={crc:#x}}}")


def built(path, size, blocks, seed=SEED, magic=0):
    """A whole first run."""
    count = len(blocks)
    return [*START, *created(path, size, magic), *found_device(seed),
            f"I initializing block chain (i={seed:08x})", "I start to raw_write_blocks",
            f"I  block size: {BLOCK} bytes",
            f"I  file size: {size} bytes, {count} full blocks available",
            f"I Opened {NODES}userdata for writing", first_header(blocks, seed) + "\\",
            *(f"I {i}/{count}" for i in range(8192, count, 8192)), f"I {count}/{count}",
            f"I block device: {NODES}userdata",
            *anchor_fields(blocks[0], count, seed, 1), "I Success"]


def walked(blocks, *end, seed=SEED, driver_seed=SEED, created_lines=()):
    """A run of -t. end: what it says once it has the first header."""
    return [*START, *created_lines, *found_device(driver_seed),
            *anchor_fields(blocks[0], len(blocks), seed, 1), f"I  block size: {BLOCK} bytes",
            f"I Opened {NODES}userdata for reading", first_header(blocks, seed), *end]
