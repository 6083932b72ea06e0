"""Runs that find something wrong with the map, the chain, the space or their rights."""

import struct

from phone import (ANCHOR_MAGIC, ANCHOR_OFFSET, BLOCK, DATA, MAP, MISC, NODES, SEED, START,
                   Step, anchor_fields, as_user, built, created, found_device, headers, plain,
                   poke, walked)
from test_configuration import nowhere

OWN_MAP = "/data/own/map"
NO_ANCHOR = (f"Error: {NODES}misc open failed.\nError: open partition failed, item=19\n"
             f"Error: {NODES}misc open failed.\nError: open partition failed, item=19.\n")
FAILED = "E create_file failed"


def seeded(arguments):
    return f"-i {SEED:x} {arguments}"


def test_without_rights(prepared):
    """Every call that fails has its line, and nothing changes on a partition."""
    phone, kept = prepared.phone, prepared.phone.kept_bytes()
    cleared = [*START, *found_device(), *anchor_fields(0, 0, 0, 0, 0, 0)]
    runs = phone.boot([
        Step(seeded(f"-s -c 5000 {MAP}"), 255, way=as_user(2000), log=[
            *START, *created(MAP, None, 0),
            f"E failed to open file:{MAP} for writing: Permission denied", FAILED]),
        Step(seeded(f"-t {MAP}"), 255, way=as_user(2000), log=[
            *START, *found_device(), f"E failed to open {MAP} for reading: Permission denied"]),
        Step(seeded(f"-r /tmp/out {MAP}"), 255, way=as_user(2000), log=[
            *START, *plain()[:-1],
            f"E failed to open infile:{MAP} for reading: Permission denied"]),
        Step(seeded(f"-t {MAP}"), 255, way=as_user(2000), before=f"chmod 644 {MAP}", log=[
            *cleared[:6], f"E Failed to get block 0 for file {MAP}: Operation not permitted",
            *cleared[6:], f"I  block size: {BLOCK} bytes",
            f"E failed to open blk_dev:{NODES}userdata for reading: Permission denied"]),
        Step(seeded(f"-s -c 5000 {OWN_MAP}"), 255, way=as_user(2000),
             before="mkdir -m 777 /data/own", log=[
                 *START, *created(OWN_MAP, 5000, 0), *plain()[:-1], "I start to raw_write_blocks",
                 f"I  block size: {BLOCK} bytes",
                 "I  file size: 5000 bytes, 1 full blocks available",
                 "E failed to open blk_dev for writing: Permission denied"]),
        # An application, to which the hardware's name is masked.
        Step(seeded(MAP), 1, way=as_user(10400), log=[
            *START, *nowhere("/fstab.unknown"), *nowhere("/vendor/etc/fstab.unknown")]),
    ])
    assert runs[4].file("stdout").decode() == NO_ANCHOR
    assert runs[4].properties["persist.vendor.tarnix.map"] == "valid"
    assert phone.kept_bytes() == kept and phone.chain() == prepared.chain


