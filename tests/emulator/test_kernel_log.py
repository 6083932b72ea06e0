"""emulator/kernel-log on a made-up machine of a few pages: the segments it finds, what it refuses.

The demo judges the log itself, on a real crash."""

import io
import struct
import sys
from types import SimpleNamespace

import pytest
from emulated import REPO, run

sys.path.append(f"{REPO}/emulator")
import boot_info
import kernel_core

RAM, SECOND_RAM = 0x40000000, 0x80000000
PAGES = 32  # of the first RAM file; the second one has two
NOTE_PAGE, TABLE_PAGE = 20, 3
TABLE = TABLE_PAGE * 4096
INFO = f"tarnix boot_info 1\nram: b.bin {SECOND_RAM:#x} {{:#x}}\nram: a.bin {RAM:#x} {{:#x}}\n"


def put(machine, at, content):
    machine.ram[at:at + len(content)] = content


def enter(machine, virtual, physical, level=0):
    """Maps a page, or at level 1 a block, with the tables that lead to it."""
    table = TABLE_PAGE * machine.page
    page_shift = machine.page.bit_length() - 1
    levels = -(-(machine.bits - page_shift) // (page_shift - 3))
    for depth in range(levels - 1, level - 1, -1):
        shift = page_shift + depth * (page_shift - 3)
        at = table + 8 * ((virtual - machine.base >> shift) % (machine.page // 8))
        entry, = struct.unpack_from("<Q", machine.ram, at)
        if depth == level:
            entry = physical | 0x0060000000000701 | (2 if level == 0 else 0)
        elif not entry:
            entry = RAM + machine.used * machine.page | 3
            machine.used += 1
        put(machine, at, struct.pack("<Q", entry))
        table = (entry & ~0xfff) - RAM


def make_machine(page=4096, bits=48):
    """The RAM of a kernel that maps some pages of its image, some out of order, and all as one."""
    base = (1 << 64) - (1 << bits)
    image = base + (7 << (bits - 4)) + 64 * page
    # With pages of 64 KiB the kernel is one for as many bits as the processor is told.
    size = (f"NUMBER(VA_BITS)=52\nNUMBER(TCR_EL1_T1SZ)={64 - bits:#x}"
            if bits == 48 and page < 65536 else f"NUMBER(VA_BITS)={bits}")
    text = (f"PAGESIZE={page}\nNUMBER(kimage_voffset)={image - RAM:#x}\n{size}\n"
            f"SYMBOL(swapper_pg_dir)={image + TABLE_PAGE * page:x}\n").encode()
    note = struct.pack("<III12s", 11, len(text), 0, b"VMCOREINFO") + text + b"\0" * (-len(text) % 4)
    machine = SimpleNamespace(page=page, bits=bits, base=base, image=image, note=note, info=INFO,
                              ram=bytearray(PAGES * page), second=b"1" * page + b"2" * page,
                              used=TABLE_PAGE + 1)
    put(machine, NOTE_PAGE * page, note)
    enter(machine, base, RAM, level=1)  # a block that reaches beyond the RAM
    for number, physical in [*((number, RAM + number * page) for number in range(5)),
                             (9, SECOND_RAM + page), (10, SECOND_RAM), (11, 0x9000000)]:
        enter(machine, image + number * page, physical)
    return machine


def write_dump(machine, folder):
    (folder / "a.bin").write_bytes(machine.ram)
    (folder / "b.bin").write_bytes(machine.second)
    (folder / "boot_info.txt").write_text(
        machine.info.format(len(machine.second), len(machine.ram)))


@pytest.mark.parametrize("page,bits", [(4096, 39), (4096, 48), (16384, 47), (16384, 48),
                                       (65536, 48)])
def test_the_core_holds_what_the_page_tables_map(tmp_path, page, bits):
    machine = make_machine(page, bits)
    write_dump(machine, tmp_path)
    ram = boot_info.open_ram(tmp_path)
    (kernel, segments), = kernel_core.find_kernels(ram)
    stream = io.BytesIO()
    kernel_core.write_core(stream, ram, kernel, segments)
    core = stream.getvalue()
    (_, _, note, _, _, note_size, *_), *loads = struct.iter_unpack(
        "<IIQQQQQQ", core[64:64 + 56 * (1 + len(segments))])
    assert core[note:][:note_size] == machine.note
    assert [(*load[3:5], core[load[2]:][:load[5]]) for load in loads] == [
        (machine.base, RAM, machine.ram), (machine.image, RAM, machine.ram[:5 * page]),
        (machine.image + 9 * page, SECOND_RAM + page, machine.second[page:]),
        (machine.image + 10 * page, SECOND_RAM, machine.second[:page])]


def sprawl(step):
    """The RAM goes on with tables of tables: each entry's page is the one before's and step on."""
    def damage(machine):
        first, pages = RAM + len(machine.ram), 2048
        machine.ram += struct.pack(f"<{pages * 512}Q", *(
            first + (1 + number * step) % pages * 4096 | 3 for number in range(pages * 512)))
        put(machine, TABLE, struct.pack("<Q", first | 3))
    return damage


# What is put in the place of what: text in boot_info.txt, bytes in the RAM; or a function.
@pytest.mark.parametrize("damage,message", [
    ((b"VMCOREINFO", b"VMCOREINFa"), "there is no VMCOREINFO note"),
    (lambda m: put(m, NOTE_PAGE * 4096 + 4, b"\xff" * 4), "there is no VMCOREINFO note"),
    ((b"kimage_voffset", b"kimage_voffsef"), "no NUMBER(kimage_voffset)"),
    ((b"PAGESIZE=4096", b"PAGESIZE=4097"), "pages of 4097 bytes"),
    ((b"T1SZ)=0x10", b"T1SZ)=0x40"), "addresses of 0 bits"),
    (lambda m: put(m, TABLE, bytes(4096)), "do not map themselves"),
    (lambda m: enter(m, m.base, 0, level=1), "do not map the note"),
    (lambda m: put(m, TABLE, struct.pack("<Q", RAM + TABLE | 3) * 512), "do not map themselves"),
    (sprawl(1), "more page tables than its RAM needs"),
    (sprawl(3), "more than 262144 places"),
    (("", ""), "vmcore-dmesg ended with status"),  # this machine has no log
    (("info 1", "info 2"), "line 1: not \"tarnix boot_info 1\""),
    (("b.bin", "../b.bin"), "line 2: not \"ram: NAME"),
    (("0x80000000", "0xfffffffffffff000"), "line 2: not \"ram: NAME"),
    (("0x80000000", "0x4001f000"), "a.bin and b.bin lie over one another"),
    (("0x80000000 {:#x}", "0x80000000 {:#x}0"), "b.bin has 8192 bytes"),
    (("b.bin", "c.bin"), "c.bin is missing"),
    (("ram:", "ram-left-out:"), "names no RAM file"),
])
def test_a_damaged_dump_is_refused(tmp_path, damage, message):
    machine = make_machine()
    if callable(damage):
        damage(machine)
    elif isinstance(damage[0], bytes):
        machine.ram = machine.ram.replace(*damage)
    else:
        machine.info = machine.info.replace(*damage)
    write_dump(machine, tmp_path)
    result = run(f"{REPO}/emulator/kernel-log", tmp_path, accept=[1], timeout=60)
    assert message in result.stderr and "Traceback" not in result.stderr and not result.stdout
