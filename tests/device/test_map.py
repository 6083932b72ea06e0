"""The map's life without a crash: made, found, verified, copied out."""

import struct

import pytest
from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET, SEED, headers
from conftest import FIRST_STEPS
from emulated import BLOCK, DATA_START, MAP, read_disk
from phone import (COUNT, DATA, MAP_SIZE, MISC, NODES, Step, anchor_of, boot, chain_of, check,
                   found_device, is_untouched, opened, tool_log, writes)

CHUNKS = MAP_SIZE // 65536
USERDATA = f"{NODES}userdata"
LARGE = 36 << 20  # enough for all lines of progress, and for the memory that it must not take


@pytest.mark.parametrize("run_name", FIRST_STEPS)
def test_run(first_boot, run_name):
    run = first_boot[2][run_name]
    check(FIRST_STEPS[run_name], run)
    assert run.properties["persist.vendor.tarnix.map"] == "valid"
    assert run.properties.get("debug.qor.tarnix") == (
        "reversing" if run_name == "copy" else None)


def test_the_whole_log_of_a_first_run(first_boot):
    _, chain, runs = first_boot
    _, following, crc = struct.unpack("<III", headers(chain, SEED)[0])
    assert tool_log(runs["build"].text) == [
        "I tarnix_v3 start!!", "I security off, continue tarnix jobs",
        f"E no valid map file is found (magic: 0x0): {MAP}, start create",
        "E get_directory_available_space: available_space: N",
        f"I Creating reserved area {MAP_SIZE} bytes", f"I 0/{CHUNKS}", f"I {CHUNKS}/{CHUNKS}",
        "E start to clear init header!!", "E clear init header ok!!", *found_device(),
        "I start to raw_write_blocks", f"I  block size: {BLOCK} bytes",
        f"I  file size: {MAP_SIZE} bytes, {COUNT} full blocks available",
        f"I Opened {USERDATA} for writing",
        f"I first block_header = {{magic=0x6e684342, next_block={following:#x}, crc32={crc:#x}}}",
        f"I {COUNT}/{COUNT}", f"I block device: {USERDATA}",
        "I initial_block_header.magic        = 0x72644842",
        f"I initial_block_header.first_block  = {chain[0]:#x}",
        "I initial_block_header.block_length = 0x1000",
        f"I initial_block_header.n_blocks     = {COUNT:#x}",
        f"I initial_block_header.crc32        = {SEED:#x}",
        "I initial_block_header.flags        = 0x1", "I Success"]


def test_the_map_is_a_chain_in_pieces(first_boot, request):
    phone, chain, runs = first_boot
    assert anchor_of(phone) == (ANCHOR_MAGIC, chain[0], BLOCK, COUNT, SEED, 1)
    blocks = [header + b"\xff" * (BLOCK - 12) for header in headers(chain, SEED)]
    assert [read_disk(phone, DATA_START + at * BLOCK, BLOCK) for at in chain] == blocks
    # No two headers are the same, so this also holds each block to its place in the file.
    file = (runs["build"].folder / "map").read_bytes()
    assert file == b"".join(blocks) + b"\xff" * (MAP_SIZE % BLOCK)
    assert (runs["copy"].folder / "raw").read_bytes() == b"".join(blocks)
    assert is_untouched(phone)
    pieces = 1 + sum(b != a + 1 for a, b in zip(chain, chain[1:]))
    assert pieces > 5 or "ext4" not in request.node.name


def test_calls(first_boot):
    _, chain, runs = first_boot
    anchor = (MISC, ANCHOR_OFFSET, 24)
    headers_written = [(DATA, block * BLOCK, 12) for block in chain]
    assert writes(runs["build"]) == [anchor, *headers_written, anchor]
    assert writes(runs["walk"]) == writes(runs["copy"]) == []
    assert opened(runs["build"])[USERDATA] == "O_WRONLY"
    assert opened(runs["walk"])[USERDATA] == opened(runs["copy"])[USERDATA] == "O_RDONLY|O_SYNC"
    assert opened(runs["copy"])["/host/4/raw"] == "O_WRONLY|O_CREAT|O_TRUNC, 0666"


def test_a_large_map(prepared):
    phone, _ = prepared
    [run] = boot(phone, [Step(f"""rm {MAP}
        sync
        stat -f -c %a /data
        tarnix -s -c {LARGE} -r /data/out {MAP}
        echo 3 >/proc/sys/vm/drop_caches
        cmp /data/out {MAP}""", says=[
            "I 256/576", "I 8192/9216",
            f"I raw_read_blocks: 1 avail, {LARGE // BLOCK} blocks needed", "I Success"])])
    # Without what the file system keeps for root.
    assert f"available_space: {int(run.shell) * BLOCK}\n" in run.text
    assert len(chain_of(phone)) == LARGE // BLOCK and is_untouched(phone)
