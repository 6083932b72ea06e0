"""tarnix-chain, seen from its command line, over images made here.

tests/bootside has the layout of a dump, tests/damage what no command may change."""

import json
import os
import pty
import struct
import subprocess

import pytest
from chain_image import ANCHOR_OFFSET, Image

TOOL = os.environ["TARNIX_CHAIN"]
PAYLOAD = 4096 - 12


@pytest.fixture(name="image")
def image_of_300_blocks(tmp_path):
    return Image(tmp_path, list(range(100, 400)))


def run(command, image, *arguments):
    words = [TOOL, command, *image.arguments, *arguments]
    return subprocess.run(words, capture_output=True, text=True, check=False)


def write(image, files, *options):
    """Writes {name: bytes}."""
    words = []
    for name, data in files.items():
        path = image.misc.parent / f"in-{len(words)}"
        path.write_bytes(data)
        words.append(f"{name}={path}")
    return run("write", image, *words, *options)


def status(image):
    return json.loads(run("status", image, "--json").stdout)


def pulled(folder):
    return {path.name: path.read_bytes() for path in folder.iterdir()}


def test_refusals_change_nothing(image):
    def refused(files, text):
        before = image.digest()
        done = write(image, files)
        assert done.returncode == 1 and text in done.stderr and image.digest() == before

    refused({"ok": b"x" * 90000, "a/b": b"x"}, "holds a slash")
    refused({"a": b"x" * (300 * PAYLOAD - 139), "b": b"x" * 100}, "does not fit")
    assert write(image, {"first": b"1"}).returncode == 0
    refused({"second": b"2"}, "already waiting")
    assert write(image, {"second": b"2"}, "--replace").returncode == 0


# What is done to a chain of the blocks 100 to 399: the verdict, its position and block, the status
# of verify.
DAMAGE = {
    "anchor wiped": (lambda i: i.set_anchor(magic=0), "no_anchor", None, 1),
    "anchor cut": (lambda i: os.truncate(i.misc, ANCHOR_OFFSET + 10), "read_failed", None, 3),
    "block length 4095": (lambda i: i.set_anchor(length=4095), "bad_block_length", None, 1),
    "no blocks": (lambda i: i.set_anchor(n=0), "bad_block_count", None, 1),
    "as many blocks as the partition": (lambda i: i.set_anchor(n=2048), "bad_block_count", None, 1),
    "first block 0": (lambda i: i.set_anchor(first=0), "block_outside", None, 1),
    "first block outside": (lambda i: i.set_anchor(first=2048), "block_outside", None, 1),
    "block magic": (lambda i: i.poke(105, b"\0"), "bad_block_magic", (5, 105), 1),
    "stored crc": (lambda i: i.poke(105, bytes(4), 8), "bad_block_crc", (5, 105), 1),
    "link outside": (lambda i: i.set_link(5, 2048), "block_outside", (5, 105), 1),
    "ends early": (lambda i: i.set_link(5, 0), "chain_too_short", (5, 105), 1),
    "count too small": (lambda i: i.set_anchor(n=200), "chain_too_long", (199, 299), 1),
    "comes back": (lambda i: i.set_link(9, 103), "block_twice", (10, 103), 1),
}


@pytest.mark.parametrize("case", DAMAGE)
def test_each_damage_has_its_verdict(image, case):
    damage, verdict, place, code = DAMAGE[case]
    damage(image)
    before, verified, told = image.digest(), run("verify", image), status(image)
    assert (verified.returncode, told["verdict"]) == (code, verdict) and "next: " in verified.stderr
    assert place in (None, (told["fault"]["position"], told["fault"]["block"]))
    for command in ("verify", "map"):
        done = run(command, image, "--json")
        same = json.loads(done.stdout)
        assert done.returncode == code and not done.stderr
        for word in ("state", "verdict", "anchor", "fault", "next", "copy"):
            assert same.get(word) == told.get(word), word
    assert run("map", image).returncode == code
    assert write(image, {"a": b"x"}, "--replace").returncode == code
    assert image.digest() == before


