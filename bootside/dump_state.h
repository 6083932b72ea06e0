// The states of a context.
#ifndef TARNIX_BOOTSIDE_DUMP_STATE_H
#define TARNIX_BOOTSIDE_DUMP_STATE_H

#include "bootside/bootside.h"
#include "chain/format/dump_layout.h"

enum dump_state : uint32_t {
    dump_state_closed,   // there is no chain that may be written to
    dump_state_opened,   // the chain is verified
    dump_state_writing,  // bootside_begin_dump has been called
    dump_state_broken    // a transfer failed: nothing more is written, and the flag is not set
};

// Payload bytes in a block.
inline uint32_t block_payload(const struct bootside *boot) {
    return dump_payload_size(boot->walk.block_length);
}

#endif
