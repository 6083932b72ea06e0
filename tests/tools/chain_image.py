"""Makes images with a block chain at given physical blocks."""

import struct
import zlib

ANCHOR_OFFSET = 3184
ANCHOR_MAGIC = 0x72644842
BLOCK_MAGIC = 0x6E684342
SEED = 0x12345678
BLOCK = 4096
PAYLOAD = BLOCK - 12


def headers(blocks, seed):
    """The 12-byte header of each block, in chain order."""
    crc, result = seed, []
    for block, following in zip(blocks, blocks[1:] + [0]):
        crc = zlib.crc32(struct.pack("<QQ", block, following), crc)
        result.append(struct.pack("<III", BLOCK_MAGIC, following, crc))
    return result


def file_header(name, size):
    return struct.pack("<4s20sQQ", b"F1Le", name, size, 0)


def dump_stream(files):
    """The payloads' bytes of a dump of [(name, data)], and where in them each data begins."""
    stream, places = b"", []
    for name, data in files:
        left = PAYLOAD - len(stream) % PAYLOAD
        stream += bytes(left if left < 40 else 0) + file_header(name, len(data))
        places.append(len(stream))
        stream += data
    return stream, places


class Image:
    """A file for each partition, that of data with 2048 blocks."""

    def __init__(self, folder, blocks):
        self.blocks = blocks = list(blocks)
        self.misc, self.data = folder / "misc.img", folder / "data.img"
        for path, size in ((self.misc, 2), (self.data, 2048)):
            path.write_bytes(bytes(size * BLOCK))
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

    def set_dump(self, files):
        stream, _ = dump_stream(files)
        for number, start in enumerate(range(0, len(stream), PAYLOAD)):
            self.poke(self.blocks[number], stream[start:start + PAYLOAD], 12)
