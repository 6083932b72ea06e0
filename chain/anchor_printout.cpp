#include "chain/anchor_printout.h"

#include "config/log.h"

void print_initial_block_header(const char *path, const struct initial_block_header *header) {
    if (path != nullptr) {
        log_info("block device: %s\n", path);
    }
    log_info("initial_block_header.magic        = %#x\n", header->magic);
    log_info("initial_block_header.first_block  = %#x\n", header->first_block);
    log_info("initial_block_header.block_length = %#x\n", header->block_length);
    log_info("initial_block_header.n_blocks     = %#x\n", header->n_blocks);
    log_info("initial_block_header.crc32        = %#x\n", header->crc32);
    log_info("initial_block_header.flags        = %#x\n", header->flags);
}
