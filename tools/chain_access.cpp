#include "tools/chain_access.h"

#include <algorithm>

#include "bootside/chain_walk.h"
#include "chain/format/initial_block_header.h"
#include "tools/progress_bar.h"

enum bootside_result open_chain(struct disk_image *image, struct bootside *boot) {
    // The anchor alone first: its length is the bar's.
    enum bootside_result result = chain_walk_start(&boot->walk, &image->port);
    if (result == bootside_ok) {
        progress_begin(image, "verifying", bytes_to_read(*image, boot->walk));
        result = bootside_open(boot, &image->port);
        progress_end(image);
    }
    return result;
}

enum bootside_result start_reading(struct disk_image *image, struct bootside_walk *walk) {
    const enum bootside_result result = chain_walk_start(walk, &image->port);
    if (result != bootside_bad_block_count || walk->n_blocks == 0) {
        return result;
    }
    // Once more, against a partition that has room for any count; then the blocks of this one.
    const uint32_t present = walk->data_blocks;
    struct bootside_port boundless = image->port;
    boundless.data_size = UINT64_MAX;
    if (chain_walk_start(walk, &boundless) != bootside_ok || walk->first_block >= present) {
        return chain_walk_start(walk, &image->port);
    }
    walk->port = &image->port;
    walk->data_blocks = present;
    return bootside_ok;
}

uint64_t bytes_to_read(const struct disk_image &image, const struct bootside_walk &walk) {
    return std::min(uint64_t{walk.n_blocks} * walk.block_length, image.data.size);
}
