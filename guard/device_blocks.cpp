#include "guard/device_blocks.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "chain/format/initial_block_header.h"
#include "chain/transfer.h"

// Bytes of the longest read: the longest block there may be.
static const uint32_t longest_read = initial_block_header_max_block_length;
// What any device asks of the memory for a direct transfer.
static const size_t direct_alignment = 4096;

int open_device_blocks(const char *path, uint32_t block_length, struct device_blocks *blocks) {
    *blocks = {};
    blocks->fd = -1;
    blocks->block_length = block_length;
    blocks->next_read = 1;
    blocks->buffer = static_cast<uint8_t *>(aligned_alloc(direct_alignment, longest_read));
    if (blocks->buffer == nullptr) {
        return -1;
    }
    blocks->fd = open_retry(path, O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (blocks->fd == -1 && errno == EINVAL) {
        // No direct transfers there: as the service reads.
        blocks->fd = open_retry(path, O_RDONLY | O_SYNC | O_CLOEXEC);
    }
    if (blocks->fd == -1) {
        return -1;
    }
    const off64_t size = lseek64(blocks->fd, 0, SEEK_END);
    if (size == -1) {
        return -1;
    }
    blocks->n_blocks = static_cast<uint64_t>(size) / block_length;
    return 0;
}

void close_device_blocks(struct device_blocks *blocks) {
    free(blocks->buffer);
    if (blocks->fd != -1) {
        close(blocks->fd);
    }
    *blocks = {};
    blocks->fd = -1;
}

// Reads `count` blocks into the buffer. 0, or -1 with errno set and nothing held.
static int fill(struct device_blocks *blocks, uint64_t first, uint32_t count) {
    const size_t length = static_cast<size_t>(count) * blocks->block_length;
    const off64_t offset = static_cast<off64_t>(first * blocks->block_length);
    size_t done = 0;
    blocks->held = 0;
    while (done < length) {
        const ssize_t got = pread64(blocks->fd, blocks->buffer + done, length - done,
                                    offset + static_cast<off64_t>(done));
        if (got > 0) {
            done += static_cast<size_t>(got);
            ++blocks->reads;
        } else if (got == 0) {
            errno = EIO;  // the device has become shorter
            return -1;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    blocks->first = first;
    blocks->held = count;
    return 0;
}

static uint8_t *read_some(struct device_blocks *blocks, uint64_t block, uint32_t count) {
    if (block >= blocks->n_blocks) {
        errno = ERANGE;
        return nullptr;
    }
    const uint64_t left = blocks->n_blocks - block;
    if (fill(blocks, block, static_cast<uint32_t>(std::min<uint64_t>(count, left))) != 0 &&
        // What cannot be read may be a neighbour that nobody asked for.
        (count == 1 || fill(blocks, block, 1) != 0)) {
        return nullptr;
    }
    return blocks->buffer;
}

uint8_t *read_in_order(struct device_blocks *blocks, uint64_t block) {
    if (block >= blocks->first && block - blocks->first < blocks->held) {
        return blocks->buffer + (block - blocks->first) * blocks->block_length;
    }
    const bool in_order = blocks->held > 0 && block == blocks->first + blocks->held;
    blocks->next_read =
        in_order ? std::min(blocks->next_read * 2, longest_read / blocks->block_length) : 1;
    return read_some(blocks, block, blocks->next_read);
}

uint8_t *read_alone(struct device_blocks *blocks, uint64_t block) {
    return read_some(blocks, block, 1);
}
