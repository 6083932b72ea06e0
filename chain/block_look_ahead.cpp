#include "chain/block_look_ahead.h"

#include <fcntl.h>

#include "chain/block_map.h"

void start_look_ahead(struct block_look_ahead *ahead, int file, int device, uint64_t block_size,
                      int32_t end) {
    ahead->file = file;
    ahead->device = device;
    ahead->block_size = block_size;
    ahead->end = end;
    ahead->mapped = 0;
    ahead->stopped = false;
    ahead->run_start = 0;
    ahead->run_length = 0;
}

static void announce_run(struct block_look_ahead *ahead) {
    if (ahead->run_length == 0) {
        return;
    }
    // A hint: when it fails, the pages are read as their headers come.
    (void)posix_fadvise(
        ahead->device,
        static_cast<off_t>(static_cast<uint64_t>(ahead->run_start) * ahead->block_size),
        static_cast<off_t>(static_cast<uint64_t>(ahead->run_length) * ahead->block_size),
        POSIX_FADV_WILLNEED);
    ahead->run_length = 0;
}

static void add_to_run(struct block_look_ahead *ahead, int block) {
    const bool continues = ahead->run_length > 0 && ahead->run_length < look_ahead_piece &&
                           block - ahead->run_length == ahead->run_start;
    if (!continues) {
        announce_run(ahead);
        ahead->run_start = block;
    }
    ++ahead->run_length;
}

static void map_next(struct block_look_ahead *ahead) {
    struct mapped_block *slot = &ahead->blocks[ahead->mapped % look_ahead_window];
    slot->block = ahead->mapped;
    slot->result = map_block(ahead->file, &slot->block);
    ++ahead->mapped;
    if (slot->result != 0 || slot->block == 0) {
        ahead->stopped = true;
    } else if (slot->block > 0) {
        add_to_run(ahead, slot->block);
    }
}

struct mapped_block take_block(struct block_look_ahead *ahead, int32_t index) {
    // Maps on only when there is room for a whole piece. One block at a time would announce each
    // block alone, also where they are neighbours.
    if (ahead->mapped - index <= look_ahead_window - look_ahead_piece) {
        while (!ahead->stopped && ahead->mapped < ahead->end &&
               ahead->mapped - index < look_ahead_window) {
            map_next(ahead);
        }
        announce_run(ahead);
    }
    return ahead->blocks[index % look_ahead_window];
}
