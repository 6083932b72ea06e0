"""Reads the folder of an extracted dump: boot_info.txt and the RAM files that it names.

boot_info.txt is text: the line `tarnix boot_info 1`, then a `key: value` a line. A line
`ram: NAME ADDRESS SIZE` for each RAM file gives the physical address of its first byte and its
bytes, both as 0x and hexadecimal digits."""

import collections
import mmap
import os
import re

FILE_NAME = "boot_info.txt"
FIRST_LINE = "tarnix boot_info 1"
MAX_TEXT = 1 << 20
ADDRESS_END = 1 << 52  # the largest physical address of a 64-bit Arm processor
RAM_VALUE = re.compile(r"([A-Za-z0-9_][A-Za-z0-9_.-]*) (0x[0-9a-fA-F]{1,16}) (0x[0-9a-fA-F]{1,16})")

# One RAM file. content: its bytes, mapped; address: the physical address of the first one.
Region = collections.namedtuple("Region", "name address content")


class DumpError(Exception):
    """Why the dump cannot be used, with the user's next step."""


def parse(text):
    """The RAM files that boot_info.txt names, by address: [(name, address, size)]."""
    lines = text.split("\n")
    if lines[0] != FIRST_LINE:
        raise DumpError(f"{FILE_NAME}, line 1: not \"{FIRST_LINE}\": correct it, or write the file "
                        "by hand (docs/reading-a-dump.md)")
    files = []
    for number, line in enumerate(lines[1:], 2):
        key, _, value = line.partition(": ")
        if key != "ram":
            continue
        match = RAM_VALUE.fullmatch(value)
        address, size = (int(match[2], 16), int(match[3], 16)) if match else (0, 0)
        if size == 0 or address + size > ADDRESS_END:
            raise DumpError(f"{FILE_NAME}, line {number}: not \"ram: NAME 0xADDRESS 0xSIZE\": "
                            "correct it")
        files.append((match[1], address, size))
    if not files:
        raise DumpError(f"{FILE_NAME} names no RAM file: the boot side had no room for one (its "
                        "ram-left-out lines); make the chain larger and wait for the next crash")
    files.sort(key=lambda file: file[1])
    for (name, address, size), (after, start, _) in zip(files, files[1:]):
        if address + size > start:
            raise DumpError(f"{FILE_NAME}: {name} and {after} lie over one another: correct their "
                            "lines")
    return files


def open_region(folder, name, address, size):
    try:
        with open(os.path.join(folder, name), "rb") as stream:
            found = os.fstat(stream.fileno()).st_size
            if found != size:
                raise DumpError(f"{name} has {found} bytes, {FILE_NAME} says {size}: take the file "
                                "from the device again, or correct the line if it was cut")
            return Region(name, address, mmap.mmap(stream.fileno(), 0, prot=mmap.PROT_READ))
    except FileNotFoundError:
        raise DumpError(f"{name} is missing beside {FILE_NAME}: take it from the device, or remove "
                        "its line to read the rest") from None


def open_ram(folder):
    """The RAM of a dump: its regions by address."""
    try:
        with open(os.path.join(folder, FILE_NAME), "rb") as stream:
            text = stream.read(MAX_TEXT).decode(errors="replace")
    except FileNotFoundError:
        raise DumpError(f"{folder} has no {FILE_NAME}: give the folder of an extracted dump, "
                        "or write the file by hand (docs/reading-a-dump.md)") from None
    return [open_region(folder, *file) for file in parse(text)]
