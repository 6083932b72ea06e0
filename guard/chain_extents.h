// Where a file's blocks lie, in runs of neighbouring blocks: the file system's extents (FIEMAP),
// taken a batch at a time, so that memory does not grow with the file.
#ifndef TARNIX_GUARD_CHAIN_EXTENTS_H
#define TARNIX_GUARD_CHAIN_EXTENTS_H

#include <stdint.h>

// Blocks of the file that lie side by side on the device, in units of the chain's block length.
struct block_run {
    uint64_t index;  // of the first one in the file
    uint64_t place;  // device block of the first one; 0: these blocks have no place of their own
    uint64_t count;
    uint64_t set_aside;  // device block that the file system keeps for the first one of those
                         // without a place, and has not written yet; 0: none
};

// Bytes of one answer of the file system: some 70 extents.
constexpr uint32_t extent_batch_size = 4096;

struct chain_extents {
    int file;               // descriptor of the map file
    uint64_t block_length;  // bytes
    uint64_t n_blocks;      // blocks of the file; what lies behind them is not looked at
    uint64_t index;         // block that the next extent is expected at
    uint64_t asked;         // block that the batch was asked for from
    uint32_t taken;         // extents of the batch that were used
    bool last;              // the file system has no more of them
    bool has_ahead;         // `ahead` was read and not yet given out
    struct block_run ahead;
    alignas(8) unsigned char batch[extent_batch_size];
};

// Starts before block 0 of the open file. Asks nothing yet.
void start_extents(struct chain_extents *extents, int file, uint64_t block_length,
                   uint64_t n_blocks);

// The next run, without a gap to the one before: 1; 0 behind the last block; -1, with errno set,
// when the file system does not tell. EOPNOTSUPP: it never does.
//
// A hole, and an extent that is unwritten, inline, not yet settled, not aligned to whole blocks, or
// too far up the device for the chain's 32 bits, has no place. Encryption makes no difference: the
// chain lies below it.
int next_run(struct chain_extents *extents, struct block_run *run);

#endif
