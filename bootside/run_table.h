// The chain's physical runs, remembered in the tail of the working buffer by the walk that verified
// the chain. With them the headers of the blocks to be written are made again instead of read
// back.
#ifndef TARNIX_BOOTSIDE_RUN_TABLE_H
#define TARNIX_BOOTSIDE_RUN_TABLE_H

#include "bootside/bootside.h"

struct chain_run {
    uint32_t first;   // physical block number
    uint32_t blocks;  // consecutive ones in the chain
};

// Divides the buffer between transfers and table: a sixteenth of its blocks for the table. A
// buffer of one block has no table, and the writer reads every block before it writes it.
void run_table_reserve(struct bootside *boot);

// Adds the chain's next block, in chain order from position 0.
void run_table_add(struct bootside *boot, uint32_t block);

// Whether run `index` and what follows it are known: 1 fills *run and *next, the first block after
// the run (0 at the chain's end); 0 when the table had no room for it.
int run_table_get(const struct bootside *boot, uint32_t index, struct chain_run *run,
                  uint32_t *next);

#endif
