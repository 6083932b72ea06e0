"""The emulated device in the hands of a test: runs of the tool, and what they left.

A boot takes seconds and a run a tenth of one, so a test gives a table of runs for one boot."""

import collections
import json
import re
import shlex
import struct
from itertools import groupby

from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET, headers
from emulated import (BLOCK, DATA_START, EMULATOR_FAILED, MISC_START, SYSROOT, device, read_disk,
                      walk)

MISC, DATA = "/dev/vda1", "/dev/vda5"
NODES = "/dev/block/bootdevice/by-name/"
SEED = 0x12345678
MAP_SIZE = (3 << 20) + 70000  # neither whole chunks of the fill nor whole blocks
RSS_LIMIT_KIB = 8192

# A step's script, its second argument, calls `tarnix` once, whose words go behind $way and the
# seed. What its other words print goes to $results/shell; when one of them fails, that is no status
# of the tool's. $results is the run's folder of /host.
WRAPPER = """
results=/host/$1 tool=$0
exec 5>&1 6>&2 >$results/shell 2>&1
tarnix() { status=0; $way $tool ${seed--i 12345678} "$@" >&5 2>&6 || status=$?; }
setprop() { (umask 022; printf %s "$2" >/dev/__properties__/$1); }
getprop() { cat /dev/__properties__/$1 2>/dev/null || :; }
as_user() {
    echo u$1:x:$1:$1::/:/bin/sh >>/etc/passwd
    su -s /bin/sh -c 'shift; "$@"' -- u$1 sh "$@"
}
trap 'exit ${ended:-97}' EXIT
eval "$2"
ended=$status
"""
TRACED = 'way="strace -y -o $results/trace"\n'
# log: as tool_log() gives it.
Step = collections.namedtuple("Step", "script status log", defaults=(0, None))
# text: the log as it came; shell: what the script printed; folder: $results.
Run = collections.namedtuple("Run", "log text shell properties folder")


def tool_log(text):
    """The log's messages as "PRIORITY TEXT". A message without its line end ends in a backslash."""
    text = re.sub(r"^/vendor/bin/tarnix: .*\n", "", text, flags=re.M)  # getopt's own words
    # Of the usage, the first of its eleven lines.
    text = re.sub(r"(<block file>\n)(?:\n*tarnix_v3 I .*\n){10}", r"\1", text)
    text = re.sub(r"((?:avail|available_|total_) ?space: )\d+", r"\1N", text)
    lines = []
    parts = re.split(r"^(\S+) ([A-Z]) \d\d-\d\d \d\d:\d\d:\d\d +\d+ +\d+ ", text, flags=re.M)
    for tag, priority, message in zip(parts[1::3], parts[2::3], parts[3::3]):
        if tag == "tarnix":  # libbase's, with its place in the source
            message = re.sub(r"^\S+:\d+\] ", "", message) + "\n"
        message = message[:-2] if message.endswith("\n\n") else message[:-1] + "\\"
        lines.append(f"{priority} {message}")
    return lines


def unordered(lines):
    """The lines with each stretch that follows the order of a directory sorted."""
    stretches = groupby(lines, lambda line: " for /data/vendor/ramdump/apq/" in line)
    return [line for sort, stretch in stretches for line in (sorted(stretch) if sort else stretch)]


def poke(node, offset, data):
    """Shell words that write bytes into a partition of the device."""
    text = "".join(f"\\{byte:03o}" for byte in data)
    return f"printf '{text}' | dd of={node} bs=1 seek={offset} conv=notrunc,fsync 2>/dev/null\n"


def is_untouched(phone):
    """Whether the small partitions, which lie side by side, are zeros but for the anchor."""
    disk = read_disk(phone, MISC_START, 4 << 20)
    return not any(disk[:ANCHOR_OFFSET] + disk[ANCHOR_OFFSET + 24:])


def anchor_of(phone):
    """magic, first_block, block_length, n_blocks, crc32, flags"""
    return struct.unpack("<6I", read_disk(phone, MISC_START + ANCHOR_OFFSET, 24))


