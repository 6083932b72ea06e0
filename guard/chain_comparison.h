// Whether the chain on the flash is still the chain of the map file's blocks.
#ifndef TARNIX_GUARD_CHAIN_COMPARISON_H
#define TARNIX_GUARD_CHAIN_COMPARISON_H

#include <stdint.h>

struct device_blocks;
struct initial_block_header;

enum chain_comparison {
    chain_matches,
    // Every block is where the chain has it, as each header's link or CRC says; but the other of
    // the two is wrong somewhere. The service finds a dump in it whole, the boot side takes it for
    // no chain.
    chain_has_bad_header,
    // The file system agrees, asked a second time in the way that the chain was built by.
    chain_differs,
    // It does not agree: nothing may be changed.
    chain_disputed,
    // It cannot be asked, or the flash not read.
    chain_cannot_be_compared,
};

// Compares the map file, open as `file`, with the chain of `anchor`: number, length and order of
// the blocks, and the headers at both ends of each run of neighbouring blocks; every header where
// `every_header` is set. The CRC of each follows from the runs and the anchor's seed, so those
// between the ends are not read. Logs what it finds, one line.
enum chain_comparison compare_chain(int file, const struct initial_block_header *anchor,
                                    struct device_blocks *device, bool every_header);

#endif
