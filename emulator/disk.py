"""The device's disk: one GPT image with the partitions of a phone that matter to the tool."""

import os
import subprocess
import tempfile

SECTOR = 4096  # phones' flash has 4096-byte logical blocks
MIB = 1 << 20
# Name and MiB, in order; misc's item 22 and tool_diag's item are a whole MiB. userdata follows.
SMALL_PARTITIONS = (("misc", 1), ("mfg", 1), ("board_info", 1), ("tool_diag", 1))
USERDATA_OFFSET = 8 * MIB


def partitions(userdata_size):
    """Name -> [byte offset, byte size] on the disk, in the order of the table."""
    table, offset = {}, MIB
    for name, size in SMALL_PARTITIONS:
        table[name] = [offset, size * MIB]
        offset += size * MIB
    table["userdata"] = [USERDATA_OFFSET, userdata_size]
    return table


def format_userdata(path, fs):
    """Makes the file system on a partition image."""
    if fs == "ext4":
        # All initialised at once: the kernel would go on writing behind the tool's back.
        command = ["mkfs.ext4", "-F", "-b", "4096", "-E",
                   "lazy_itable_init=0,lazy_journal_init=0", path]
    else:
        command = ["mkfs.f2fs", "-f", "-w", str(SECTOR), path]
    subprocess.run(command, check=True, capture_output=True, text=True)


def copy_data(source, target, target_offset):
    """Copies what is not a hole of the file source into target at target_offset."""
    start, end = 0, os.fstat(source.fileno()).st_size
    while start < end:
        try:
            start = os.lseek(source.fileno(), start, os.SEEK_DATA)
        except OSError:  # no data after start
            return
        stop = os.lseek(source.fileno(), start, os.SEEK_HOLE)
        while start < stop:
            start += os.copy_file_range(source.fileno(), target.fileno(), stop - start, start,
                                        target_offset + start)


def make(path, fs, userdata_size):
    """Writes the sparse disk image and returns its partitions."""
    table = partitions(userdata_size)
    script = f"label: gpt\nsector-size: {SECTOR}\nunit: sectors\n"
    script += "".join(f"start={offset // SECTOR}, size={size // SECTOR}, name={name}\n"
                      for name, (offset, size) in table.items())
    with open(path, "wb") as image:
        image.truncate(USERDATA_OFFSET + userdata_size + MIB)
    with tempfile.NamedTemporaryFile("w") as layout:
        layout.write(script)
        layout.flush()
        # Of the two partitioners only fdisk can be told the sector size of an image.
        subprocess.run(["fdisk", "-b", str(SECTOR), path], input=f"I\n{layout.name}\nw\n",
                       text=True, check=True, capture_output=True)
    with tempfile.NamedTemporaryFile(dir=os.path.dirname(path)) as userdata, \
            open(path, "r+b") as image:
        userdata.truncate(userdata_size)
        format_userdata(userdata.name, fs)
        copy_data(userdata, image, USERDATA_OFFSET)
    return table
