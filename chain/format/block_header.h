// The link at the start of every block of the chain.
//
//   offset  width  field       meaning
//        0      4  magic       block_header_magic
//        4      4  next_block  physical number of the chain's next block, 0 in the last one
//        8      4  crc32       running CRC of the chain after this block (chain_link.h)
//
// Block numbers are physical numbers on the block device in units of the chain's block length.
// Block 0 is never in a chain. The rest of the block is payload (dump_layout.h): the boot side
// writes it and leaves these 12 bytes as they are.
#ifndef TARNIX_CHAIN_FORMAT_BLOCK_HEADER_H
#define TARNIX_CHAIN_FORMAT_BLOCK_HEADER_H

#include "chain/format/record_layout.h"

struct block_header {
    uint32_t magic;
    uint32_t next_block;
    uint32_t crc32;
};

require_layout(sizeof(struct block_header) == 12);
require_layout(offsetof(struct block_header, magic) == 0);
require_layout(offsetof(struct block_header, next_block) == 4);
require_layout(offsetof(struct block_header, crc32) == 8);

// The bytes 42 43 68 6e: "BChn".
static const uint32_t block_header_magic = 0x6e684342;

#endif
