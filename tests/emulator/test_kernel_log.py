"""emulator/kernel-log on a made-up machine of a few pages: the segments it finds, what it refuses.

The log itself is judged on a real crash."""

import io
import struct
import sys

import pytest
from emulated import REPO, run

sys.path.append(f"{REPO}/emulator")
import boot_info
import kernel_core

RAM, SECOND_RAM = 0x40000000, 0x80000000
PAGES = 32  # of the first RAM file; the second one has two
NOTE_PAGE, TABLE_PAGE = 20, 3
TABLE = TABLE_PAGE * 4096


class Machine:
    """The RAM of a kernel that maps some pages of its image, some out of order, and all as one."""

    def __init__(self, page=4096, bits=48, t1sz=True):
        self.page, self.shift, self.used = page, page.bit_length() - 1, TABLE_PAGE + 1
        self.levels = -(-(bits - self.shift) // (self.shift - 3))
        self.base = (1 << 64) - (1 << bits)
        self.image = self.base + (7 << (bits - 4)) + 64 * page
        self.ram, self.second = bytearray(PAGES * page), b"1" * page + b"2" * page
        text = (f"PAGESIZE={page}\nNUMBER(kimage_voffset)={self.image - RAM:#x}\n"
                f"SYMBOL(swapper_pg_dir)={self.image + TABLE_PAGE * page:x}\n"
                + (f"NUMBER(VA_BITS)=52\nNUMBER(TCR_EL1_T1SZ)={64 - bits:#x}\n" if t1sz else
                   f"NUMBER(VA_BITS)={bits}\n")).encode()
        self.note = struct.pack("<III12s", 11, len(text), 0, b"VMCOREINFO") + text
        self.note += b"\0" * (-len(self.note) % 4)
        self.put(NOTE_PAGE * page, self.note)
        self.map(self.base, RAM, level=1)  # a block that reaches beyond the RAM
        self.info = "\n".join(["tarnix boot_info 1", f"ram: b.bin {SECOND_RAM:#x} {{:#x}}",
                               f"ram: a.bin {RAM:#x} {{:#x}}", ""])
        device = 0x9000000
        for number, physical in [*((number, RAM + number * page) for number in range(5)),
                                 (9, SECOND_RAM + page), (10, SECOND_RAM), (11, device)]:
            self.map(self.image + number * page, physical)

    def put(self, at, content):
        self.ram[at:at + len(content)] = content

    def map(self, virtual, physical, level=0):
        """Enters a page, or at level 1 a block, and the tables that lead to it."""
        table = TABLE_PAGE * self.page
        for depth in range(self.levels - 1, level - 1, -1):
            shift = self.shift + depth * (self.shift - 3)
            at = table + 8 * ((virtual - self.base >> shift) % (self.page // 8))
            entry, = struct.unpack_from("<Q", self.ram, at)
            if depth == level:
                entry = physical | 0x0060000000000701 | (2 if level == 0 else 0)
            elif not entry:
                entry = RAM + self.used * self.page | 3
                self.used += 1
            self.put(at, struct.pack("<Q", entry))
            table = (entry & ~0xfff) - RAM

    def replace(self, old, new):
        if isinstance(old, bytes):
            self.ram = self.ram.replace(old, new)
        else:
            self.info = self.info.replace(old, new)

    def write(self, folder):
        (folder / "a.bin").write_bytes(self.ram)
        (folder / "b.bin").write_bytes(self.second)
        (folder / "boot_info.txt").write_text(self.info.format(len(self.second), len(self.ram)))


@pytest.mark.parametrize("page,bits,t1sz", [(4096, 39, False), (4096, 48, True), (16384, 47, False),
                                            (16384, 48, True), (65536, 48, False)])
def test_the_core_holds_what_the_page_tables_map(tmp_path, page, bits, t1sz):
    machine = Machine(page, bits, t1sz)
    machine.write(tmp_path)
    ram = boot_info.open_ram(tmp_path)
    (kernel, segments), = kernel_core.find_kernels(ram)
    assert segments == [(machine.base, RAM, PAGES * page), (machine.image, RAM, 5 * page),
                        (machine.image + 9 * page, SECOND_RAM + page, page),
                        (machine.image + 10 * page, SECOND_RAM, page)]
    stream = io.BytesIO()
    kernel_core.write_core(stream, ram, kernel, segments)
    core = stream.getvalue()
    note, *loads = struct.iter_unpack("<IIQQQQQQ", core[64:64 + 56 * (1 + len(segments))])
    assert core[note[2]:][:note[5]] == machine.note
    assert [load[3:6] for load in loads] == segments
    for _, _, offset, _, physical, size, *_ in loads:
        memory = machine.ram if physical < SECOND_RAM else machine.second
        assert core[offset:][:size] == memory[physical % SECOND_RAM % RAM:][:size]


def sprawl(machine, step):
    """Adds more tables than this RAM needs; the lowest map a page, then the one step bytes on."""
    def entries(first, step):
        return struct.pack("<512Q", *(RAM + first + number * step | 3 for number in range(512)))
    at, end = len(machine.ram), len(machine.ram) + 4 * 4096
    machine.put(TABLE, struct.pack("<Q", RAM + at | 3))
    machine.ram += struct.pack("<3Q", *(RAM + at + number * 4096 | 3 for number in (1, 2, 3)))
    machine.ram += bytes(4096 - 24) + entries(end, 4096) + entries(end + (1 << 21), 4096)
    machine.ram += entries(end + (2 << 21), 4096) + entries(0, step) * 1536


@pytest.mark.parametrize("damage,message", [
    (lambda m: m.replace(b"VMCOREINFO", b"VMCOREINFa"), "there is no VMCOREINFO note"),
    (lambda m: m.put(NOTE_PAGE * 4096 + 4, b"\xff" * 4), "there is no VMCOREINFO note"),
    (lambda m: m.replace(b"kimage_voffset", b"kimage_voffsef"), "no NUMBER(kimage_voffset)"),
    (lambda m: m.replace(b"PAGESIZE=4096", b"PAGESIZE=4097"), "pages of 4097 bytes"),
    (lambda m: m.replace(b"T1SZ)=0x10", b"T1SZ)=0x40"), "addresses of 0 bits"),
    (lambda m: m.put(TABLE, bytes(4096)), "do not map themselves"),
    (lambda m: m.map(m.base, 0, level=1), "do not map the note"),
    (lambda m: m.put(TABLE, struct.pack("<Q", RAM + TABLE | 3) * 512), "do not map themselves"),
    (lambda m: sprawl(m, 4096), "more page tables than its RAM needs"),
    (lambda m: sprawl(m, 8192), "more than 262144 places"),
    (lambda m: None, "vmcore-dmesg ended with status"),  # this machine has no log
    (lambda m: m.replace("info 1", "info 2"), "line 1: not \"tarnix boot_info 1\""),
    (lambda m: m.replace("b.bin", "../b.bin"), "line 2: not \"ram: NAME"),
    (lambda m: m.replace("0x8", "8"), "line 2: not \"ram: NAME"),
    (lambda m: m.replace("0x80000000", "0xfffffffffffff000"), "line 2: not \"ram: NAME"),
    (lambda m: m.replace("0x80000000", "0x4001f000"), "a.bin and b.bin lie over one another"),
    (lambda m: m.replace("0x80000000 {:#x}", "0x80000000 {:#x}0"), "b.bin has 8192 bytes"),
    (lambda m: m.replace("b.bin", "c.bin"), "c.bin is missing"),
    (lambda m: m.replace("ram:", "ram-left-out:"), "names no RAM file"),
])
def test_a_damaged_dump_is_refused(tmp_path, damage, message):
    machine = Machine()
    damage(machine)
    machine.write(tmp_path)
    result = run(f"{REPO}/emulator/kernel-log", tmp_path, accept=[1], timeout=60)
    assert message in result.stderr and "Traceback" not in result.stderr and not result.stdout