def test_damage_and_lack(prepared):
    phone, chain = prepared.phone, prepared.chain
    kept, anchor = phone.kept_bytes(), phone.read("misc", ANCHOR_OFFSET, 24)
    good = struct.unpack("<III", headers(chain, SEED)[2])
    all_read = f"I Read {len(chain)} blocks successfully"
    mismatch = f"E CRC32 mismatch at block {chain[2]:x}, got 00000000, expecting {good[2]:08x}"
    opened = [*START, *plain()[:-1], f"I Opened {NODES}userdata for reading"]
    lost = created(MAP, None, ANCHOR_MAGIC)
    too_much = (f"E create_file: Not enough space available to create ramdump file: {MAP}, "
                "avail space: N, requested size: {}").format
    restore = poke(MISC, ANCHOR_OFFSET, anchor)
    runs = phone.boot([
        Step(seeded(f"-t {MAP}"), before=poke(DATA, chain[2] * BLOCK + 8, bytes(4)), log=walked(
            chain, mismatch, all_read, "W Integrity of chain not verified due to CRC mismatch")),
        Step(seeded(f"-t {MAP}"), 254, before=poke(DATA, chain[5] * BLOCK, b"gone"), log=walked(
            chain, mismatch, f"E Bad magic at block {chain[5]:x}, got 656e6f67")),
        Step(seeded(f"-r /data/out {MAP}"), 253, before="mount -o remount,size=64M /dev",
             after="[ ! -e /data/out ]\nmount -o remount,size=4k /dev", log=[
                 *opened, f"I raw_read_blocks: 16384 avail, {len(chain)} blocks needed",
                 "E raw_read_blocks: Not enough space available to write ramdump 16384 avail, "
                 f"need {len(chain)} blocks"]),
        Step(seeded(f"-r /none/out {MAP}"), 255, log=[
            *opened, f"I raw_read_blocks: 1 avail, {len(chain)} blocks needed",
            "E failed to open outfile:/none/out for writing: No such file or directory"]),
        # The map is away from here on; its blocks stay, in another file.
        Step(seeded(f"-c 1000 {MAP}"), 1, before=f"mv {MAP} {MAP}.away", log=[
            *START, f"E failed to convert {MAP} to absolute path: No such file or directory\\"]),
        Step(seeded(f"-c 5000 -s {MAP}"), 255, after=f"[ ! -e {MAP} ]", log=[
            *START, *lost, too_much(0x3fffffff), FAILED]),
        Step(seeded(f"-s -c 9000000 {MAP}"), 255, after="stat -f -c %a /data\nrm /data/filler",
             before="fallocate -l $(( $(stat -f -c %a /data) * 4096 - 8000000 )) /data/filler",
             log=[*START, *lost, too_much(9000000), FAILED]),
        Step(seeded(f"-t -s -c 4096 {MAP}"),
             after=f"dd if={MISC} bs=1 skip={ANCHOR_OFFSET} count=24 2>/dev/null",
             before=poke(DATA, chain[2] * BLOCK + 8, struct.pack("<I", good[2]))
             + poke(DATA, chain[5] * BLOCK, b"BChn"),
             log=walked(chain, all_read, created_lines=created(MAP, 4096, ANCHOR_MAGIC))),
        # No anchor from here on.
        Step(seeded(f"-t {MAP}"), log=[
            *START, *found_device(), *anchor_fields(0, 0, 0, 0, 0, 0),
            f"I  block size: {BLOCK} bytes", f"I Opened {NODES}userdata for reading",
            "I Read 0 blocks successfully"]),
        Step(seeded(f"-a {MAP} {MAP}"), 255, after=f"[ ! -s {MAP} ]", log=[
            *START, *created(MAP, None, 0), "E auto create is not supported yet!!", FAILED]),
        Step(seeded(f"-s -c 100 {MAP}"), 255, log=[
            *START, *created(MAP, 100, 0), *plain()[:-1], "I start to raw_write_blocks",
            f"I  block size: {BLOCK} bytes", "I  file size: 100 bytes, 0 full blocks available",
            "E 0 full blocks available in file"]),
        Step(seeded(f"-s -c 5000 {MAP}"), before=f"rm {MAP}\nmkdir {MAP}\n", status=255, log=[
            *START, *created(MAP, None, 0),
            f"E failed to open file:{MAP} for writing: Is a directory", FAILED]),
        Step(seeded(f"-t {MAP}"), log=[
            *START, *found_device(),
            f"E Failed to get block 0 for file {MAP}: Inappropriate ioctl for device",
            *anchor_fields(0, 0, 0, 0, 0, 0), f"I  block size: {BLOCK} bytes",
            f"I Opened {NODES}userdata for reading", "I Read 0 blocks successfully"]),
        # A file of no bytes is a map, too, if there is an anchor.
        Step(seeded(f"-s {MAP}"), before=f"rmdir {MAP}\ntouch {MAP}\n{restore}", log=[
            *START, f"E valid map file exists: {MAP}", *plain()[:-1],
            "E main: No ramdump for reading (flag = 0x1)", "I Success"]),
        # Built and copied out in one run.
        Step(seeded(f"-s -c 5000 -r /data/out {MAP}"), before=f"rm {MAP}", log=lambda phone: [
            *built(MAP, 5000, phone.chain(), magic=ANCHOR_MAGIC)[:-1], *opened[-1:],
            "I raw_read_blocks: 1 avail, 1 blocks needed", "I Opened /data/out for writing",
            "I Success"], after="cp /data/out $results/out"),
    ])
    states = [run.properties["persist.vendor.tarnix.map"] for run in runs]
    assert states == ["valid"] * 7 + ["invalid"] * 7 + ["valid"]
    assert f"avail space: {int(runs[6].file('after')) * BLOCK}," in runs[6].text
    assert runs[7].file("after") == bytes(24)
    assert runs[3].properties["debug.qor.tarnix"] == "reversing"
    assert phone.kept_bytes() == kept
    assert runs[14].file("out") == phone.read("userdata", phone.chain()[0] * BLOCK, BLOCK)
