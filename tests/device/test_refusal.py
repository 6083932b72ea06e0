"""Runs that find something wrong with the map, the chain, the space or their rights."""

from chain_image import SEED, headers
from emulated import BLOCK, MAP
from phone import DATA, NODES, Step, chain_of, check, is_untouched, poke

FAILED = "E create_file failed"
DENIED = "Permission denied"
AS_SHELL = "way='as_user 2000'\n"
LARGE = 36 << 20  # enough for all lines of progress, and for the memory that it must not take


def steps(chain):
    """One after another on one phone: a change holds on."""
    spoiled, lost = chain[2], chain[5]
    good_crc = headers(chain, SEED)[2][8:]
    return {
        "no right to create": Step(f"{AS_SHELL}tarnix -s -c 5000 {MAP}", 255, [
            f"E failed to open file:{MAP} for writing: {DENIED}", FAILED]),
        "no right to read for -t": Step(f"{AS_SHELL}tarnix -t {MAP}", 255, [
            f"E failed to open {MAP} for reading: {DENIED}"]),
        "no right to read for -r": Step(f"{AS_SHELL}tarnix -r /tmp/out {MAP}", 255, [
            f"E failed to open infile:{MAP} for reading: {DENIED}"]),
        "no right to the disk": Step(f"{AS_SHELL}chmod 644 {MAP}\ntarnix -t {MAP}", 255, [
            f"E Failed to get block 0 for file {MAP}: Operation not permitted",
            f"E failed to open blk_dev:{NODES}userdata for reading: {DENIED}"]),
        "no right to write to the disk": Step(
            f"{AS_SHELL}mkdir -m 777 /data/own\ntarnix -s -c 5000 /data/own/map", 255, [
                "I  file size: 5000 bytes, 1 full blocks available",
                f"E failed to open blk_dev for writing: {DENIED}"]),
        "damaged headers": Step(
            poke(DATA, spoiled * BLOCK + 8, bytes(4)) + poke(DATA, lost * BLOCK, b"gone")
            + f"tarnix -t {MAP}", 254, [
                f"E CRC32 mismatch at block {spoiled:x}, got 00000000, expecting "
                f"{int.from_bytes(good_crc, 'little'):08x}",
                f"E Bad magic at block {lost:x}, got 656e6f67"]),
        "no place for the copy": Step(f"tarnix -r /none/out {MAP}", 255, [
            f"I raw_read_blocks: 1 avail, {len(chain)} blocks needed",
            "E failed to open outfile:/none/out for writing: No such file or directory"]),
        # The map's blocks stay, in another file.
        "no space": Step(f"""mv {MAP} {MAP}.away
            fallocate -l $(( $(stat -f -c %a /data) * 4096 - 8000000 )) /data/filler
            tarnix -s -c 9000000 {MAP}
            [ ! -e {MAP} ]
            stat -f -c %a /data
            rm /data/filler""", 255, [
                f"E create_file: Not enough space available to create ramdump file: {MAP}, "
                "avail space: N, requested size: 9000000", FAILED]),
        # The walk goes by the anchor that the run found, which is not on the disk any more.
        "the walk of a new map": Step(
            poke(DATA, spoiled * BLOCK + 8, good_crc) + poke(DATA, lost * BLOCK, b"BChn")
            + f"tarnix -t -s -c 4096 {MAP}", says=[f"I Read {len(chain)} blocks successfully"]),
        "no anchor": Step(f"tarnix -t {MAP}", says=[
            "I initial_block_header.magic        = 0", "I Read 0 blocks successfully"]),
        "no size": Step(f"tarnix -a {MAP} {MAP}", 255, [
            "E auto create is not supported yet!!", FAILED]),
        "built and copied out": Step(f"""rm {MAP}
            tarnix -s -c {LARGE} -r /data/out {MAP}
            echo 3 >/proc/sys/vm/drop_caches
            cmp /data/out {MAP}""", says=[
                "I 256/576", "I 8192/9216",
                f"I raw_read_blocks: 1 avail, {LARGE // BLOCK} blocks needed", "I Success"]),
    }


def test_refusal(runs, name):
    check(*runs[name])


def test_what_is_left(phone_and_chain, runs):
    phone, _ = phone_and_chain
    _, no_space = runs["no space"]
    assert f"avail space: {int(no_space.shell) * BLOCK}," in no_space.text
    states = [run.properties["persist.vendor.tarnix.map"] for _, run in runs.values()]
    assert states == ["valid"] * 8 + ["invalid"] * 3 + ["valid"]
    assert len(chain_of(phone)) == LARGE // BLOCK and is_untouched(phone)
