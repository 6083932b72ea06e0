// The anchor of the chain: item 19 of the misc partition, where the boot side looks for it.
//
//   offset  width  field         meaning
//        0      4  magic         initial_block_header_magic; anything else: there is no chain
//        4      4  first_block   physical number of the chain's first block
//        8      4  block_length  bytes in a block, the unit of every block number
//       12      4  n_blocks      blocks in the chain
//       16      4  crc32         seed: the running CRC before the first block was chained. Not the
//                                CRC of the last block, since a verifier starts from here.
//       20      4  flags         1 from the tool; the boot side adds initial_block_header_dump_flag
#ifndef TARNIX_CHAIN_FORMAT_INITIAL_BLOCK_HEADER_H
#define TARNIX_CHAIN_FORMAT_INITIAL_BLOCK_HEADER_H

#include "chain/format/record_layout.h"

struct initial_block_header {
    uint32_t magic;
    uint32_t first_block;
    uint32_t block_length;
    uint32_t n_blocks;
    uint32_t crc32;
    uint32_t flags;
};

require_layout(sizeof(struct initial_block_header) == 24);
require_layout(offsetof(struct initial_block_header, magic) == 0);
require_layout(offsetof(struct initial_block_header, first_block) == 4);
require_layout(offsetof(struct initial_block_header, block_length) == 8);
require_layout(offsetof(struct initial_block_header, n_blocks) == 12);
require_layout(offsetof(struct initial_block_header, crc32) == 16);
require_layout(offsetof(struct initial_block_header, flags) == 20);

// Byte offset of the anchor in the misc partition.
static const uint32_t initial_block_header_misc_offset = 3184;

// The bytes 42 48 64 72: "BHdr".
static const uint32_t initial_block_header_magic = 0x72644842;

// Flags of a chain that is ready for a dump: what the tool writes after building the chain, and
// again after an extraction.
static const uint32_t initial_block_header_ready = 1;

// Bit of `flags` that the boot side sets once a whole dump is in the chain.
static const uint32_t initial_block_header_dump_flag = 0x2;

// What a boot side accepts as block_length: a power of two in this range. File systems use 4096.
static const uint32_t initial_block_header_min_block_length = 512;
static const uint32_t initial_block_header_max_block_length = 1048576;

// Whether the record is an anchor at all. Of zeros, or of what else misc may hold, it is not.
static inline bool is_initial_block_header(const struct initial_block_header *anchor) {
    return anchor->magic == initial_block_header_magic;
}

// The anchor of a chain that has just been built.
static inline struct initial_block_header fresh_initial_block_header(uint32_t first_block,
                                                                     uint32_t length,
                                                                     uint32_t n_blocks,
                                                                     uint32_t seed) {
    const struct initial_block_header anchor = {
        initial_block_header_magic, first_block, length, n_blocks, seed,
        initial_block_header_ready};
    return anchor;
}

// Whether a block can have this length.
static inline bool is_block_length(uint32_t length) {
    return length >= initial_block_header_min_block_length &&
           length <= initial_block_header_max_block_length && (length & (length - 1)) == 0;
}

// Whether a dump waits in the chain, by the anchor's flags.
static inline bool is_dump_pending(uint32_t flags) {
    return (flags & initial_block_header_dump_flag) != 0;
}

#endif
