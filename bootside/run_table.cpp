#include "bootside/run_table.h"

static unsigned char *entry(const struct bootside *boot, uint32_t index) {
    const struct bootside_walk *walk = &boot->walk;
    return static_cast<unsigned char *>(walk->port->buffer) +
           size_t{walk->buffer_blocks} * walk->block_length +
           size_t{index} * sizeof(struct chain_run);
}

void run_table_reserve(struct bootside *boot) {
    struct bootside_walk *walk = &boot->walk;
    const uint32_t blocks = walk->buffer_blocks;
    const uint32_t table = blocks < 2 ? 0 : (blocks + 15) / 16;
    walk->buffer_blocks = blocks - table;
    boot->run_capacity =
        static_cast<uint32_t>(size_t{table} * walk->block_length / sizeof(struct chain_run));
    boot->runs = 0;
}

void run_table_add(struct bootside *boot, uint32_t block) {
    struct chain_run run = {block, 0};
    if (boot->runs != 0 && block == boot->run_next_block) {
        if (boot->runs <= boot->run_capacity) {
            __builtin_memcpy(&run, entry(boot, boot->runs - 1), sizeof(run));
        }
    } else {
        ++boot->runs;
    }
    boot->run_next_block = block + 1;
    if (boot->runs <= boot->run_capacity) {
        ++run.blocks;
        __builtin_memcpy(entry(boot, boot->runs - 1), &run, sizeof(run));
    }
}

int run_table_get(const struct bootside *boot, uint32_t index, struct chain_run *run,
                  uint32_t *next) {
    const bool last = index + 1 == boot->runs;
    if (index >= boot->run_capacity || (!last && index + 1 >= boot->run_capacity)) {
        return 0;
    }
    __builtin_memcpy(run, entry(boot, index), sizeof(*run));
    struct chain_run following = {0, 0};
    if (!last) {
        __builtin_memcpy(&following, entry(boot, index + 1), sizeof(following));
    }
    *next = following.first;
    return 1;
}
