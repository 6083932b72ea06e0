// The two ways to walk an image's chain.
#ifndef TARNIX_TOOLS_CHAIN_ACCESS_H
#define TARNIX_TOOLS_CHAIN_ACCESS_H

#include "tools/disk_image.h"

// Verifies the whole chain with bootside_open, behind a progress bar.
enum bootside_result open_chain(struct disk_image *image, struct bootside *boot);

// Starts a walk for a reader that wants what can still be had: as chain_walk_start, but a copy of
// the data partition may have fewer blocks than the anchor announces. The walk then ends, with
// bootside_block_outside, at the first block that the copy lacks.
enum bootside_result start_reading(struct disk_image *image, struct bootside_walk *walk);

// A bar's length for such a walk: the chain's bytes, or those of a copy that has fewer.
uint64_t bytes_to_read(const struct disk_image &image, const struct bootside_walk &walk);

#endif