def chain_of(phone):
    """The chain's blocks; the chain must be right."""
    chain, is_right = walk(anchor_of(phone),
                           lambda at: read_disk(phone, DATA_START + at * BLOCK, 12))
    assert is_right
    return chain


def boot(phone, steps, *options):
    """One boot with all the runs. Checks each one's status, memory and log."""
    # The status is the first run's that is not 0; the runs are judged one by one.
    device("boot", phone, "--wrap", shlex.join(["sh", "-ec", WRAPPER]),
           "--file", f"/bin/strace={SYSROOT}/usr/bin/strace", "--timeout", 300, *options,
           *(f"--run={n} {shlex.quote(step.script)}" for n, step in enumerate(steps, 1)),
           accept=set(range(256)) - {EMULATOR_FAILED})
    results = json.loads((phone / "result.json").read_bytes())["runs"]
    return [judge(step, result, phone / f"boot/{n}")
            for n, (step, result) in enumerate(zip(steps, results, strict=True), 1)]


def judge(step, result, folder):
    text, shell = ((folder / name).read_text("latin-1") for name in ("log", "shell"))
    print(f"--- {step.script}\n{shell}--- status {result['status']}\n{text}")
    log = tool_log(text)
    assert result["status"] == step.status
    assert result["rss_kib"] < RSS_LIMIT_KIB
    assert step.log is None or unordered(log) == unordered(step.log)
    return Run(log, text, shell, result["properties"], folder)


# The log's lines, by the steps of a run.
START = ["I tarnix_v3 start!!", "I security off, continue tarnix jobs"]
SPACE = "E get_directory_available_space: available_space: N"


def found_device(seed=SEED, node="userdata", encryptable="yes"):
    return [f"I   block dev: {NODES}{node}", f"I encryptable: {encryptable}", "I   encrypted: no",
            f"I initial CRC: {seed:08x}"]


def plain(seed=SEED, **found):
    """What follows when nothing is to be done."""
    return [*found_device(seed, **found), f"I initializing block chain (i={seed:08x})", "I Success"]


def refused(path, magic):
    """The start of a run that cannot make its map file."""
    return [*START, f"E no valid map file is found (magic: {magic:#x}): {path}, start create",
            SPACE]


def created(path, size, magic):
    chunks = size // 65536
    return [*refused(path, magic), f"I Creating reserved area {size} bytes",
            *(f"I {i}/{chunks}" for i in range(0, chunks, 256)), f"I {chunks}/{chunks}",
            "E start to clear init header!!", "E clear init header ok!!"]


def anchor_fields(*values):
    names = "magic first_block block_length n_blocks crc32 flags".split()
    # C prints 0 without the 0x of the other values.
    return [f"I initial_block_header.{name:12} = {value:#x}".replace(" 0x0", " 0")
            for name, value in zip(names, values, strict=True)]


def first_header(blocks):
    magic, following, crc = struct.unpack("<III", headers(blocks, SEED)[0])
    return (f"I first block_header = {{magic={magic:#x}, next_block={following:#x}, "
            f"crc32={crc:#x}}}")


def chain_start(size):
    """What a run says of its map file before it opens the device."""
    return [*plain()[:-1], "I start to raw_write_blocks", f"I  block size: {BLOCK} bytes",
            f"I  file size: {size} bytes, {size // BLOCK} full blocks available"]


def built(path, size, blocks, magic=0):
    """A whole first run."""
    count = len(blocks)
    return [*created(path, size, magic), *chain_start(size),
            f"I Opened {NODES}userdata for writing", first_header(blocks) + "\\",
            *(f"I {i}/{count}" for i in range(8192, count, 8192)), f"I {count}/{count}",
            f"I block device: {NODES}userdata",
            *anchor_fields(ANCHOR_MAGIC, blocks[0], BLOCK, count, SEED, 1), "I Success"]


def walked(blocks, *end, start=START, seed=SEED):
    """A run of -t. end: what it says once it has the first header; seed: the run's own."""
    return [*start, *found_device(seed),
            *anchor_fields(ANCHOR_MAGIC, blocks[0], BLOCK, len(blocks), SEED, 1),
            f"I  block size: {BLOCK} bytes", f"I Opened {NODES}userdata for reading",
            first_header(blocks), *end]
