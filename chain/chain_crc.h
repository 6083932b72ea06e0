// The CRC-32 that runs through the chain, from block to block.
#ifndef TARNIX_CHAIN_CHAIN_CRC_H
#define TARNIX_CHAIN_CHAIN_CRC_H

#include <stdint.h>

// The CRC `crc` continued over one link, from `block` to `next` (0 after the last block): zlib's
// crc32, over the bytes that chain/format/chain_link.h gives a link.
uint32_t extend_chain_crc(uint32_t crc, uint64_t block, uint64_t next);

// The same over the `count` links from `block` to the one after it, and so on up the device: eight
// times as fast as link by link.
uint32_t extend_chain_crc_over_run(uint32_t crc, uint64_t block, uint64_t count);

// The running value. The driver sets it to the seed (random, or -i) before any chain work; the
// writer and the integrity test advance it, and the test first reloads it from the anchor.
extern uint32_t chain_crc;

// Advances chain_crc over one link, as above, and returns it.
uint32_t advance_chain_crc(uint64_t block, uint64_t next);

#endif
