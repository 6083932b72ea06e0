// What the CRC-32 that runs through the chain covers: the links, and nothing else, so that a dump
// in the payloads leaves every header valid.
//
// It begins with the anchor's seed. Each block in turn continues it over the 16 bytes of its
// chain_link, and the header of that block holds the result. The CRC is zlib's crc32: IEEE 802.3,
// continued from its earlier result.
#ifndef TARNIX_CHAIN_FORMAT_CHAIN_LINK_H
#define TARNIX_CHAIN_FORMAT_CHAIN_LINK_H

#include "chain/format/record_layout.h"

// The numbers are wider here than in the headers.
struct chain_link {
    uint64_t block;  // physical number of the block
    uint64_t next;   // of the one after it, 0 after the last
};

require_layout(sizeof(struct chain_link) == 16);
require_layout(offsetof(struct chain_link, block) == 0);
require_layout(offsetof(struct chain_link, next) == 8);

#endif
