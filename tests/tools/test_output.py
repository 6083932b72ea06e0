"""What tarnix-chain prints and does, whole, over images of a device with a dump of three files.

A file of sessions/ is a shell's session as it must go: after each command what it prints ("2> "
before standard error), its status where that is not 0, which image has changed and what pull's
folder holds. Those of damages/ have the same commands, after what a table here does to the images.
Where a change is meant, or behind a new "$ ", --force-regen writes the files anew; the difference
is to be read like any other."""

import os
import random
import struct
import zlib
from pathlib import Path

import pytest
from chain_image import ANCHOR_OFFSET, BLOCK, PAYLOAD, Image, file_header
from shell_session import replay, shell_output

HERE = Path(__file__).parent
FILES = {"first": 5000, "long": 100 * PAYLOAD, "last": 5000}
GPT_HEADER = "<8s4I4Q16sQ3I"


def disk(*entries, sectors=2100, entry_size=128):
    """Makes disk.img, with sectors of 4096 bytes: a table of 2100 of them, of which this copy has
    some; misc from sector 8 on, data behind it."""
    def make(image):
        body = b"".join(struct.pack("<16s16sQQQ72s", name and b"type", b"", first, last, 0,
                                    name.decode("latin-1").encode("utf-16-le"))
                        .ljust(entry_size, b"e") for name, first, last in entries)
        fields = [b"EFI PART", 0x10000, 92, 0, 0, 1, 2099, 34, 2066, b"guid", 2, len(entries),
                  entry_size, zlib.crc32(body)]
        fields[3] = zlib.crc32(struct.pack(GPT_HEADER, *fields))
        table = bytes(BLOCK) + struct.pack(GPT_HEADER, *fields).ljust(BLOCK, b"\0") + body
        content = table.ljust(8 * BLOCK, b"\0") + image.misc.read_bytes() + image.data.read_bytes()
        Path("disk.img").write_bytes(content.ljust(2100 * BLOCK, b"\0")[:sectors * BLOCK])
    return make


NAMES = [b"../../evil", b"/etc/x", b"a\x1b[2Jb\xff", b"..", b".", b"", b"plain", b"_etc_x",
         b"plain", b"twenty characters xx"]
# The chain is the blocks 100 to 399.
DAMAGES = {
    "nothing": lambda i: None,
    "chain not used": lambda i: (i.set_anchor(), i.poke(100, bytes(40), 12)),
    "announced but not there": lambda i: i.poke(100, bytes(40), 12),
    "old dump": lambda i: i.set_anchor(),
    "write that failed": lambda i: (i.set_anchor(), i.poke(100, file_header(b"new", 204200), 12)),
    "misc wiped": lambda i: i.set_anchor(magic=0),
    "misc overwritten": lambda i: i.set_anchor(magic=0x4d495343),
    "misc cut": lambda i: os.truncate(i.misc, ANCHOR_OFFSET + 10),
    "swapped": lambda i: (i.misc.rename("old"), i.data.rename(i.misc), os.rename("old", i.data)),
    "misc of another device": lambda i: i.set_anchor(first=77, seed=1, flags=3),
    "block length 4095": lambda i: i.set_anchor(length=4095),
    "as many blocks as the partition": lambda i: i.set_anchor(n=2048, flags=3),
    "first block 0": lambda i: i.set_anchor(first=0),
    "first block outside": lambda i: i.set_anchor(first=2048),
    "block magic behind the dump": lambda i: i.poke(300, b"gone"),
    "stored crcs": lambda i: (i.poke(105, bytes(4), 8), i.poke(110, bytes(4), 8)),
    "link outside": lambda i: i.set_link(5, 2048),
    "ends early": lambda i: i.set_link(5, 0),
    "count too small": lambda i: i.set_anchor(n=50, flags=3),
    "comes back": lambda i: i.set_link(20, 105),
    "comes back behind a damage": lambda i: (i.set_link(20, 105), i.poke(102, bytes(4), 8)),
    "cut before the chain": lambda i: os.truncate(i.data, 50 * BLOCK),
    "cut in the dump": lambda i: os.truncate(i.data, 150 * BLOCK + 100),
    "cut in the dump and old": lambda i: (os.truncate(i.data, 150 * BLOCK), i.set_anchor()),
    "cut behind the dump": lambda i: os.truncate(i.data, 350 * BLOCK + 100),
    "file of no bytes": lambda i: i.set_dump([(b"some", b"x"), (b"none", b""), (b"last", b"x")]),
    "names": lambda i: i.set_dump([(name, b"%d" % number) for number, name in enumerate(NAMES)]),
}
LOOK = ["status $images", "status $images --json", "verify $images", "pull $images out"]

