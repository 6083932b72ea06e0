"""The map's life without a crash: made, found, verified, copied out."""

import re

import pytest

from conftest import MAP_SIZE
from phone import (ANCHOR_MAGIC, ANCHOR_OFFSET, BLOCK, DATA, MAP, MISC, NODES, SEED, START, built,
                   Phone, Step, found_device, headers, plain, walked)


def writes(trace):
    """(node, offset, size) of what the tool wrote to the disk, from a trace of its calls."""
    offsets, result = {}, []
    for line in trace.decode().splitlines():
        opened = re.match(r"openat\(.* = (\d+)<(/dev/vda\d)>$", line)
        if opened:
            offsets[opened[1]] = 0
        call = re.match(r"(\w+)\((\d+)<(/dev/vda\d)>.* = (-?\d+)", line)
        if not call:
            assert opened or "</dev/vda" not in line, line
            continue
        name, fd, node, value = call[1], call[2], call[3], int(call[4])
        if name == "write":
            result.append((node, offsets[fd], value))
        if name in ("read", "write"):
            offsets[fd] += value
        elif name == "lseek":
            offsets[fd] = value
        else:
            assert name in ("close", "fadvise64", "fstat", "fstatfs", "fsync", "newfstatat"), line
    return result


def test_logs(first_boot):
    chain = first_boot.chain
    assert first_boot.build.log == built(MAP, MAP_SIZE, chain)
    assert first_boot.again.log == [
        *START, f"E valid map file exists: {MAP}", *plain(0xffffffff)[:-1],
        "E main: No ramdump for reading (flag = 0x1)", "I Success"]
    walk = first_boot.walk.log
    seed = int(walk[5].removeprefix("I initial CRC: "), 16)
    assert walk == walked(chain, f"I Read {len(chain)} blocks successfully", driver_seed=seed)
    copy = first_boot.copy.log
    seed = int(copy[5].removeprefix("I initial CRC: "), 16)
    assert copy == [
        *START, *found_device(seed), f"I initializing block chain (i={seed:08x})",
        f"I Opened {NODES}userdata for reading",
        f"I raw_read_blocks: 1 avail, {len(chain)} blocks needed",
        "I Opened /data/raw for writing", "I Success"]


def test_chain_is_the_file(first_boot, fs):
    chain = first_boot.chain
    pieces = sum(b != a + 1 for a, b in zip(chain, chain[1:]))
    assert pieces > 4 or fs != "ext4"
    assert first_boot.phone.anchor() == (
        ANCHOR_MAGIC, chain[0], BLOCK, MAP_SIZE // BLOCK, SEED, 1)
    blocks = [header + b"\xff" * (BLOCK - 12) for header in headers(chain, SEED)]
    # No two headers are the same, so this also holds each block to its place in the file.
    seen_by_the_file_system = first_boot.build.file("map")
    assert seen_by_the_file_system == b"".join(blocks) + b"\xff" * (MAP_SIZE % BLOCK)
    assert [first_boot.phone.read("userdata", block * BLOCK, BLOCK) for block in chain] == blocks
    assert first_boot.copy.file("raw") == b"".join(blocks)
    assert first_boot.build.file("after") == b"600\n"


def test_properties(first_boot):
    states = [(run.properties["persist.vendor.tarnix.map"], run.properties.get("debug.qor.tarnix"))
              for run in (first_boot.build, first_boot.again, first_boot.walk, first_boot.copy)]
    assert states == [("valid", None)] * 3 + [("valid", "reversing")]


def test_writes_nothing_but_headers_and_anchor(first_boot):
    anchor = (MISC, ANCHOR_OFFSET, 24)
    expected = [anchor, *((DATA, block * BLOCK, 12) for block in first_boot.chain), anchor]
    assert writes(first_boot.build.file("trace")) == expected
    assert writes(first_boot.walk.file("trace")) == []
    assert writes(first_boot.copy.file("trace")) == []
    assert first_boot.phone.kept_bytes() == first_boot.kept


@pytest.mark.xdist_group("configuration")
def test_large_map(tmp_path):
    """As big as is quick, for the lines of progress and for the memory that it must not take."""
    size = 64 << 20
    Phone.make(tmp_path / "phone").boot([Step(
        f"-i {SEED:x} -s -c {size} {MAP}", log=lambda phone: built(MAP, size, phone.chain()))])
