"""A dump becomes files: whole, cut short, damaged, and one after the other."""

import os
import random
import struct

from phone import (ANCHOR_OFFSET, BLOCK, DATA, MAP, MISC, NODES, SEED, SPACE, START, TRACED,
                   Step, found_device, poke)
from test_map import writes

APQ = "/data/vendor/ramdump/apq"
PAYLOAD = BLOCK - 12
OTHER_MAP = "/data/other.map"
SIZES = {"cpu_context.bin": 3 * PAYLOAD - 40 - 39,  # leaves no room for a header
         "ocimem.bin": 65 * PAYLOAD - 40 - 40,  # leaves just enough
         "ddr_cs0.bin": 600 * PAYLOAD + 17, "a_name_of_19_letter": 1}
SNAPSHOT = f"""
cd {APQ}
find * -exec stat -c '%a %n' {{}} + | sort >$results/list
cp -r . $results/files
dd if={MISC} bs=1 skip={ANCHOR_OFFSET + 20} count=4 2>/dev/null >$results/flags
stat -f -c %b .
"""


def pending(flags):
    return poke(MISC, ANCHOR_OFFSET + 20, struct.pack("<I", flags))


def header(name, size, reserved=bytes(8)):
    return struct.pack("<4s20sQ8s", b"F1Le", name, size, reserved)


def chmod(number, names):
    folder = f"{APQ}/{number:02}"
    return [f"I _chmod: path: {folder}.", *(f"I _chmod: chmod for {folder}/{name}."
                                            for name in (".", "..", *names))]


def found(number, **sizes):
    lines = []
    for name, size in sizes.items():
        lines += [f"E Found file '{name}', size {size}", f"E full path: {APQ}/{number:02}/{name}"]
    return lines


def extraction(number, lines, names=(), removed=None, flags=3, path=MAP, failed=False):
    """The log of directory `number`, which gets the files `names`, after `removed` of the one
    before."""
    old = f"{APQ}/{number - 1:02}"
    log = [*START, f"E valid map file exists: {path}", *found_device(),
           f"I initializing block chain (i={SEED:08x})",
           f"E main start parsing ramdump (flag = {flags:#x})",
           "E get_directory_total_space: total_space: N",
           f"E path: {APQ}/{number:02}/", f"E permission_path: {APQ}/{number:02}/",
           *chmod(number, [])]
    if removed is not None:
        log += [f"I _remove: path: {old}.", *(f"I _remove: remove for {old}/{name}."
                                              for name in removed)]
    log += [f"I Opened {NODES}userdata for reading", SPACE, *lines]
    if failed:
        return [*log, "E main: parsing error"]
    return [*log, f"E main: grant permission to ramdump files: {APQ}/{number:02}/, {path}",
            *chmod(number, names), "E main: grant permission to ramdump files finished",
            "I Success"]


def left(run):
    """What the snapshot found: flags, progress, modes, path -> bytes."""
    files = {}
    for folder, _, names in os.walk(f"{run.folder}/files"):
        files |= {os.path.relpath(os.path.join(folder, name), f"{run.folder}/files"):
                  run.file(folder, name) for name in names}
    modes = [line.split(" ", 1)[0] for line in run.file("list").decode("latin-1").splitlines()]
    return (struct.unpack("<I", run.file("flags"))[0], run.properties["debug.qor.tarnix"],
            set(modes), files)


