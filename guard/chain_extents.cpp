#include "guard/chain_extents.h"

#include <errno.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <string.h>
#include <sys/ioctl.h>

#include <algorithm>

// Extents whose bytes the device does not hold as they stand in the file's blocks. An encrypted one
// is also marked as encoded, and is the only such one that has blocks of its own.
static const uint32_t never_a_place = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC |
                                      FIEMAP_EXTENT_NOT_ALIGNED | FIEMAP_EXTENT_DATA_INLINE |
                                      FIEMAP_EXTENT_DATA_TAIL | FIEMAP_EXTENT_UNWRITTEN;

void start_extents(struct chain_extents *extents, int file, uint64_t block_length,
                   uint64_t n_blocks) {
    memset(extents, 0, sizeof(*extents));
    extents->file = file;
    extents->block_length = block_length;
    extents->n_blocks = n_blocks;
    extents->asked = UINT64_MAX;
}

static struct fiemap *batch_of(struct chain_extents *extents) {
    return reinterpret_cast<struct fiemap *>(extents->batch);
}

// Asks for the extents from the expected block on. 0, or -1 with errno set.
static int ask(struct chain_extents *extents) {
    if (extents->index == extents->asked) {
        // The answer held nothing of what was asked for, and would again.
        errno = EIO;
        return -1;
    }
    struct fiemap *batch = batch_of(extents);
    int result = 0;
    do {
        memset(batch, 0, sizeof(*batch));
        batch->fm_start = extents->index * extents->block_length;
        batch->fm_length = (extents->n_blocks - extents->index) * extents->block_length;
        batch->fm_flags = FIEMAP_FLAG_SYNC;
        batch->fm_extent_count =
            (extent_batch_size - sizeof(*batch)) / sizeof(struct fiemap_extent);
        result = ioctl(extents->file, FS_IOC_FIEMAP, batch);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        return -1;
    }
    extents->asked = extents->index;
    extents->taken = 0;
    extents->last = batch->fm_mapped_extents == 0;
    return 0;
}

static bool has_place(const struct fiemap_extent &extent, uint64_t block_length) {
    const bool encoded = (extent.fe_flags & FIEMAP_EXTENT_ENCODED) != 0 &&
                         (extent.fe_flags & FIEMAP_EXTENT_DATA_ENCRYPTED) == 0;
    const uint64_t misaligned =
        (extent.fe_logical | extent.fe_physical | extent.fe_length) % block_length;
    // The last block, counted from 1, must fit the headers' 32 bits.
    const uint64_t end = extent.fe_physical / block_length + extent.fe_length / block_length;
    return (extent.fe_flags & never_a_place) == 0 && !encoded && misaligned == 0 &&
           end <= UINT32_MAX;
}

// Turns an extent into a run that starts at the expected block; false when it has none of the
// blocks that are still to come.
static bool run_of(const struct chain_extents *extents, const struct fiemap_extent &extent,
                   struct block_run *run) {
    const uint64_t length = extents->block_length;
    const uint64_t first = extent.fe_logical / length;
    // A part of a block is the file's own end, or belongs to no run.
    const uint64_t end = std::min<uint64_t>(
        (extent.fe_logical + extent.fe_length + length - 1) / length, extents->n_blocks);
    if (end <= extents->index) {
        return false;
    }
    if (first > extents->index) {
        *run = {extents->index, 0, std::min(first, extents->n_blocks) - extents->index, 0};
        return true;
    }
    const uint64_t start = extent.fe_physical / length;
    const uint64_t place = start == 0 ? 0 : start + (extents->index - first);
    *run = {extents->index, 0, end - extents->index, 0};
    if (has_place(extent, length)) {
        run->place = place;
    } else if ((extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0) {
        run->set_aside = place;
    }
    return true;
}

// As next_run, but extents that lie side by side are not yet one run.
static int next_piece(struct chain_extents *extents, struct block_run *run) {
    while (extents->index < extents->n_blocks) {
        const struct fiemap *batch = batch_of(extents);
        if (extents->last && extents->taken == batch->fm_mapped_extents) {
            *run = {extents->index, 0, extents->n_blocks - extents->index, 0};
            extents->index = extents->n_blocks;
            return 1;
        }
        if (extents->taken == batch->fm_mapped_extents) {
            if (ask(extents) != 0) {
                return -1;
            }
            continue;
        }
        const struct fiemap_extent extent = batch->fm_extents[extents->taken];
        if (run_of(extents, extent, run)) {
            extents->index += run->count;
            return 1;
        }
        ++extents->taken;
        extents->last = (extent.fe_flags & FIEMAP_EXTENT_LAST) != 0;
    }
    return 0;
}

int next_run(struct chain_extents *extents, struct block_run *run) {
    if (!extents->has_ahead) {
        const int result = next_piece(extents, &extents->ahead);
        if (result != 1) {
            return result;
        }
    }
    *run = extents->ahead;
    extents->has_ahead = false;
    for (;;) {
        const int result = next_piece(extents, &extents->ahead);
        if (result != 1) {
            return result == 0 ? 1 : -1;
        }
        const bool joins = run->place == 0 ? extents->ahead.place == 0
                                           : extents->ahead.place == run->place + run->count;
        if (!joins) {
            extents->has_ahead = true;
            return 1;
        }
        run->count += extents->ahead.count;
    }
}
