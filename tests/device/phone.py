"""The emulated device in the hands of a test: runs of the tool, and what they left.

A boot takes seconds and a run a tenth of one, so one boot has the runs of many tests."""

import collections
import json
import re
import shlex
import struct

from chain_image import ANCHOR_OFFSET, SEED
from emulated import BLOCK, DATA_START, MISC_START, SYSROOT, device, read_disk, walk

MISC, DATA = "/dev/vda1", "/dev/vda5"
NODES = "/dev/block/bootdevice/by-name/"
APQ = "/data/vendor/ramdump/apq"
MAP_SIZE = (3 << 20) + 70000  # neither whole chunks of the fill nor whole blocks
COUNT = MAP_SIZE // BLOCK
RSS_LIMIT_KIB = 8192

# What runs in the tool's place: $0 is the tool, $1 the run's number, $2 the step's script, that
# calls tarnix once. $way are words before the tool; $seed, which may be empty, words behind it.
# $results is the run's folder of /host.
WRAPPER = f"""
results=/host/$1
tarnix() {{
    status=0
    $way $0 ${{seed--i {SEED:x}}} "$@" 2>$results/said || status=$?
    echo $status >$results/ended
}}
setprop() {{ (umask 022; printf %s "$2" >/dev/__properties__/$1); }}
getprop() {{ cat /dev/__properties__/$1 2>/dev/null || :; }}
as_user() {{
    echo u$1:x:$1:$1::/:/bin/sh >>/etc/passwd
    su -s /bin/sh -c 'shift; "$@"' -- u$1 sh "$@"
}}
eval "$2"
"""
TRACED = 'way="strace -y -o $results/trace"\n'
# says: what the log holds, in this order; the last one ends it.
Step = collections.namedtuple("Step", "script status says", defaults=(0, ()))
# text: what the tool said; shell: what the script's other words did; folder: $results.
Run = collections.namedtuple("Run", "status rss_kib text shell properties folder")


def start(phone, steps, *options):
    """One boot with a run for each step, which check() judges."""
    device("boot", phone, "--wrap", shlex.join(["sh", "-ec", WRAPPER]), "--timeout", 300,
           "--file", f"/bin/strace={SYSROOT}/usr/bin/strace", *options,
           *(f"--run={n} {shlex.quote(step.script)}" for n, step in enumerate(steps, 1)))
    runs = []
    for n, result in enumerate(json.loads((phone / "result.json").read_bytes())["runs"], 1):
        folder = phone / f"boot/{n}"
        text, shell = ((folder / name).read_text("latin-1") for name in ("said", "stdout"))
        runs.append(Run(int((folder / "ended").read_text()), result["rss_kib"], text, shell,
                        result["properties"], folder))
    return runs


def check(step, run):
    print(f"--- {step.script}\n{run.shell}--- status {run.status}\n{run.text}")
    log = tool_log(run.text)
    lines = iter(log)
    assert run.status == step.status
    assert run.rss_kib < RSS_LIMIT_KIB
    assert not [line for line in step.says if line not in lines]
    assert not step.says or log[-1] == step.says[-1]


def boot(phone, steps, *options):
    """As start(), and judges each run."""
    runs = start(phone, steps, *options)
    for step, run in zip(steps, runs, strict=True):
        check(step, run)
    return runs


def tool_log(text):
    """The tool's messages as "PRIORITY TEXT", without what depends on the file system."""
    text = re.sub(r"((?:avail|available_|total_) ?space: )\d+", r"\1N", text)
    # libbase's messages have their place in the source.
    line = r"^tarnix(?:_v3)? ([A-Z]) [-\d]+ [:\d]+ +\d+ +\d+ (?:\S+:\d+\] )?(.*)$"
    return [" ".join(words) for words in re.findall(line, text, re.M)]


def traced(run):
    return (run.folder / "trace").read_text("latin-1")


def writes(run):
    """(node, offset, size) of what a traced run wrote to the disk. No other call may change it."""
    offsets, found = collections.Counter(), []
    calls = r"^(\w+)\(\d+<(/dev/vda\d)>.* = (\d+)"
    for call, node, result in re.findall(calls, traced(run), re.M):
        if call == "write":
            found.append((node, offsets[node], int(result)))
        if call in ("read", "write"):
            offsets[node] += int(result)
        elif call in ("lseek", "close"):
            offsets[node] = int(result)
        else:
            assert call in ("fadvise64", "fstat", "fstatfs", "fsync", "newfstatat"), call
    return found


def opened(run):
    """path -> flags, and the mode of a new file, of what a traced run opened."""
    return dict(re.findall(r'^openat\(AT_FDCWD[^,]*, "(.*)", (.*)\) = \d', traced(run), re.M))


def poke(node, offset, data):
    """Shell words that write bytes into a partition of the device."""
    text = "".join(f"\\{byte:03o}" for byte in data)
    return f"printf '{text}' | dd of={node} bs=1 seek={offset} conv=notrunc,fsync 2>/dev/null\n"


def pending(flags=3):
    return poke(MISC, ANCHOR_OFFSET + 20, bytes((flags, 0, 0, 0)))


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


def found_device(node="userdata", encryptable="yes", seed=f"{SEED:08x}"):
    return [f"I   block dev: {NODES}{node}", f"I encryptable: {encryptable}", "I   encrypted: no",
            f"I initial CRC: {seed}", f"I initializing block chain (i={seed})"]


def plain(**found):
    """What ends a run that has nothing to do."""
    return [*found_device(**found), "I Success"]
