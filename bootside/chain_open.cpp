#include "bootside/chain_walk.h"
#include "bootside/dump_state.h"
#include "bootside/run_table.h"

enum bootside_result bootside_open(struct bootside *boot, const struct bootside_port *port) {
    *boot = {};
    struct bootside_walk *walk = &boot->walk;
    enum bootside_result result = chain_walk_start(walk, port);
    if (result != bootside_ok) {
        return result;
    }
    run_table_reserve(boot);
    while (walk->position < walk->n_blocks) {
        run_table_add(boot, walk->block);
        result = chain_walk_step(walk);
        if (result != bootside_ok) {
            return result;
        }
    }
    boot->state = dump_state_opened;
    return bootside_ok;
}

uint64_t bootside_capacity(const struct bootside *boot) {
    if (boot->state == dump_state_closed) {
        return 0;
    }
    return uint64_t{boot->walk.n_blocks} * block_payload(boot);
}

uint64_t bootside_need(const struct bootside *boot, const uint64_t *sizes, size_t count) {
    if (boot->state == dump_state_closed) {
        return UINT64_MAX;
    }
    // No chain has 2^63 bytes; sums below it do not overflow.
    const uint64_t limit = UINT64_MAX / 2;
    uint64_t stream = 0;
    for (size_t i = 0; i < count; ++i) {
        stream =
            dump_file_header_place(stream, block_payload(boot)) + sizeof(struct dump_file_header);
        if (stream > limit || sizes[i] > limit - stream) {
            return UINT64_MAX;
        }
        stream += sizes[i];
    }
    return stream;
}
