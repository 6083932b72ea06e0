"""A dump becomes files: whole, cut short, damaged, and one after the other."""

import random

from chain_image import ANCHOR_OFFSET
from emulated import BLOCK, MAP, crash
from phone import (DATA, MAP_SIZE, MISC, NODES, SPACE, START, TRACED, Step, boot, chain_of,
                   is_untouched, plain, poke)
from test_map import writes

APQ = "/data/vendor/ramdump/apq"
NAMED = "/data/map"  # exists, and that is all: the dump is always in MAP
PAYLOAD = BLOCK - 12
SIZES = {"cpu_context.bin": 3 * PAYLOAD - 40 - 39,  # leaves no room for a header
         "pmic.bin": 2 * PAYLOAD - 40 - 41,  # leaves room for a header and a byte
         "ocimem.bin": 1 + 63 * PAYLOAD - 40,  # that byte; leaves just enough for a header
         "ddr_cs0.bin": 600 * PAYLOAD + 17,
         # The rest of the chain, to its last byte.
         "a_name_of_19_letter": (MAP_SIZE // BLOCK - 668) * PAYLOAD - 17 - 40}
RUN = f"""
    tarnix -s {NAMED}
    cd {APQ}
    find * -exec stat -c %a {{}} + | sort -u >$results/modes
    cp -r . $results/files
    dd if={MISC} bs=1 skip={ANCHOR_OFFSET + 20} count=1 2>/dev/null >$results/flags
    stat -f -c %b ."""


def pending(flags=3):
    return poke(MISC, ANCHOR_OFFSET + 20, bytes((flags, 0, 0, 0)))


def begun(number, flags=3, removed=None):
    """The log up to directory `number`, after `removed`, the files of the one before."""
    new, old = f"{APQ}/{number:02}", f"{APQ}/{number - 1:02}"
    log = [*START, f"E valid map file exists: {NAMED}", *plain()[:-1],
           f"E main start parsing ramdump (flag = {flags:#x})",
           "E get_directory_total_space: total_space: N", f"E path: {new}/",
           f"E permission_path: {new}/", *opened_up(new, [])]
    if removed is not None:
        log += [f"I _remove: path: {old}.", *(f"I _remove: remove for {old}/{name}."
                                              for name in removed)]
    return [*log, f"I Opened {NODES}userdata for reading", SPACE]


def opened_up(folder, names):
    return [f"I _chmod: path: {folder}.", *(f"I _chmod: chmod for {folder}/{name}."
                                            for name in (".", "..", *names))]


def found(number, sizes):
    return [line for name, size in sizes.items() for line in (
        f"E Found file '{name}', size {size}", f"E full path: {APQ}/{number:02}/{name}")]


def ended(number, names):
    folder = f"{APQ}/{number:02}"
    return [f"E main: grant permission to ramdump files: {folder}/, {NAMED}",
            *opened_up(folder, names), "E main: grant permission to ramdump files finished",
            "I Success"]


def left(run):
    """What a run left: flags, progress, modes, path -> bytes."""
    flags, modes = ((run.folder / name).read_bytes() for name in ("flags", "modes"))
    files = run.folder / "files"
    return flags[0], run.properties["debug.qor.tarnix"], modes, {
        str(path.relative_to(files)): path.read_bytes()
        for path in files.rglob("*") if path.is_file()}


def test_extraction(prepared):
    phone, chain = prepared
    dump = {name: random.Random(name).randbytes(size) for name, size in SIZES.items()}
    crash(phone, dump)
    cut = 70  # a block within the fourth file, whose data begin in block 68
    cut_short = dict([*dump.items()][:3], **{"ddr_cs0.bin": dump["ddr_cs0.bin"][:2 * PAYLOAD]})
    bad = "I * bad magic, got 656e6f67, expecting {}".format
    rows = [  # what is done before, the flags, the files found, what ends the dump, what is left
        (f"{TRACED}touch {NAMED}", 3, SIZES, [], dump),
        # The file system moved a block.
        (pending(7) + poke(DATA, chain[cut] * BLOCK, b"gone"), 7, dict([*SIZES.items()][:4]),
         [bad("6e684342")], cut_short),
        # The second file's header.
        (pending(2) + poke(DATA, chain[cut] * BLOCK, b"BChn")
         + poke(DATA, chain[3] * BLOCK + 12, b"gone"), 2, dict([*SIZES.items()][:1]),
         [found(2, SIZES)[2], bad("654c3146")], dict([*dump.items()][:1])),
        (pending() + poke(DATA, chain[0] * BLOCK + 12, b"F1Leempty" + bytes(31)), 3, {"empty": 0},
         ["I Could not write 0 bytes\\"], {"empty": b""}),
        (pending() + poke(DATA, chain[0] * BLOCK + 12, b"F1Leno/such"), 3, {"no/such": 0},
         [f"I Could not open file '{APQ}/04/no/such' for writing"], {}),
    ]
    steps, removed = [], None
    for number, (before, flags, sizes, end, files) in enumerate(rows):
        steps.append(Step(before + RUN, 0, [*begun(number, flags, removed), *found(number, sizes),
                                            *end, *ended(number, files)]))
        removed = files
    steps += [
        Step(pending() + "fallocate -l $(( $(stat -f -c %a /data) * 4096 - 200000000 )) /data/f"
             + RUN, 255, [*begun(5, 3, []), f"E Not enough space available to create ramdump file: "
                          f"{MAP}, avail space: N, requested size: 268435455",
                          "E main: parsing error"]),
        Step(f"rm -r /data/f {APQ}\ntouch {APQ}\ntarnix -s {NAMED}", 255, [
            *begun(0)[:9], f"E get_directory_total_space: Could not statvfs {APQ}/: "
            "Not a directory", "E get_directory_total_space: total_space: N",
            "I scandir failed: Not a directory", "E main: config_ramdump_path error"])]
    runs = boot(phone, steps)
    for number, (run, row) in enumerate(zip(runs, rows)):
        files = {f"{number:02}/{name}": content for name, content in row[-1].items()}
        assert left(run) == (1, "done", b"777\n", files)
    assert left(runs[5]) == (3, "running", b"777\n", {})
    assert runs[6].properties["debug.qor.tarnix"] == "running"
    assert f"total_space: {int(runs[0].shell) * BLOCK}\n" in runs[0].text
    assert writes(runs[0]) == [(MISC, ANCHOR_OFFSET, 24)]
    assert is_untouched(phone) and chain_of(phone) == chain
