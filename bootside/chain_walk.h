// Walks the chain by its links, one block after another. The anchor and the blocks may hold
// anything: nothing of them is used before it is checked.
//
// To verify a chain, call chain_walk_start and then chain_walk_step until `position` is `n_blocks`.
// To get what can still be read of a damaged chain, call the three parts of a step instead, and go
// on after a wrong CRC. Every failure fills walk->fault.
#ifndef TARNIX_BOOTSIDE_CHAIN_WALK_H
#define TARNIX_BOOTSIDE_CHAIN_WALK_H

#include "bootside/bootside.h"

// Reads the anchor, checks what it says against the partition and the buffer, and stands at the
// chain's first block. The walk uses the port's read_misc, read_data, crc32, data_size and buffer.
enum bootside_result chain_walk_start(struct bootside_walk *walk, const struct bootside_port *port);

// Goes back to the first block.
void chain_walk_rewind(struct bootside_walk *walk);

// Brings the current block into memory (content, next and stored_crc) and checks its magic.
enum bootside_result chain_walk_read(struct bootside_walk *walk);

// Takes the running CRC over the current block's link and compares it with the stored one. After a
// mismatch the running CRC is the computed one.
enum bootside_result chain_walk_check(struct bootside_walk *walk);

// Goes to the next block. Fails where the link leaves the partition, is 0 before n_blocks blocks
// have been seen, or is not 0 in the last of them.
enum bootside_result chain_walk_follow(struct bootside_walk *walk);

// The three above. If a block is wrong because the chain has been there before, the result is
// bootside_block_twice. A walk that has done all its n_blocks steps has seen no block twice.
enum bootside_result chain_walk_step(struct bootside_walk *walk);

// Whether the walk has come back: the number of blocks since it stood at this one before, or 0. To
// be asked after each chain_walk_follow. The first block met again is not always noticed; but a
// chain that goes round for ever is, before the walk has done three times as many steps as it has
// blocks.
uint32_t chain_walk_lap(const struct bootside_walk *walk);

// One step of the chain's CRC: `crc` continued over the link from `block` to `next`.
uint32_t chain_walk_crc(const struct bootside_port *port, uint32_t crc, uint32_t block,
                        uint32_t next);

// Records where something is wrong in the current block, and returns `result`.
enum bootside_result chain_walk_fault(struct bootside_walk *walk, enum bootside_result result,
                                      uint64_t offset, uint32_t expected, uint32_t found);

#endif