def test_extraction(prepared):
    phone, chain = prepared.phone, prepared.chain
    dump = {name: random.Random(name).randbytes(size) for name, size in SIZES.items()}
    phone.crash(dump)
    kept = phone.kept_bytes()
    second = 3 * PAYLOAD  # where the second file's header is in the stream
    cut = 70  # a block within the third file
    bad = "I * bad magic, got {:08x}, expecting {:08x}".format
    gone, zero = struct.unpack("<I", b"gone")[0], 0

    def in_stream(position, data):
        block, offset = divmod(position, PAYLOAD)
        return poke(DATA, chain[block] * BLOCK + 12 + offset, data)

    def sizes(count):
        return dict(list(SIZES.items())[:count])

    nameless = header(b"n" * 20, 2 ** 64 - 1, b"r" * 8)
    long_name = "n" * 20 + "\xff" * 8 + "r" * 8
    names = list(SIZES)
    argument = f"-s -i {SEED:x} {MAP}"
    runs = phone.boot([
        Step(argument, way=TRACED, after=SNAPSHOT, log=extraction(
            0, [*found(0, **SIZES), "E Found file '', size 0", bad(zero, 0x654c3146)], names)),
        # More than one flag; the file system moved a block.
        Step(argument, before=pending(7) + poke(DATA, chain[cut] * BLOCK, b"gone"), after=SNAPSHOT,
             log=extraction(1, [*found(1, **sizes(3)), bad(gone, 0x6e684342)], names[:3], names,
                            flags=7)),
        Step(argument, before=pending(2) + poke(DATA, chain[cut] * BLOCK, b"BChn")
             + in_stream(second, b"gone"), after=SNAPSHOT,
             log=extraction(2, [*found(2, **sizes(1)), found(2, **sizes(2))[2],
                                bad(gone, 0x654c3146)], names[:1], names[:3], flags=2)),
        # A name without its end and a size without end; and a map that is not the boot side's.
        Step(f"-i {SEED:x} -a 5 {OTHER_MAP}", after=SNAPSHOT,
             before=pending(3) + f"touch {OTHER_MAP}\n" + in_stream(0, nameless),
             log=extraction(3, [f"E Found file '{long_name}', size {2 ** 64 - 1}",
                                f"E full path: {APQ}/03/{long_name[:-1]}"], [long_name[:-1]],
                            names[:1], path=OTHER_MAP)),
        Step(argument, before=pending(3) + in_stream(0, header(b"empty", 0)), after=SNAPSHOT,
             log=extraction(4, [*found(4, empty=0), "I Could not write 0 bytes\\"], ["empty"],
                            [long_name[:-1]])),
        Step(argument, before=pending(3) + in_stream(0, header(b"no/such", 5)), after=SNAPSHOT,
             log=extraction(5, [*found(5, **{"no/such": 5}),
                                f"I Could not open file '{APQ}/05/no/such' for writing"], [],
                            ["empty"])),
        Step(argument, 255, before=pending(3) + "fallocate -l $(( $(stat -f -c %a /data) * 4096"
             " - 200000000 )) /data/filler", after=f"{SNAPSHOT}\nrm /data/filler",
             log=extraction(6, [f"E Not enough space available to create ramdump file: {MAP}, "
                                "avail space: N, requested size: 268435455"], [], [], failed=True)),
        Step(argument, 255, before=f"rm -r {APQ}\ntouch {APQ}", log=[
            *extraction(0, [])[:9], f"E get_directory_total_space: Could not statvfs {APQ}/: "
            "Not a directory", "E get_directory_total_space: total_space: N",
            "I scandir failed: Not a directory", "E main: config_ramdump_path error"]),
    ])
    whole = {f"00/{name}": content for name, content in dump.items()}
    until_cut = (cut - 68) * PAYLOAD  # the data of the third file begin in that block
    stream = b"".join(phone.read("userdata", block * BLOCK, BLOCK)[12:] for block in chain)
    assert [left(run) for run in runs[:7]] == [
        (1, "done", {"777"}, whole),
        (1, "done", {"777"}, {f"01/{names[0]}": dump[names[0]], f"01/{names[1]}": dump[names[1]],
                              f"01/{names[2]}": dump[names[2]][:until_cut]}),
        (1, "done", {"777"}, {f"02/{names[0]}": dump[names[0]]}),
        (1, "done", {"777"}, {os.fsdecode(f"03/{long_name[:-1]}".encode("latin-1")): stream[40:]}),
        (1, "done", {"777"}, {"04/empty": b""}),
        (1, "done", {"777"}, {}),
        (3, "running", {"777"}, {})]
    assert runs[7].properties["debug.qor.tarnix"] == "running"
    assert f"total_space: {int(runs[0].file('after')) * BLOCK}\n" in runs[0].text
    assert writes(runs[0].file("trace")) == [(MISC, ANCHOR_OFFSET, 24)]
    assert phone.kept_bytes() == kept and phone.chain() == chain
