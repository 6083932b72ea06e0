// The link at the start of every block of the chain.
//
//   offset  width  field       meaning
//        0      4  magic       block_header_magic
//        4      4  next_block  physical number of the chain's next block, 0 in the last one
//        8      4  crc32       running CRC of the chain after this block (chain/chain_crc.h)
//
// All numbers are unsigned 32-bit little-endian. Block numbers are physical numbers on the block
// device in units of the chain's block length. The rest of the block is payload: the boot side
// writes it and leaves these 12 bytes as they are.
#ifndef TARNIX_CHAIN_BLOCK_HEADER_H
#define TARNIX_CHAIN_BLOCK_HEADER_H

#include <stddef.h>
#include <stdint.h>

struct block_header {
    uint32_t magic;
    uint32_t next_block;
    uint32_t crc32;
};

static_assert(sizeof(struct block_header) == 12, "block_header is 12 bytes on disk");
static_assert(offsetof(struct block_header, magic) == 0, "layout on disk");
static_assert(offsetof(struct block_header, next_block) == 4, "layout on disk");
static_assert(offsetof(struct block_header, crc32) == 8, "layout on disk");

// The bytes 42 43 68 6e: "BChn".
constexpr uint32_t block_header_magic = 0x6e684342;

#endif
