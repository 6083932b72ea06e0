// The states of a context, and the one sum that planning and writing a dump share.
#ifndef TARNIX_BOOTSIDE_DUMP_STATE_H
#define TARNIX_BOOTSIDE_DUMP_STATE_H

#include "bootside/bootside.h"
#include "chain/block_header.h"
#include "extract/dump_file_header.h"

enum dump_state : uint32_t {
    dump_state_closed,   // no chain that may be written to
    dump_state_opened,   // the chain is verified
    dump_state_writing,  // bootside_begin_dump has been called
    dump_state_broken    // a transfer failed: nothing more is written, and no flag set
};

// Payload bytes in a block.
inline uint32_t block_payload(const struct bootside *boot) {
    return boot->walk.block_length - static_cast<uint32_t>(sizeof(struct block_header));
}

// Where the next file header stands when the stream has `stream` bytes: there, or behind the
// padding when fewer bytes are left in the block than a header has. A header never straddles two
// blocks.
inline uint64_t header_place(const struct bootside *boot, uint64_t stream) {
    const uint32_t payload = block_payload(boot);
    const uint32_t left = payload - static_cast<uint32_t>(stream % payload);
    return left < sizeof(struct dump_file_header) ? stream + left : stream;
}

#endif
