// Where the blocks of a file lie on the block device under its file system.
#ifndef TARNIX_CHAIN_BLOCK_MAP_H
#define TARNIX_CHAIN_BLOCK_MAP_H

#include <stdint.h>
#include <sys/types.h>

// Asks the file system for the device block that holds block `*block` of the open file `fd`, and
// leaves it in `*block`: 0 for a hole. Non-zero when it cannot tell, with errno set.
int map_block(int fd, int *block);

// Seeks the device `fd` to the start of a block, again after EINTR. Negative on any other error,
// with errno set; the message is the caller's.
off64_t seek_to_block(int fd, int64_t block, uint64_t block_size);

// Reads block `index` of the map file `map_fd` from the device `device_fd` under it into `buffer`,
// `block_size` bytes. 0, or -1 with a line in the log. A hole maps to block 0. Reading that is
// harmless; the writer refuses it.
int read_file_block(int map_fd, int device_fd, uint32_t index, void *buffer, int32_t block_size);

#endif