MISC, DATA = (b"misc", 8, 9), (b"userdata", 10, 2057)
DISKS = {
    "disk": disk(MISC, DATA),
    "disk with larger entries": disk(MISC, (b"", 0, 0), DATA, entry_size=256),
    "disk cut in the chain": disk(MISC, DATA, sectors=300),
    "disk cut before userdata": disk(MISC, DATA, sectors=10),
    "two of one name": disk(MISC, DATA, (b"misc", 2060, 2061)),
    "ends behind the disk": disk(MISC, (b"userdata", 10, 2100)),
    "ends before it begins": disk((b"misc", 9, 7), DATA),
    "no misc": disk(DATA, (b"misc\xe9", 8, 9)),
    "no userdata": disk(MISC),
    "not a table": lambda i: os.link(i.data, "disk.img"),
}
LOOK_AT_DISK = ["status --disk disk.img"]

# Chains that are not in one run, on partitions of more and of fewer blocks than a map has places.
MAPS = {
    "map in runs": lambda i: Image(i.misc.parent, [*range(100, 227), *range(1000, 1064), 1070, 99]),
    "map of many runs": lambda i: (Image(i.misc.parent, range(100, 300, 2)),
                                   os.truncate(i.data, 3072 * BLOCK)),
    "map of an odd partition": lambda i: os.truncate(i.data, 1501 * BLOCK),
    "map of a small partition": lambda i: os.truncate(i.data, 500 * BLOCK),
    "map of a chain that ends": lambda i: i.set_link(5, 0),
}
# A map of many runs shows the last of them, one of few all.
LOOK_AT_MAP = ["map $images | tail -n 23; exit ${PIPESTATUS[0]}", "map $images --json >/dev/full"]
CASES = [(name, make, "".join(f"$ tarnix-chain {words}\n" for words in look))
         for table, look in ((DAMAGES, LOOK), (DISKS, LOOK_AT_DISK), (MAPS, LOOK_AT_MAP))
         for name, make in table.items()]


@pytest.fixture(name="image")
def image_with_a_dump(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("PATH", str(Path(os.environ["TARNIX_CHAIN"]).parent), prepend=":")
    monkeypatch.setenv("images", "--misc misc.img --data data.img")
    # Behind it, which system call fails, and how.
    monkeypatch.setenv("fault", "env ASAN_OPTIONS=detect_leaks=0 "
                       "strace --quiet=all -o trace -e inject")
    Path("in").mkdir()
    Path("in/empty").touch()
    for name, size in FILES.items():
        Path("in", name).write_bytes(random.Random(name).randbytes(size))
    image = Image(tmp_path, range(100, 400))
    image.set_anchor(flags=3)
    image.set_dump([(name.encode(), Path("in", name).read_bytes()) for name in FILES])
    return image


def describe(path):
    """A file by what it has of those that were written."""
    kind = "link to " if path.is_symlink() else ""
    content = path.read_bytes() if path.exists() else b"nothing"
    of = next((source for source in sorted(Path("in").iterdir())
               if source.read_bytes().startswith(content)), "another")
    return f"{path}: {kind}" + (f"{len(content)} bytes of {of}" if len(content) > 9
                                else repr(content))


def output(line):
    """With the images that it changes, and the folder that it pulls to."""
    before = {name: Path(name).read_bytes() for name in ("misc.img", "data.img")}
    shown = shell_output(line)
    shown += [f"({name} has changed)" for name, content in before.items()
              if Path(name).read_bytes() != content]
    folder = Path(line.split()[-1] if " pull " in line else "in/none")
    return shown + [describe(path) for path in sorted(folder.glob("*"))]


@pytest.mark.parametrize("name,make,session", CASES, ids=[case[0] for case in CASES])
def test_damage(name, make, session, image, file_regression):
    make(image)
    path = HERE / f"damages/{name.replace(' ', '_')}.txt"
    file_regression.check(replay(session, output), fullpath=path)


@pytest.mark.parametrize("path", sorted(HERE.glob("sessions/*.txt")), ids=lambda path: path.stem)
def test_session(path, image, file_regression):
    assert image
    file_regression.check(replay(path.read_text(), output), fullpath=path)
