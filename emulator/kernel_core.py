"""Makes an ELF core, which programs for kernel dumps read, of the RAM of a 64-bit Arm Linux kernel.

All that it takes stands in the RAM itself: the VMCOREINFO note, which the kernel writes at boot for
this purpose, and the kernel's page tables. The machine crashed, and firmware ran in its RAM since:
nothing there is trusted, and all work on it is bounded."""

import collections
import heapq
import re
import struct

from boot_info import DumpError

NOTE_NAME = b"VMCOREINFO\0\0"
NOTE_HEADER = struct.Struct("<III12s")  # bytes of the name and one zero, of the text; type; name
NOTE_LINE = re.compile(r"([^=]{1,80})=([ -~]{0,80})")
MAX_NOTE = 64 << 10  # the kernel gives it one page, of 64 KiB at most
MAX_NOTES = 8  # an earlier kernel and programs may have left copies, but few

VALID, TABLE = 1, 2  # bits of a page table's entry; on the last level the second is set for a page
PHYSICAL_BITS = (1 << 48) - 1
MAX_MAPPINGS = 1 << 18  # a GiB of single pages; walked garbage has more

ELF_HEADER = struct.Struct("<16sHHIQQQIHHHHHH")
PROGRAM_HEADER = struct.Struct("<IIQQQQQQ")
ELF_IDENT = b"\x7fELF\x02\x01\x01".ljust(16, b"\0")  # 64 bits, little-endian
ET_CORE, EM_AARCH64, PT_LOAD, PT_NOTE = 4, 183, 1, 4
READ_WRITE_EXECUTE = 7  # for all: the tables' own permissions serve no reader of a core
MAX_SEGMENTS = 0xfffe - 1  # of RAM; the header counts in 16 bits, and the note is one
ALIGNMENT = 64 << 10

# What a note says. address: the note's own, physical; bits: of a virtual address; table: physical
# address of the top page table; table_virtual: its virtual one.
Kernel = collections.namedtuple("Kernel", "address note release page bits table table_virtual")
Segment = collections.namedtuple("Segment", "virtual physical size")


def number(entries, key, base=0):
    try:
        return int(entries[key], base)
    except (KeyError, ValueError):
        raise DumpError(f"it has no {key} that could be used: it is damaged, or not a 64-bit Arm "
                        "kernel's of Linux 4.12 or later") from None


def parse_note(address, note):
    """The kernel that a note with these bytes, found at this physical address, describes."""
    text = note[NOTE_HEADER.size:].rstrip(b"\0").decode(errors="replace")
    entries = {match[1]: match[2] for match in map(NOTE_LINE.fullmatch, text.split("\n")) if match}
    page = number(entries, "PAGESIZE")
    # T1SZ is what the processor was told: a kernel made for 52 bits may run on 48. The tables of
    # one with 64 KiB pages stay those of 52.
    if "NUMBER(TCR_EL1_T1SZ)" in entries and page != 64 << 10:
        bits = 64 - number(entries, "NUMBER(TCR_EL1_T1SZ)")
    else:
        bits = number(entries, "NUMBER(VA_BITS)")
    if page not in (4 << 10, 16 << 10, 64 << 10) or not 36 <= bits <= 52:
        raise DumpError(f"it is damaged: pages of {page} bytes, addresses of {bits} bits")
    table_virtual = number(entries, "SYMBOL(swapper_pg_dir)", 16)
    # Differs from boot to boot with KASLR; the note tells it as 64 bits.
    table = (table_virtual - number(entries, "NUMBER(kimage_voffset)")) % (1 << 64)
    return Kernel(address, note, entries.get("OSRELEASE", "?"), page, bits, table, table_virtual)


