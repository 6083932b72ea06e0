// Blocks of the raw device as the flash holds them, past the kernel's page cache where it can be
// passed by. The file system changes blocks without the device's cached pages; and a page that the
// guard left there would go into the chain that the service builds next.
#ifndef TARNIX_GUARD_DEVICE_BLOCKS_H
#define TARNIX_GUARD_DEVICE_BLOCKS_H

#include <stdint.h>

struct device_blocks {
    int fd;
    uint32_t block_length;  // bytes
    uint64_t n_blocks;      // whole blocks of the device
    uint64_t first;         // block at the start of the buffer
    uint32_t held;          // blocks in it
    uint32_t next_read;  // blocks that the next read takes: more, the longer blocks come in order
    uint64_t reads;      // calls so far
    uint8_t *buffer;
};

// Opens the device `path` for blocks of `block_length` bytes, which is_block_length allows. 0, or
// -1 with errno set. Close it in either case.
int open_device_blocks(const char *path, uint32_t block_length, struct device_blocks *blocks);
void close_device_blocks(struct device_blocks *blocks);

// The bytes of a block, good until the next call. Null with errno set: ERANGE for a block that the
// device has not. While blocks are asked for in order, those that follow are read with them.
uint8_t *read_in_order(struct device_blocks *blocks, uint64_t block);

// The same for a block that no neighbour follows: just the one is read.
uint8_t *read_alone(struct device_blocks *blocks, uint64_t block);

#endif
