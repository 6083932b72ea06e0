"""A dump becomes files: whole, cut short, damaged, and one after the other."""

import collections
import random

import pytest
from chain_image import ANCHOR_OFFSET
from conftest import copied
from emulated import BLOCK, MAP, crash
from phone import (APQ, DATA, MAP_SIZE, MISC, NODES, TRACED, Step, chain_of, check, is_untouched,
                   opened, pending, poke, tool_log, writes)

NAMED = "/data/map"  # exists, and that is all: the dump is always in MAP
PAYLOAD = BLOCK - 12
SIZES = {"cpu_context.bin": 3 * PAYLOAD - 40 - 39,  # leaves no room for a header
         "pmic.bin": 2 * PAYLOAD - 40 - 41,  # leaves room for a header and a byte
         "ocimem.bin": 1 + 63 * PAYLOAD - 40,  # that byte; leaves just enough for a header
         "ddr_cs0.bin": 600 * PAYLOAD + 17,  # its data begin in block 68
         # The rest of the chain, to its last byte.
         "a_name_of_19_letter": (MAP_SIZE // BLOCK - 668) * PAYLOAD - 17 - 40}
DUMP = {name: random.Random(name).randbytes(size) for name, size in SIZES.items()}
LOOK = f"""
cp -r {APQ} $results/files
find {APQ} -mindepth 1 -exec stat -c %a {{}} + | sort -u >$results/modes
dd if={MISC} bs=1 skip={ANCHOR_OFFSET + 20} count=1 2>/dev/null >$results/flags
stat -f -c %b /data
"""

# flags: the anchor's, before. damage: (position in the chain, offset) -> bytes. says: what the log
# has of the files and of the dump's end. left: the files afterwards, which the next run removes.
Row = collections.namedtuple("Row", "flags damage says left prepare status", defaults=("", 0))
BAD_MAGIC = "I * bad magic, got 656e6f67, expecting "


def first(count):
    return dict([*DUMP.items()][:count])


ROWS = {
    "whole": Row(3, {}, [line for name, size in SIZES.items() for line in (
        f"E Found file '{name}', size {size}", f"E full path: {APQ}/00/{name}")], DUMP,
                 prepare=f"touch {NAMED}\n{TRACED}"),
    "a block has moved": Row(
        7, {(70, 0): b"gone"}, [BAD_MAGIC + "6e684342"],
        {**first(3), "ddr_cs0.bin": DUMP["ddr_cs0.bin"][:2 * PAYLOAD]}),
    "the second file's header is lost": Row(
        2, {(70, 0): b"BChn", (3, 12): b"gone"},
        [f"E Found file 'pmic.bin', size {SIZES['pmic.bin']}", BAD_MAGIC + "654c3146"], first(1)),
    "an empty file": Row(3, {(0, 12): b"F1Leempty" + bytes(31)}, ["I Could not write 0 bytes"],
                         {"empty": b""}),
    "no such directory": Row(3, {(0, 12): b"F1Leno/such"}, [
        f"I Could not open file '{APQ}/04/no/such' for writing"], {}),
    "no space": Row(3, {}, [
        f"E Not enough space available to create ramdump file: {MAP}, avail space: N, "
        "requested size: 268435455", "E main: parsing error"], {},
                    "fallocate -l $(( $(stat -f -c %a /data) * 4096 - 200000000 )) /data/f\n", 255),
    "no place": Row(3, {}, [
        f"E get_directory_total_space: Could not statvfs {APQ}/: Not a directory",
        "I scandir failed: Not a directory", "E main: config_ramdump_path error"], {},
                    f"rm -r /data/f {APQ}\ntouch {APQ}\n", 255),
}


def says(number, row):
    folder, start = f"{APQ}/{number:02}", f"E main start parsing ramdump (flag = {row.flags:#x})"
    if row.status != 0:
        return [start, *row.says]
    return [start, "E get_directory_total_space: total_space: N", f"E path: {folder}/",
            f"E permission_path: {folder}/", f"I _chmod: path: {folder}.",
            f"I _chmod: chmod for {folder}/..", f"I Opened {NODES}userdata for reading", *row.says,
            f"E main: grant permission to ramdump files: {folder}/, {NAMED}",
            "E main: grant permission to ramdump files finished", "I Success"]


def steps(chain):
    result = {}
    for number, (name, row) in enumerate(ROWS.items()):
        damage = [poke(DATA, chain[position] * BLOCK + offset, data)
                  for (position, offset), data in row.damage.items()]
        script = "".join([*damage, pending(row.flags), row.prepare, f"tarnix -s {NAMED}", LOOK])
        result[name] = Step(script, row.status, says(number, row))
    return result


@pytest.fixture(scope="module")
def phone_and_chain(first_boot, tmp_path_factory):
    phone, chain = copied(first_boot, tmp_path_factory.mktemp("dump"))
    crash(phone, DUMP)
    return phone, chain


def test_extraction(runs, name):
    step, run = runs[name]
    check(step, run)
    folder, number = run.folder / "files", [*ROWS].index(name)
    assert {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*")
            if path.is_file()} == {f"{number:02}/{file}": content
                                   for file, content in ROWS[name].left.items()}
    assert (run.folder / "modes").read_text() in ("777\n", "")
    state = (run.folder / "flags").read_bytes(), run.properties["debug.qor.tarnix"]
    assert state == ((b"\1", "done") if step.status == 0 else (b"\3", "running"))


def test_calls_and_numbers(phone_and_chain, runs):
    phone, chain = phone_and_chain
    _, run = runs["whole"]
    assert writes(run) == [(MISC, ANCHOR_OFFSET, 24)]
    assert opened(run)[f"{NODES}userdata"] == "O_RDONLY|O_SYNC"
    assert f"total_space: {int(run.shell) * BLOCK}\n" in run.text
    assert {f"I _remove: path: {APQ}/00.", f"I _remove: remove for {APQ}/00/pmic.bin."} < set(
        tool_log(runs["a block has moved"][1].text))
    assert is_untouched(phone) and chain_of(phone) == chain
