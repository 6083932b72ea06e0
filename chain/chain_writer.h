// Builds the chain over a new map file.
#ifndef TARNIX_CHAIN_CHAIN_WRITER_H
#define TARNIX_CHAIN_CHAIN_WRITER_H

#include <stdint.h>

// Links the blocks of the map file `file` into a chain on the block device `blkdev`: writes each
// block's 12-byte header with the CRC running on from chain_crc, syncs the device, stores the
// anchor in misc and marks the map as valid. 0 when that is done; -1 when the map file or the
// device cannot be used or a block has no place, with a line in the log and no anchor.
//
// A header that could not be written is logged and the run goes on; the integrity test finds it.
int raw_write_blocks(const char *file, const char *blkdev);

// Writes the header that links `block` to `next` (0 for the last one) to the open device `fd`,
// advancing chain_crc. `block_size` is in bytes. `index` counts the headers from 1; the first is
// logged. Failures are logged, not reported: a failing seek leaves chain_crc as it was, a failing
// write does not.
void write_header(int fd, int64_t block, int64_t next, uint64_t block_size, int32_t index);

#endif