def find_notes(ram):
    """(physical address, bytes) of what has the form of a VMCOREINFO note, with text in it."""
    for region in ram:
        name = region.content.find(NOTE_NAME)
        while name >= 0:
            start = name - NOTE_HEADER.size + len(NOTE_NAME)
            if start >= 0:
                name_size, size, kind, _ = NOTE_HEADER.unpack_from(region.content, start)
                if name_size == len(NOTE_NAME) - 1 and kind == 0 and 0 < size <= MAX_NOTE:
                    # Notes lie on words: the zeroes after a text of odd length are part of it.
                    end = start + NOTE_HEADER.size + -(-size // 4) * 4
                    yield region.address + start, region.content[start:end]
            name = region.content.find(NOTE_NAME, name + 1)


def read_table(ram, address, entries):
    """A page table's entries; none when it is not in the RAM."""
    for region in ram:
        start = address - region.address
        if 0 <= start <= len(region.content) - 8 * entries:
            return struct.unpack_from(f"<{entries}Q", region.content, start)
    return ()


def walk_tables(ram, kernel):
    """All that the kernel's page tables map, by virtual address, joined where both addresses go on:
    [(virtual, physical, size)], devices included.

    Each table is read once, wherever entries point to it: so a loop ends, and the many entries that
    a kernel with KASAN points to the same few tables do not count."""
    page_shift = kernel.page.bit_length() - 1
    level_bits = page_shift - 3
    address_bits = PHYSICAL_BITS & -kernel.page
    # The tables of memory that is mapped by single pages take a 512th of it (4 KiB pages).
    tables_left = 1024 + sum(len(region.content) for region in ram) // kernel.page // 16
    seen, mappings = set(), []
    next_virtual = next_physical = 0

    def add(virtual, physical, size):
        nonlocal next_virtual, next_physical
        if (virtual, physical) == (next_virtual, next_physical) and mappings:
            mappings[-1][2] += size
        elif len(mappings) == MAX_MAPPINGS:
            raise DumpError(f"its page tables map more than {MAX_MAPPINGS} places: damaged")
        else:
            mappings.append([virtual, physical, size])
        next_virtual, next_physical = virtual + size, physical + size

    def walk(table, virtual, shift):
        nonlocal tables_left
        # The top table may be shorter than a page.
        entries = read_table(ram, table, 1 << min(level_bits, kernel.bits - shift))
        if not entries or table in seen:
            return
        seen.add(table)
        tables_left -= 1
        if tables_left < 0:
            raise DumpError("it has more page tables than its RAM needs: damaged")
        for entry in entries:
            if entry & VALID:
                target = entry & address_bits
                if shift > page_shift and entry & TABLE:
                    walk(target, virtual, shift - level_bits)
                elif shift > page_shift or entry & TABLE:
                    add(virtual, target & -(1 << shift), 1 << shift)
            virtual += 1 << shift

    levels = -(-(kernel.bits - page_shift) // level_bits)
    walk(kernel.table, (1 << 64) - (1 << kernel.bits), page_shift + (levels - 1) * level_bits)
    return mappings


def load_segments(ram, kernel):
    """The parts of the RAM that the kernel's page tables map, by virtual address.

    Raises DumpError when these are not the tables of a kernel that wrote this note."""
    segments = []
    for virtual, physical, size in walk_tables(ram, kernel):
        for region in ram:
            start = max(physical, region.address)
            end = min(physical + size, region.address + len(region.content))
            if start < end:
                segments.append(Segment(virtual + start - physical, start, end - start))
    if not any(0 <= kernel.table_virtual - virtual < size
               and kernel.table_virtual - virtual == kernel.table - physical
               for virtual, physical, size in segments):
        raise DumpError(f"its page tables, at {kernel.table:#x}, do not map themselves: they are "
                        "overwritten, or not in the RAM files")
    if not any(0 <= kernel.address - physical < size for _, physical, size in segments):
        raise DumpError("its page tables do not map the note: it is left from an earlier kernel")
    return segments


def find_kernels(ram):
    """The kernels whose note and page tables are whole, with their load segments: one, or more if
    the RAM still holds an earlier one: [(Kernel, segments)].

    Raises DumpError when there is none."""
    found, faults = [], []
    for count, (address, note) in enumerate(find_notes(ram)):
        if count == MAX_NOTES:
            break
        try:
            kernel = parse_note(address, note)
            found.append((kernel, load_segments(ram, kernel)))
        except DumpError as error:
            faults.append(f"the VMCOREINFO note at {address:#x}: {error}")
    if not found and not faults:
        raise DumpError("there is no VMCOREINFO note in the RAM files: the kernel has neither "
                        "CONFIG_KEXEC nor CONFIG_PROC_KCORE, or crashed before it wrote the note; "
                        "docs/reading-a-dump.md says what else there is")
    if not found:
        raise DumpError("\n".join(faults) + "\ndocs/reading-a-dump.md says what else there is")
    return found


def write_core(core, ram, kernel, segments):
    """Writes the ELF core to the binary stream: headers, note, then the RAM, once, to which all
    segments point. Returns how many segments the header had no room for: the smallest."""
    kept = segments
    if len(segments) > MAX_SEGMENTS:
        kept = sorted(heapq.nlargest(MAX_SEGMENTS, segments, key=lambda segment: segment.size))
    note_at = ELF_HEADER.size + PROGRAM_HEADER.size * (1 + len(kept))
    end = note_at + len(kernel.note)
    places = []
    for region in ram:
        places.append(-(-end // ALIGNMENT) * ALIGNMENT)
        end = places[-1] + len(region.content)
    core.write(ELF_HEADER.pack(ELF_IDENT, ET_CORE, EM_AARCH64, 1, 0, ELF_HEADER.size, 0, 0,
                               ELF_HEADER.size, PROGRAM_HEADER.size, 1 + len(kept), 0, 0, 0))
    note_size = len(kernel.note)
    core.write(PROGRAM_HEADER.pack(PT_NOTE, 0, note_at, 0, 0, note_size, note_size, 0))
    for virtual, physical, size in kept:
        offset = next(place + physical - region.address for region, place in zip(ram, places)
                      if 0 <= physical - region.address < len(region.content))
        core.write(PROGRAM_HEADER.pack(PT_LOAD, READ_WRITE_EXECUTE, offset, virtual, physical,
                                       size, size, 0))
    core.write(kernel.note)
    for region, place in zip(ram, places):
        core.seek(place)
        core.write(region.content)
    return len(segments) - len(kept)
