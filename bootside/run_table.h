// The chain's runs: rows of blocks that follow each other on the medium too. The walk that verifies
// the chain puts them into a table at the end of the working buffer. From the table the writer
// makes the blocks' headers, and so need not read the blocks before it writes them.
#ifndef TARNIX_BOOTSIDE_RUN_TABLE_H
#define TARNIX_BOOTSIDE_RUN_TABLE_H

#include "bootside/bootside.h"

struct chain_run {
    uint32_t first;   // physical block number
    uint32_t blocks;  // how many
};

// Divides the buffer: a sixteenth of its blocks for the table, the others for transfers. A buffer
// of one block has no table; the writer then reads every block before it writes it.
void run_table_reserve(struct bootside *boot);

// Adds a block. To be called for each block of the chain, from position 0 on.
void run_table_add(struct bootside *boot, uint32_t block);

// Gives run `index`, and in *next the block that the chain goes on with after it (0: it ends).
// Returns 1, or 0 when the table had no room for one of the two.
int run_table_get(const struct bootside *boot, uint32_t index, struct chain_run *run,
                  uint32_t *next);

#endif
