// The yardstick of the chain writer.
#ifndef TARNIX_BENCH_STRAIGHTFORWARD_WRITER_H
#define TARNIX_BENCH_STRAIGHTFORWARD_WRITER_H

// Builds the chain with the calls of raw_write_blocks in their order, each block mapped when its
// header is due and nothing announced. 0, or -1 when the map file or the device cannot be used or
// a block has no place. Stores no anchor.
int write_straightforward(const char *file, const char *blkdev);

#endif
