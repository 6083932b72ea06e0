"""The map's life without a crash: made, found, verified, copied out."""

import re

from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET, headers
from emulated import BLOCK, DATA_START, MAP, read_disk
from phone import (DATA, MAP_SIZE, MISC, NODES, SEED, START, anchor_of, built, is_untouched, plain,
                   walked)


def writes(run):
    """(node, offset, size) of what a traced run wrote to the disk."""
    offsets, result = {}, []
    for line in (run.folder / "trace").read_text("latin-1").splitlines():
        node = re.search(r"<(/dev/vda\d)>", line)
        if not node:
            continue
        node, call = node[1], line.split("(")[0]
        value = int(re.match(r"\d+", line.rpartition(" = ")[2])[0])
        if call == "write":
            result.append((node, offsets[node], value))
        if call in ("read", "write"):
            offsets[node] += value
        elif call in ("lseek", "openat"):
            offsets[node] = value if call == "lseek" else 0
        else:
            assert call in ("close", "fadvise64", "fstat", "fstatfs", "fsync", "newfstatat"), line
    return result


def test_map(first_boot, request):
    phone, chain, (build, again, walk, copy) = first_boot
    pieces = sum(b != a + 1 for a, b in zip(chain, chain[1:]))
    assert pieces > 4 or "ext4" not in request.node.name
    assert build.log == built(MAP, MAP_SIZE, chain)
    assert again.log == [
        *START, f"E valid map file exists: {MAP}", *plain(0xffffffff)[:-1],
        "E main: No ramdump for reading (flag = 0x1)", "I Success"]
    seed = int(walk.log[5].removeprefix("I initial CRC: "), 16)
    assert seed != 0  # nobody gave one
    assert walk.log == walked(chain, f"I Read {len(chain)} blocks successfully", seed=seed)
    assert copy.log == [
        *START, *plain()[:-1], f"I Opened {NODES}userdata for reading",
        f"I raw_read_blocks: 1 avail, {len(chain)} blocks needed",
        "I Opened /host/4/raw for writing", "I Success"]
    states = [(run.properties["persist.vendor.tarnix.map"], run.properties.get("debug.qor.tarnix"))
              for run in (build, again, walk, copy)]
    assert states == [("valid", None)] * 3 + [("valid", "reversing")]

    assert anchor_of(phone) == (ANCHOR_MAGIC, chain[0], BLOCK, MAP_SIZE // BLOCK, SEED, 1)
    blocks = [header + b"\xff" * (BLOCK - 12) for header in headers(chain, SEED)]
    # No two headers are the same, so this also holds each block to its place in the file.
    seen_by_the_file_system = (build.folder / "map").read_bytes()
    assert seen_by_the_file_system == b"".join(blocks) + b"\xff" * (MAP_SIZE % BLOCK)
    assert [read_disk(phone, DATA_START + at * BLOCK, BLOCK) for at in chain] == blocks
    assert (copy.folder / "raw").read_bytes() == b"".join(blocks)
    assert build.shell == "600\n"

    anchor = (MISC, ANCHOR_OFFSET, 24)
    assert writes(build) == [anchor, *((DATA, block * BLOCK, 12) for block in chain), anchor]
    assert writes(walk) == writes(copy) == []
    assert is_untouched(phone)
