"""tarnix-chain, seen from its command line, over images made here."""

import json
import os
import pty
import random
import re
import struct
import subprocess
import tempfile
import time
from pathlib import Path

import pytest
from chain_image import ANCHOR_OFFSET, FILE_MAGIC, Image

TOOL = os.environ["TARNIX_CHAIN"]
LENGTH = 4096
PAYLOAD = LENGTH - 12

STRAIGHT = list(range(100, 400))
# Forwards, backwards, single blocks and a long run, as a full file system hands them out.
SCATTERED = [7, 8, 9, 300, 299, 298, 20, 1500, 22, 24, 23] + list(range(600, 880)) + [5, 3, 1]


def run(command, image, *arguments):
    words = [TOOL, command, *image.arguments, *arguments]
    return subprocess.run([str(w) for w in words], capture_output=True, text=True, check=False)


def write(image, folder, files, *options):
    """Writes {name: bytes}."""
    words = []
    for name, data in files.items():
        path = folder / f"in-{len(words)}"
        path.write_bytes(data)
        words.append(f"{name}={path}")
    return run("write", image, *words, *options)


def status(image):
    return json.loads(run("status", image, "--json").stdout)


def pulled(folder):
    return {path.name: path.read_bytes() for path in folder.iterdir()}


# Sizes of files that together are worth a look, given a chain of n blocks with payload p.
EDGES = {
    "one byte": lambda n, p: [1],
    "payload exactly full": lambda n, p: [p - 40, 5],
    "39 bytes left: padding": lambda n, p: [p - 40 - 39, 5],
    "40 bytes left: a header fits, its data is in the next block": lambda n, p: [p - 80, 5],
    "41 bytes left: a header and one byte": lambda n, p: [p - 81, 5],
    "39 left for the end mark": lambda n, p: [3 * p - 40 - 39],
    "40 left for the end mark": lambda n, p: [3 * p - 80],
    "a file over many blocks": lambda n, p: [100, n // 2 * p + 17, 1],
    "full to the last byte": lambda n, p: [10, n * p - 40 - 50],
    "full up to padding": lambda n, p: [n * p - 40 - 39],
}


CHAINS = [(STRAIGHT, 512), (SCATTERED, 4096), (range(1, 9), 65536)]


@pytest.mark.parametrize("blocks, length", CHAINS)
@pytest.mark.parametrize("edge", EDGES)
def test_device_and_pull_find_what_was_written(tmp_path, blocks, length, edge):
    image = Image(tmp_path, blocks, length, max(blocks) + 1)
    payload = length - 12
    # An older dump with a header at the start of each block: none of them may come to light again.
    old = {f"old{i}": b"\x5a" * (payload - 40) for i in range(len(blocks))}
    assert write(image, tmp_path, old).returncode == 0
    before, misc = image.data[0].read_bytes(), image.misc[0].read_bytes()
    rng = random.Random(edge)
    sizes = EDGES[edge](len(blocks), payload)
    files = {f"file{i}": rng.randbytes(size) for i, size in enumerate(sizes)}

    written = write(image, tmp_path, files, "--replace")

    assert (written.returncode, written.stderr) == (0, "")
    found = image.extract()
    assert {name: bytes(data) for name, _, data in found} == files
    assert len(found) == len(files)
    assert run("pull", image, tmp_path / "out").returncode == 0
    assert pulled(tmp_path / "out") == files
    assert image.misc[0].read_bytes() == misc  # the flag was set before and is again
    after = image.data[0].read_bytes()
    for block in range(len(after) // length):
        at, keep = block * length, 12 if block in blocks else length
        assert after[at : at + keep] == before[at : at + keep], block


@pytest.mark.parametrize("sector", [512, 4096])
def test_partitions_are_found_by_name(tmp_path, sector):
    image = Image(tmp_path, SCATTERED, sector=sector)
    assert run("verify", image).returncode == 0
    assert write(image, tmp_path, {"a": b"abc"}).returncode == 0
    assert image.extract() == [("a", 3, b"abc")]
    wrong = run("verify", image, "--data-name", "data")
    assert wrong.returncode == 3 and "no partition named data" in wrong.stderr
    os.truncate(image.data[0], image.data[1] + 700 * LENGTH)
    short = run("verify", image)
    assert short.returncode == 3 and "or it is cut short" in short.stderr


def test_refusals_change_nothing(tmp_path):
    image = Image(tmp_path, STRAIGHT)
    big = b"x" * (300 * PAYLOAD - 39)

    def refused(files, text):
        before = image.digest()
        done = write(image, tmp_path, files)
        assert done.returncode == 1 and text in done.stderr and image.digest() == before

    refused({"ok": b"x" * 90000, "a/b": b"x"}, "holds a slash")
    refused({"one too many": big}, "the dump needs 1225201 bytes, the chain has 1225200")
    refused({"a": big[100:], "b": big[:100]}, "does not fit")
    image.set_anchor(flags=0x80000001)
    assert write(image, tmp_path, {"first": b"1"}).returncode == 0
    assert image.flags() == 0x80000003  # bits that others own are kept
    refused({"second": b"2"}, "already waiting")
    assert write(image, tmp_path, {"second": b"2"}, "--replace").returncode == 0
    assert image.extract() == [("second", 1, b"2")]


# What is done to a chain of the blocks 100 to 399: the verdict, its position and block, the status
# of verify.
DAMAGE = {
    "anchor wiped": (lambda i: i.set_anchor(magic=0), "no_anchor", None, 1),
    "anchor cut": (lambda i: os.truncate(i.misc[0], ANCHOR_OFFSET + 10), "read_failed", None, 3),
    "block length 4095": (lambda i: i.set_anchor(length=4095), "bad_block_length", None, 1),
    "block length 2 GiB": (lambda i: i.set_anchor(length=1 << 31), "bad_block_length", None, 1),
    "no blocks": (lambda i: i.set_anchor(n=0), "bad_block_count", None, 1),
    "2^31 blocks": (lambda i: i.set_anchor(n=1 << 31), "bad_block_count", None, 1),
    "as many blocks as the partition": (lambda i: i.set_anchor(n=2048), "bad_block_count", None, 1),
    "first block 0": (lambda i: i.set_anchor(first=0), "block_outside", None, 1),
    "first block outside": (lambda i: i.set_anchor(first=2048), "block_outside", None, 1),
    "seed": (lambda i: i.set_anchor(seed=1), "bad_block_crc", (0, 100), 1),
    "block magic": (lambda i: i.poke(i.data, 105 * LENGTH, b"\0"), "bad_block_magic", (5, 105), 1),
    "stored crc": (lambda i: i.set_link(5, 106, crc=0), "bad_block_crc", (5, 105), 1),
    "link outside": (lambda i: i.set_link(5, 2048), "block_outside", (5, 105), 1),
    "ends early": (lambda i: i.set_link(5, 0), "chain_too_short", (5, 105), 1),
    "count too small": (lambda i: i.set_anchor(n=200), "chain_too_long", (199, 299), 1),
    "comes back": (lambda i: i.set_link(9, 103), "block_twice", (10, 103), 1),
    "cut off": (lambda i: os.truncate(i.data[0], 350 * LENGTH), "block_outside", (249, 349), 1),
}


@pytest.mark.parametrize("case", DAMAGE)
def test_each_damage_has_its_verdict(tmp_path, case):
    damage, verdict, place, code = DAMAGE[case]
    image = Image(tmp_path, STRAIGHT)
    damage(image)
    before = image.digest()
    verified = run("verify", image)
    told = status(image)
    assert (verified.returncode, told["verdict"]) == (code, verdict)
    assert "next: " in verified.stderr
    if place:
        assert (told["fault"]["position"], told["fault"]["block"]) == place
        assert f"position {place[0]}, block {place[1]} (byte " in verified.stderr
    assert run("map", image).returncode == code
    assert write(image, tmp_path, {"a": b"x"}, "--replace").returncode == code
    assert run("pull", image, tmp_path / "out").returncode in (0, 1, 3)
    assert image.digest() == before


def header(name, size):
    return struct.pack("<I20sQQ", FILE_MAGIC, name, size, 0)


def test_names_from_the_disk_are_not_paths(tmp_path):
    image = Image(tmp_path, STRAIGHT)
    names = [b"../../evil", b"/etc/x", b"a\x1b[2Jb", b"..", b"", b"plain", b"_etc_x"]
    stream = b"".join(header(name, 1) + b"%d" % i for i, name in enumerate(names))
    # Without a NUL, a name runs on through the header and is cut where the device cuts its path.
    stream += header(b"n" * 20, 0x4141414141414141)[:-8] + b"r" * 8
    image.poke(image.data, 100 * LENGTH + 12, stream + b"the data")
    done = run("pull", image, tmp_path / "out")
    assert done.returncode == 1 and done.stderr.count("is unsafe or taken, it is written") == 6
    assert "\x1b" not in done.stderr
    found = pulled(tmp_path / "out")
    whole = {n: d for n, d in found.items() if len(d) == 1}
    assert list(whole.values()).count(b"5") == 1 and whole["plain"] == b"5"
    assert set(whole) == {"______evil", "_etc_x", "a_[2Jb", "__", "unnamed", "plain", "_etc_x~2"}
    assert set(found) - set(whole) == {"n" * 20 + "A" * 8 + "r" * 7}


def test_pull_says_what_is_missing_and_overwrites_nothing(tmp_path):
    image, out = Image(tmp_path, STRAIGHT), tmp_path / "out"
    files = {"first": b"1" * 50, "long": b"2" * (20 * PAYLOAD), "last": b"3"}
    assert write(image, tmp_path, files).returncode == 0
    whole = image.digest()
    assert run("pull", image, out).returncode == 0
    again = run("pull", image, out)
    assert again.returncode == 1 and again.stderr.count("--force") == 3
    os.remove(out / "first")
    os.symlink(tmp_path / "elsewhere", out / "first")
    assert run("pull", image, out, "--force").returncode == 0
    assert pulled(out) == files and not (tmp_path / "elsewhere").exists()
    # A name that occurs twice replaces what this run wrote, and nothing else.
    image.poke(image.data, 100 * LENGTH + 12 + 90, header(b"first", 1) + b"2" + bytes(40))
    assert run("pull", image, out).returncode == 1
    assert pulled(out) == files
    assert run("pull", image, tmp_path / "twice").returncode == 0
    assert pulled(tmp_path / "twice") == {"first": b"2"}
    image.poke(image.data, 100 * LENGTH + 12 + 90, header(b"long", 20 * PAYLOAD) + b"2" * 41)

    image.poke(image.data, 110 * LENGTH, b"gone")
    cut = run("pull", image, tmp_path / "cut")
    there = 10 * PAYLOAD - 40 - 50 - 40
    assert cut.returncode == 1
    assert f"long is incomplete: {there} of {20 * PAYLOAD} bytes" in cut.stderr
    assert pulled(tmp_path / "cut") == {"first": files["first"], "long": b"2" * there}
    told = status(image)["dump"]["files"]
    assert told[1] == {"name": "long", "size": 20 * PAYLOAD, "present": there}

    image.poke(image.data, 110 * LENGTH, b"BChn")
    assert image.digest() == whole
    image.set_link(5, 106, crc=0)
    doubt = run("pull", image, tmp_path / "doubt")
    assert doubt.returncode == 1 and "may be wrong" in doubt.stderr
    assert pulled(tmp_path / "doubt") == files


def test_an_old_dump_is_called_old(tmp_path):
    image = Image(tmp_path, STRAIGHT)
    fresh = run("pull", image, tmp_path / "fresh")
    assert fresh.returncode == 0 and "holds no file" in fresh.stderr
    write(image, tmp_path, {"a": b"abc"})
    image.set_anchor(flags=1)
    assert run("pull", image, tmp_path / "none", "--pending-only").returncode == 0
    assert not (tmp_path / "none").exists()
    old = run("pull", image, tmp_path / "old")
    assert old.returncode == 0 and "old dump" in old.stderr
    assert pulled(tmp_path / "old") == {"a": b"abc"}
    assert "no longer pending" in run("status", image).stdout


def test_map_tells_the_runs(tmp_path):
    image = Image(tmp_path, list(range(100, 228)) + list(range(1000, 1064)))
    lines = run("map", image).stdout.splitlines()
    assert lines[1].split() == ["0", "100", "128", str(100 * LENGTH), str(128 * LENGTH)]
    assert lines[2].split() == ["128", "1000", "64", str(1000 * LENGTH), str(64 * LENGTH)]
    picture = "".join(lines[5:])
    assert picture.index("#") == 50 and picture.count("#") == 96 and len(picture) == 1024


def test_four_gib_in_bounded_memory():
    # In memory, where reading a hole costs nothing; the chain itself takes a page for each block.
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        blocks = list(range(1, 4097))
        image = Image(Path(folder), blocks, length=1 << 20, data_blocks=4097, fill=b"")
        peak_kib = 0
        with subprocess.Popen([TOOL, "verify", *image.arguments]) as tool:
            while tool.poll() is None:
                text = Path(f"/proc/{tool.pid}/status").read_text("utf-8")
                peak_kib = int((re.search(r"VmHWM:\s*(\d+)", text) or [0, peak_kib])[1])
                time.sleep(0.01)
        assert tool.returncode == 0
        assert 0 < peak_kib < 64 * 1024


def test_bar_on_a_terminal_only(tmp_path):
    image = Image(tmp_path, STRAIGHT)
    assert run("verify", image).stderr == ""
    master, terminal = pty.openpty()
    words = [TOOL, "verify", *image.arguments]
    subprocess.run(words, stdout=subprocess.DEVNULL, stderr=terminal, check=True)
    assert b"100%" in os.read(master, 65536)
    os.close(master)
    os.close(terminal)


@pytest.mark.parametrize("words, code", [
    ("", 2), ("verify", 2), ("nonsense", 2), ("verify --misc /dev/null", 2),
    ("verify --disk /nowhere", 3), ("verify --disk /dev/zero", 3),
    ("verify --misc /dev/null --data /dev/null", 3),
])  # fmt: skip
def test_wrong_usage_and_unreadable_images(words, code):
    done = subprocess.run([TOOL, *words.split()], capture_output=True, text=True, check=False)
    assert done.returncode == code and done.stderr


def test_output_that_cannot_be_written_is_an_error(tmp_path):
    words = [TOOL, "map", *Image(tmp_path, STRAIGHT).arguments]
    with open("/dev/full", "w", encoding="utf-8") as full:
        assert subprocess.run(words, stdout=full, check=False).returncode == 3


@pytest.mark.parametrize("command", ["status", "verify", "map", "write", "pull"])
def test_help_has_an_example(command):
    done = subprocess.run([TOOL, command, "--help"], capture_output=True, text=True, check=True)
    assert f"Example:\n  tarnix-chain {command} --" in done.stdout
