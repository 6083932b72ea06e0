"""emulator/kernel-log on a made-up machine of a few pages: the segments it finds, what it refuses.

The crash test has it read the log of a real crash."""

import io
import struct

import boot_info
import kernel_core
import pytest
from emulated import REPO, run, write_text

RAM, SECOND_RAM = 0x40000000, 0x80000000
LINK, ONE_PAGE, BLOCK = 3, 0x0060000000000703, 0x0060000000000701
TOP_PAGE = 3


def make_machine(page=4096, bits=48):
    """The RAM, the second RAM, the note, and the virtual addresses of a kernel's two mappings: of
    all its RAM by a block that reaches beyond it, and of its image, of pages that are in any order.
    A kernel with pages of 64 KiB has tables for more bits than the processor is told."""
    entries, levels = page // 8, 4 if bits == 48 else 3
    base = (1 << 64) - (1 << bits) + sum(page * entries**level for level in range(2, levels))
    image = base + page * entries
    text = (f"PAGESIZE={page}\nNUMBER(kimage_voffset)={image - RAM:#x}\nNUMBER(VA_BITS)=52\n"
            f"NUMBER(TCR_EL1_T1SZ)=0x10\nSYMBOL(swapper_pg_dir)={image + TOP_PAGE * page:x}\n")
    note = struct.pack("<III12s", 11, len(text), 0, b"VMCOREINFO") + text.encode()
    note += bytes(-len(note) % 4)
    ram = bytearray(32 * page)
    ram[20 * page:20 * page + len(note)] = note
    last = TOP_PAGE + levels - 1
    for table in range(TOP_PAGE, last):
        struct.pack_into("<Q", ram, table * page + 8, RAM + (table + 1) * page | LINK)
    struct.pack_into("<Q", ram, (last - 1) * page, RAM | BLOCK)
    places = [*range(RAM, RAM + 5 * page, page), SECOND_RAM + page, SECOND_RAM, 0x9000000]
    struct.pack_into("<8Q", ram, last * page, *(place | ONE_PAGE for place in places))
    return ram, b"1" * page + b"2" * page, note, base, image


def write_dump(folder, ram, second):
    (folder / "a.bin").write_bytes(ram)
    (folder / "b.bin").write_bytes(second)
    write_text(folder / "boot_info.txt", "tarnix boot_info 1\n"
               f"ram: b.bin {SECOND_RAM:#x} {len(second):#x}\nram: a.bin {RAM:#x} {len(ram):#x}\n")


@pytest.mark.parametrize("page,bits", [(4096, 48), (65536, 52)])
def test_the_core_holds_what_the_page_tables_map(tmp_path, page, bits):
    machine, second, expected_note, base, image = make_machine(page, bits)
    write_dump(tmp_path, machine, second)
    ram = boot_info.open_ram(tmp_path)
    found, = kernel_core.find_kernels(ram)
    stream = io.BytesIO()
    kernel_core.write_core(stream, ram, *found)
    core = stream.getvalue()
    (_, _, note, _, _, note_size, *_), *loads = struct.iter_unpack(
        "<IIQQQQQQ", core[64:64 + 56 * (1 + len(found[1]))])
    assert core[note:][:note_size] == expected_note
    assert [(*load[3:5], core[load[2]:][:load[5]]) for load in loads] == [
        (base, RAM, machine), (image, RAM, machine[:5 * page]),
        (image + 5 * page, SECOND_RAM + page, second[page:]),
        (image + 6 * page, SECOND_RAM, second[:page])]


def check_refusal(folder, message):
    result = run(f"{REPO}/emulator/kernel-log", folder, accept=[1], timeout=60)
    assert message in result.stderr and "Traceback" not in result.stderr and not result.stdout


# What is put in the place of what, in the RAM and in boot_info.txt.
@pytest.mark.parametrize("right,wrong,message", [
    (b"VMCOREINFO", b"VMCOREINFa", "there is no VMCOREINFO note"),
    (b"kimage_voffset", b"kimage_voffsef", "no NUMBER(kimage_voffset)"),
    (b"PAGESIZE=4096", b"PAGESIZE=4097", "pages of 4097 bytes"),
    (b"T1SZ)=0x10", b"T1SZ)=0x40", "addresses of 0 bits"),
    (struct.pack("<Q", RAM + (TOP_PAGE + 1) * 4096 | LINK), bytes(8), "do not map themselves"),
    (struct.pack("<Q", RAM | BLOCK), bytes(8), "do not map the note"),
    (b"info 1", b"info 2", "line 1: not \"tarnix boot_info 1\""),
    (b"b.bin", b"../b.bin", "line 2: not \"ram: NAME"),
    (b"0x80000000", b"0xfffffffffffff000", "line 2: not \"ram: NAME"),
    (b"0x80000000", b"0x4001f000", "a.bin and b.bin lie over one another"),
    (b"80000000 0x2000", b"80000000 0x20000", "b.bin has 8192 bytes"),
    (b"b.bin", b"c.bin", "c.bin is missing"),
    (b"ram:", b"ram-left-out:", "names no RAM file"),
])
def test_a_damaged_dump_is_refused(tmp_path, right, wrong, message):
    write_dump(tmp_path, *make_machine()[:2])
    for path in tmp_path.iterdir():
        path.write_bytes(path.read_bytes().replace(right, wrong))
    check_refusal(tmp_path, message)


# What comes of tables that all lead to one is the made-up machine's: it has no log.
@pytest.mark.parametrize("step,message", [(0, "vmcore-dmesg ended with status"),
                                          (1, "more page tables than its RAM needs"),
                                          (3, "more than 262144 places")])
def test_tables_of_tables_end(tmp_path, step, message):
    """The RAM goes on with tables: each entry's page is the one before's and step on."""
    ram, second, *_ = make_machine()
    first = RAM + len(ram)
    struct.pack_into("<Q", ram, TOP_PAGE * 4096, first | LINK)
    ram += struct.pack(f"<{1 << 20}Q", *(first + (1 + number * step) % 2048 * 4096 | LINK
                                         for number in range(1 << 20)))
    write_dump(tmp_path, ram, second)
    check_refusal(tmp_path, message)
