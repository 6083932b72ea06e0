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
//
// All numbers are unsigned 32-bit little-endian.
#ifndef TARNIX_CHAIN_INITIAL_BLOCK_HEADER_H
#define TARNIX_CHAIN_INITIAL_BLOCK_HEADER_H

#include <stddef.h>
#include <stdint.h>

struct initial_block_header {
    uint32_t magic;
    uint32_t first_block;
    uint32_t block_length;
    uint32_t n_blocks;
    uint32_t crc32;
    uint32_t flags;
};

static_assert(sizeof(struct initial_block_header) == 24,
              "initial_block_header is 24 bytes on disk");
static_assert(offsetof(struct initial_block_header, magic) == 0, "layout on disk");
static_assert(offsetof(struct initial_block_header, first_block) == 4, "layout on disk");
static_assert(offsetof(struct initial_block_header, block_length) == 8, "layout on disk");
static_assert(offsetof(struct initial_block_header, n_blocks) == 12, "layout on disk");
static_assert(offsetof(struct initial_block_header, crc32) == 16, "layout on disk");
static_assert(offsetof(struct initial_block_header, flags) == 20, "layout on disk");

// The bytes 42 48 64 72: "BHdr".
constexpr uint32_t initial_block_header_magic = 0x72644842;

// Flags of a chain that is ready for a dump: what the tool writes after building the chain, and
// again after an extraction.
constexpr uint32_t initial_block_header_ready = 1;

// Bit of `flags` that the boot side sets once a whole dump is in the chain.
constexpr uint32_t initial_block_header_dump_flag = 0x2;

// Byte offset of the anchor in the misc partition.
constexpr uint32_t initial_block_header_misc_offset = 3184;

// Logs the record field by field; first the block device's `path`, unless that is null.
void print_initial_block_header(const char *path, const struct initial_block_header *header);

#endif
