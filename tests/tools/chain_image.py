"""Makes images with a block chain at given physical blocks."""

import struct
import zlib

ANCHOR_OFFSET = 3184
ANCHOR_MAGIC = 0x72644842
BLOCK_MAGIC = 0x6E684342
SEED = 0x12345678
BLOCK = 4096


def headers(blocks, seed):
    """The 12-byte header of each block, in chain order."""
    crc, result = seed, []
    for block, following in zip(blocks, blocks[1:] + [0]):
        crc = zlib.crc32(struct.pack("<QQ", block, following), crc)
        result.append(struct.pack("<III", BLOCK_MAGIC, following, crc))
    return result


class Image:
    """A file for each partition, that of data with 2048 blocks; `arguments` name the two."""

    def __init__(self, folder, blocks):
        self.blocks, self.misc, self.data = blocks, folder / "misc.img", folder / "data.img"
        self.arguments = ["--misc", self.misc, "--data", self.data]
        self.misc.write_bytes(bytes(2 * BLOCK))
        self.data.write_bytes(bytes(2048 * BLOCK))
        self.set_anchor()
        for block, header in zip(blocks, headers(blocks, SEED)):
            self.poke(block, header)

    def set_anchor(self, **changes):
        anchor = {"magic": ANCHOR_MAGIC, "first": self.blocks[0], "length": BLOCK,
                  "n": len(self.blocks), "seed": SEED, "flags": 1, **changes}
        self.poke(0, struct.pack("<6I", *anchor.values()), ANCHOR_OFFSET, self.misc)

    def poke(self, block, data, offset=0, path=None):
        with open(path or self.data, "r+b") as file:
            file.seek(block * BLOCK + offset)
            file.write(data)

    def set_link(self, position, following):
        """Changes a link, with the right CRC for it."""
        chain = self.blocks[: position + 1] + [following]
        self.poke(self.blocks[position], headers(chain, SEED)[position])

    def digest(self):
        return [zlib.crc32(path.read_bytes()) for path in (self.misc, self.data)]
