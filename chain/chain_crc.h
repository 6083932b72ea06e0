// The CRC-32 that runs through the chain, from block to block.
#ifndef TARNIX_CHAIN_CHAIN_CRC_H
#define TARNIX_CHAIN_CHAIN_CRC_H

#include <stdint.h>

// The running value. The driver sets it to the seed (random, or -i) before any chain work; the
// writer and the integrity test advance it, and the test first reloads it from the anchor.
extern uint32_t chain_crc;

// Advances chain_crc over one link, from `block` to `next` (0 after the last block), and returns
// it: zlib's crc32 (IEEE 802.3), continued over both numbers as 64-bit little-endian. It covers
// the links only, so a dump in the payloads leaves every header valid.
uint32_t advance_chain_crc(uint64_t block, uint64_t next);

#endif
