"""What may be named as an image, and where its partitions are."""

import gzip
import lzma
import os
import socket
import struct
import subprocess
import zlib

import pytest
from chain_image import Image

TOOL = os.environ["TARNIX_CHAIN"]


def run(*words, **options):
    return subprocess.run([TOOL, *words], capture_output=True, text=True, timeout=10,
                          check=False, **options)


# What is made under the name of an image, and a word of what is said to it.
NO_IMAGES = {
    "gzip": (lambda path: path.write_bytes(gzip.compress(b"x" * 9)), "gunzip -c "),
    "xz": (lambda path: path.write_bytes(lzma.compress(b"x" * 9)), "xz -dc "),
    "zstd": (lambda path: path.write_bytes(b"\x28\xb5\x2f\xfd" + b"x" * 9), "zstd -dc "),
    "sparse": (lambda path: path.write_bytes(b"\x3a\xff\x26\xed" + b"x" * 9), "simg2img "),
    "directory": (lambda path: path.mkdir(), "is a directory"),
    "pipe": (os.mkfifo, "is a pipe"),
    "socket": (lambda path: socket.socket(socket.AF_UNIX).bind(str(path)), "is a socket"),
    "device": (lambda path: path.symlink_to("/dev/zero"), "is a character device"),
    "empty": (lambda path: path.touch(), "is empty"),
}


@pytest.mark.parametrize("case", NO_IMAGES)
@pytest.mark.parametrize("command", [["status"], ["write", "a=/dev/null"]])
def test_what_is_no_image(case, command, tmp_path):
    make, text = NO_IMAGES[case]
    make(tmp_path / "i")
    done = run(*command, "--disk", tmp_path / "i")
    assert done.returncode == 3 and text in done.stderr and done.stderr.count("\n") == 1


@pytest.mark.parametrize("closed", [[0], [1], [2], [0, 1, 2]])
def test_closed_descriptors_do_not_become_the_image(closed, tmp_path):
    image = Image(tmp_path, [5, 6])
    image.poke(5, b"bad magic")
    before = image.digest()
    done = run("verify", *image.arguments,
               preexec_fn=lambda: [os.close(number) for number in closed])
    assert image.digest() == before and done.returncode == 1


def partition_table(sector, disk_sectors, entries):
    """A GPT's header and its entries {name: (first, last)}, as they stand from sector 1 on."""
    body = b"".join(struct.pack("<16s16sQQQ72s", b"t" * 16, b"g" * 16, first, last, 0,
                                name.rstrip("'").encode("utf-16-le"))
                    for name, (first, last) in entries.items())
    def header(crc):
        return struct.pack("<8s4I4Q16sQ3I", b"EFI PART", 0x10000, 92, crc, 0, 1, disk_sectors - 1,
                           34, disk_sectors - 34, b"d" * 16, 2, len(entries), 128,
                           zlib.crc32(body))
    return header(zlib.crc32(header(0))).ljust(sector, b"\0") + body


GOOD = {"misc": (8, 9), "userdata": (10, 2057)}
# Entries in sectors of 4096 bytes, the part of the disk of 2100 sectors that is copied, and what is
# said; null where the disk is read. A name's "'" is left out.
DISKS = {
    "good": (GOOD, 2100, None),
    "cut behind the chain": (GOOD, 1000, None),
    "cut before userdata": (GOOD, 10, "this copy is short (40960 of 8601600 bytes)"),
    "two of one name": ({**GOOD, "misc'": (2060, 2061)}, 2100, "2 partitions named misc"),
    "begins behind the disk": ({**GOOD, "userdata": (2100, 2101)}, 2100, "does not lie on the disk"),
    "ends behind the disk": ({**GOOD, "userdata": (10, 2100)}, 2100, "does not lie on the disk"),
    "ends before it begins": ({**GOOD, "misc": (9, 7)}, 2100, "does not lie on the disk"),
    "ends at the last number": ({**GOOD, "misc": (8, 2**64 - 1)}, 2100, "does not lie on the disk"),
    "no such name": ({"misc": (8, 9)}, 2100, "no partition named userdata"),
}


@pytest.mark.parametrize("case", DISKS)
def test_partitions_of_a_disk(case, tmp_path):
    entries, sectors, says = DISKS[case]
    image = Image(tmp_path, list(range(100, 400)))
    table = partition_table(4096, 2100, entries)
    disk = bytes(4096) + table.ljust(7 * 4096, b"\0") + image.misc.read_bytes()
    disk += image.data.read_bytes()
    (tmp_path / "disk").write_bytes(disk.ljust(2100 * 4096, b"\0")[: sectors * 4096])
    done = run("verify", "--disk", tmp_path / "disk")
    assert done.returncode == (3 if says else 0) and (says or "") in done.stderr
