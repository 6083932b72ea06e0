"""Runs that find something wrong with the map, the chain, the space or their rights."""

import struct

from chain_image import ANCHOR_MAGIC, ANCHOR_OFFSET, headers
from emulated import BLOCK, MAP
from phone import (DATA, MISC, NODES, SEED, START, Step, anchor_fields, boot, built, chain_of,
                   chain_start, created, found_device, is_untouched, plain, poke, refused, walked)

OWN_MAP = "/data/own/map"
FAILED = "E create_file failed"
READING = f"I Opened {NODES}userdata for reading"
LARGE = 64 << 20
AS_SHELL = 'way="as_user 2000"\n'


def test_refusals(prepared):
    phone, chain = prepared
    good = struct.unpack("<III", headers(chain, SEED)[2])
    runs = boot(phone, [
        # Without rights each call that fails has its line.
        Step(f"{AS_SHELL}tarnix -s -c 5000 {MAP}", 255, [
            *refused(MAP, 0), f"E failed to open file:{MAP} for writing: Permission denied",
            FAILED]),
        Step(f"{AS_SHELL}tarnix -t {MAP}", 255, [
            *START, *found_device(), f"E failed to open {MAP} for reading: Permission denied"]),
        Step(f"{AS_SHELL}tarnix -r /tmp/out {MAP}", 255, [
            *START, *plain()[:-1],
            f"E failed to open infile:{MAP} for reading: Permission denied"]),
        Step(f"{AS_SHELL}chmod 644 {MAP}\ntarnix -t {MAP}", 255, [
            *START, *found_device(),
            f"E Failed to get block 0 for file {MAP}: Operation not permitted",
            *anchor_fields(0, 0, 0, 0, 0, 0), f"I  block size: {BLOCK} bytes",
            f"E failed to open blk_dev:{NODES}userdata for reading: Permission denied"]),
        Step(f"{AS_SHELL}mkdir -m 777 /data/own\ntarnix -s -c 5000 {OWN_MAP}", 255, [
            *created(OWN_MAP, 5000, 0), *chain_start(5000),
            "E failed to open blk_dev for writing: Permission denied"]),
        Step(poke(DATA, chain[2] * BLOCK + 8, bytes(4)) + poke(DATA, chain[5] * BLOCK, b"gone")
             + f"tarnix -t {MAP}", 254, walked(
                 chain, f"E CRC32 mismatch at block {chain[2]:x}, got 00000000, "
                 f"expecting {good[2]:08x}", f"E Bad magic at block {chain[5]:x}, got 656e6f67")),
        Step(f"tarnix -r /none/out {MAP}", 255, [
            *START, *plain()[:-1], READING,
            f"I raw_read_blocks: 1 avail, {len(chain)} blocks needed",
            "E failed to open outfile:/none/out for writing: No such file or directory"]),
        # The map is away from here on; its blocks stay, in another file.
        Step(f"""mv {MAP} {MAP}.away
             fallocate -l $(( $(stat -f -c %a /data) * 4096 - 8000000 )) /data/filler
             tarnix -s -c 9000000 {MAP}
             [ ! -e {MAP} ]
             stat -f -c %a /data
             rm /data/filler""", 255, [
                 *refused(MAP, ANCHOR_MAGIC),
                 f"E create_file: Not enough space available to create ramdump file: {MAP}, "
                 "avail space: N, requested size: 9000000", FAILED]),
        # The walk goes by the anchor that the run found, which is not on the disk any more.
        Step(poke(DATA, chain[2] * BLOCK + 8, struct.pack("<I", good[2]))
             + poke(DATA, chain[5] * BLOCK, b"BChn") + f"tarnix -t -s -c 4096 {MAP}", 0, walked(
                 chain, f"I Read {len(chain)} blocks successfully",
                 start=created(MAP, 4096, ANCHOR_MAGIC))),
        Step(f"tarnix -t {MAP}", 0, [
            *START, *found_device(), *anchor_fields(0, 0, 0, 0, 0, 0),
            f"I  block size: {BLOCK} bytes", READING, "I Read 0 blocks successfully"]),
        # What stands behind the map file is no option.
        Step(f"tarnix {MAP} -t", 0, [*START, *plain()]),
        Step(f"tarnix -a {MAP} {MAP}", 255, [
            *refused(MAP, 0), "E auto create is not supported yet!!", FAILED]),
        # A file of no bytes, as that run leaves it, is a map, too, if there is an anchor's magic.
        Step(f"[ ! -s {MAP} ]\n" + poke(MISC, ANCHOR_OFFSET, b"BHdr") + f"tarnix -s {MAP}", 0, [
            *START, f"E valid map file exists: {MAP}", *plain()[:-1],
            "E main: No ramdump for reading (flag = 0x0)", "I Success"]),
        # Built and copied out in one run: as big as is quick, for the lines of progress and for the
        # memory that it must not take.
        Step(f"""rm {MAP}
             tarnix -s -c {LARGE} -r /data/out {MAP}
             echo 3 >/proc/sys/vm/drop_caches
             cmp /data/out {MAP}"""),
    ])
    assert runs[-1].log == [
        *built(MAP, LARGE, chain_of(phone), ANCHOR_MAGIC)[:-1], READING,
        f"I raw_read_blocks: 1 avail, {LARGE // BLOCK} blocks needed",
        "I Opened /data/out for writing", "I Success"]
    assert f"avail space: {int(runs[7].shell) * BLOCK}," in runs[7].text
    states = [run.properties["persist.vendor.tarnix.map"] for run in runs]
    assert states == ["valid"] * 8 + ["invalid"] * 5 + ["valid"]
    assert is_untouched(phone)
