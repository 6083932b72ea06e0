// The CRC-32 that runs through the chain, from block to block.
#ifndef TARNIX_CHAIN_CHAIN_CRC_H
#define TARNIX_CHAIN_CHAIN_CRC_H

#include <stdint.h>

// The running value. The driver sets it to the seed (random, or -i) before any chain work; the
// writer and the integrity test advance it, and the test first reloads it from the anchor.
extern uint32_t chain_crc;

// Advances chain_crc over one link, from `block` to `next` (0 after the last block), and returns
// it: zlib's crc32, continued over the bytes that chain/format/chain_link.h gives a link.
uint32_t advance_chain_crc(uint64_t block, uint64_t next);

#endif