def test_names_from_the_disk_are_not_paths(image, tmp_path):
    out = tmp_path / "out"
    names = [b"../../evil", b"/etc/x", b"a\x1b[2Jb", b"..", b"", b"plain", b"_etc_x", b"plain"]
    found = {"______evil": b"0", "_etc_x": b"1", "a_[2Jb": b"2", "__": b"3", "unnamed": b"4",
             "_etc_x~2": b"6", "plain": b"7"}
    stream = [struct.pack("<4s20sQQ1s", b"F1Le", name, 1, 0, b"%d" % number)
              for number, name in enumerate(names)]
    image.poke(100, b"".join(stream), 12)
    assert run("pull", image, out, "--pending-only").returncode == 0 and not out.exists()
    image.set_anchor(flags=3)
    done = run("pull", image, out)
    assert done.returncode == 0
    assert done.stderr.count("is unsafe or taken, it is written") == 6
    assert pulled(out) == found
    # What occurs twice replaces what this run wrote, and nothing else.
    (out / "plain").write_bytes(b"mine")
    assert run("pull", image, out).returncode == 1
    assert pulled(out) == {**found, "plain": b"mine"}


def test_pull_says_what_is_missing(image, tmp_path):
    files = {"first": b"1" * 50, "long": b"2" * (20 * PAYLOAD), "last": b"3"}
    out, there = tmp_path / "out", 10 * PAYLOAD - 40 - 50 - 40
    assert write(image, files).returncode == 0
    image.poke(105, bytes(4), 8)
    out.mkdir()
    (out / "first").symlink_to(tmp_path / "elsewhere")
    doubt = run("pull", image, out, "--force")
    assert doubt.returncode == 1 and "may be wrong" in doubt.stderr
    assert pulled(out) == {"first": files["first"], "long.partial": files["long"],
                           "last.partial": files["last"]}
    assert not (tmp_path / "elsewhere").exists()
    image.poke(110, b"gone")
    cut = run("pull", image, tmp_path / "cut")
    assert cut.returncode == 1
    assert f"long is incomplete: {there} of {20 * PAYLOAD} bytes" in cut.stderr
    assert pulled(tmp_path / "cut") == {"first": files["first"], "long.partial": b"2" * there}
    told = status(image)["dump"]["files"]
    assert told[1] == {"name": "long", "size": 20 * PAYLOAD, "present": there}


def test_map_tells_the_runs(tmp_path):
    lines = run("map", Image(tmp_path, [*range(100, 228), *range(1000, 1064)])).stdout.splitlines()
    assert lines[1].split() == ["0", "100", "128", str(100 * 4096), str(128 * 4096)]
    assert lines[2].split() == ["128", "1000", "64", str(1000 * 4096), str(64 * 4096)]
    picture = "".join(lines[5:])
    assert picture.index("#") == 50 and picture.count("#") == 96 and len(picture) == 1024


def test_bar_on_a_terminal(image):
    master, terminal = pty.openpty()
    subprocess.run([TOOL, "verify", *image.arguments], stderr=terminal, check=True)
    os.close(terminal)
    shown = b""
    while b"100%" not in shown:
        shown += os.read(master, 65536)  # an error once all has been read
    assert run("verify", image).stderr == ""


def test_wrong_usage_and_unreadable_files(image):
    for words, code in (("", 2), ("verify", 2), ("verify --misc /dev/null", 2),
                        ("verify --disk /nowhere", 3), ("verify --disk /dev/zero", 3)):
        assert subprocess.run([TOOL, *words.split()], check=False).returncode == code, words
    with open("/dev/full", "w", encoding="utf-8") as full:
        words = [TOOL, "map", *image.arguments]
        assert subprocess.run(words, stdout=full, check=False).returncode == 3
