// The chain as the boot side meets it: from the anchor along the links, each block's magic and CRC
// checked. Ends by itself on any disk, a cycle included.
#ifndef TARNIX_GUARD_CHAIN_LINKS_H
#define TARNIX_GUARD_CHAIN_LINKS_H

#include <stdint.h>

struct device_blocks;
struct initial_block_header;

struct chain_links {
    struct device_blocks *device;
    uint64_t n_blocks;  // as the anchor says, or the device's if it has fewer
    uint64_t position;  // blocks found good so far
    uint32_t next;      // device block that is next, 0 behind the last
    uint32_t crc;       // running CRC up to here
    const char *fault;  // why the walk ended early, null while it did not
    bool unreadable;    // the fault is the flash's, not the chain's: the block may be read another
                        // time
};

// Starts before the anchor's first block.
void start_links(struct chain_links *links, const struct initial_block_header *anchor,
                 struct device_blocks *device);

// The next block's bytes, good until the device's next read; null at the end of the walk. `fault`
// then tells whether that is the chain's own end, after as many blocks as the anchor says.
uint8_t *next_link(struct chain_links *links);

#endif
