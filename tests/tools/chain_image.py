"""Makes images with a block chain at given physical blocks, and reads a dump as the device does."""

import struct
import subprocess
import zlib

ANCHOR_OFFSET = 3184
ANCHOR_MAGIC = 0x72644842
BLOCK_MAGIC = 0x6E684342
FILE_MAGIC = 0x654C3146
MIB = 1 << 20


def link_crc(crc, block, following):
    return zlib.crc32(struct.pack("<QQ", block, following), crc)


def headers(blocks, seed):
    """The 12-byte header of each block, in chain order."""
    crc, result = seed, []
    for block, following in zip(blocks, blocks[1:] + [0]):
        crc = link_crc(crc, block, following)
        result.append(struct.pack("<III", BLOCK_MAGIC, following, crc))
    return result


class Image:
    """`misc` and `data` are (path, byte offset); `arguments` name the images to tarnix-chain."""

    def __init__(self, folder, blocks, length=4096, data_blocks=2048, sector=None, fill=b"\xff"):
        self.blocks, self.length, self.seed = list(blocks), length, 0x12345678
        if sector:
            self._make_disk(folder / "disk.img", data_blocks * length, sector)
        else:
            self.misc, self.data = (folder / "misc.img", 0), (folder / "data.img", 0)
            self.arguments = ["--misc", self.misc[0], "--data", self.data[0]]
            for (path, _), size in ((self.misc, MIB), (self.data, data_blocks * length)):
                with open(path, "wb") as file:
                    file.truncate(size)
        self.set_anchor()
        with open(self.data[0], "r+b") as file:
            for block, header in zip(self.blocks, headers(self.blocks, self.seed)):
                file.seek(self.data[1] + block * length)
                file.write(header + fill * (length - 12))

    def _make_disk(self, path, data_size, sector):
        with open(path, "wb") as file:
            file.truncate(data_size + 4 * MIB)
        script = f"label: gpt\nsector-size: {sector}\n"
        for name, start, size in (("misc", MIB, MIB), ("userdata", 2 * MIB, data_size)):
            script += f"name={name}, start={start // sector}, size={size // sector}\n"
        table = path.with_suffix(".gpt")
        table.write_text(script)
        # Of the two partitioners only fdisk can be told the sector size of an image.
        command = ["/sbin/fdisk", "-b", str(sector), path]
        subprocess.run(
            command, input=f"I\n{table}\nw\n", text=True, check=True, capture_output=True
        )
        self.misc, self.data, self.arguments = (path, MIB), (path, 2 * MIB), ["--disk", path]

    def set_anchor(self, **changes):
        anchor = dict(magic=ANCHOR_MAGIC, first=self.blocks[0], length=self.length)
        anchor.update(n=len(self.blocks), seed=self.seed, flags=1)
        anchor.update(changes)
        self.poke(self.misc, ANCHOR_OFFSET, struct.pack("<6I", *anchor.values()))

    def flags(self):
        return struct.unpack("<I", self.peek(self.misc, ANCHOR_OFFSET + 20, 4))[0]

    def poke(self, partition, offset, data):
        with open(partition[0], "r+b") as file:
            file.seek(partition[1] + offset)
            file.write(data)

    def peek(self, partition, offset, length):
        with open(partition[0], "rb") as file:
            file.seek(partition[1] + offset)
            return file.read(length)

    def set_link(self, position, following, crc=None):
        """Changes a link after the first, with the right CRC for it unless another is given."""
        before = struct.unpack("<III", headers(self.blocks, self.seed)[position - 1])[2]
        if crc is None:
            crc = link_crc(before, self.blocks[position], following)
        header = struct.pack("<III", BLOCK_MAGIC, following, crc)
        self.poke(self.data, self.blocks[position] * self.length, header)

    def digest(self):
        paths = sorted({self.misc[0], self.data[0]})
        return [zlib.crc32(path.read_bytes()) for path in paths]

    def extract(self):
        """[(name, announced size, data)] as the device's tool makes them of the file's blocks."""
        files, left = [], 0
        for block in self.blocks:
            content = self.peek(self.data, block * self.length, self.length)
            if content[:4] != struct.pack("<I", BLOCK_MAGIC):
                break
            at = 12
            while at < self.length:
                if left:
                    piece = content[at : at + left]
                    files[-1][2].extend(piece)
                    left, at = left - len(piece), at + len(piece)
                elif self.length - at < 40:
                    break
                else:
                    magic, name, left, _ = struct.unpack_from("<I20sQQ", content, at)
                    if magic != FILE_MAGIC:
                        return files
                    files.append((name.split(b"\0")[0].decode(), left, bytearray()))
                    at += 40
        return files
