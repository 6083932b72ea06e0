// The map file's blocks in order, mapped ahead of their use and announced to the kernel.
//
// To change 12 bytes, the kernel first reads the whole page around them. If it reads each page only
// when its header is written, this reading takes nine tenths of the time of building a chain. So
// the coming blocks are mapped some way ahead, and announced to the kernel, which then reads their
// pages while earlier headers are written. Neighbouring blocks are announced together.
#ifndef TARNIX_CHAIN_BLOCK_LOOK_AHEAD_H
#define TARNIX_CHAIN_BLOCK_LOOK_AHEAD_H

#include <stdint.h>

// How many blocks are mapped ahead: 2 MiB of pages for the device to work on.
constexpr int32_t look_ahead_window = 512;

// Longest announcement, in blocks: 128 KiB of 4 KiB blocks. Kernels before 4.10 read only so much
// of one announcement as the device's read-ahead limit says, 128 KiB on most, and ignore the rest.
constexpr int32_t look_ahead_piece = 32;

// One block's answer of the file system.
struct mapped_block {
    int result;  // of map_block
    int block;   // the device block, meaningful as map_block says
};

struct block_look_ahead {
    int file;             // descriptor of the map file
    int device;           // descriptor of the block device
    uint64_t block_size;  // bytes
    int32_t end;          // number of blocks of the file; blocks from here on are not asked for
    int32_t mapped;       // blocks asked for so far
    bool stopped;         // a block without a place was met: the blocks after it are not asked for
    int32_t run_start;    // device blocks still to be announced together
    int32_t run_length;
    struct mapped_block blocks[look_ahead_window];
};

// Starts before block 0. Asks nothing yet.
void start_look_ahead(struct block_look_ahead *ahead, int file, int device, uint64_t block_size,
                      int32_t end);

// The file system's answer for block `index`. Blocks are taken in order from 0, each once; after
// one without a place the caller stops.
struct mapped_block take_block(struct block_look_ahead *ahead, int32_t index);

#endif
