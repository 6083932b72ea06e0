// The anchor, in the log.
#ifndef TARNIX_CHAIN_ANCHOR_PRINTOUT_H
#define TARNIX_CHAIN_ANCHOR_PRINTOUT_H

#include "chain/format/initial_block_header.h"

// Logs the record field by field; first the block device's `path`, unless that is null.
void print_initial_block_header(const char *path, const struct initial_block_header *header);

#endif
