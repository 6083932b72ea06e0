// How the dump lies in the chain: the stream of its bytes is the blocks' payloads one after
// another. A file's data follows its header directly and runs on from block to block. The next
// header follows that data directly, unless fewer bytes are left in the payload than a header has:
// then those are padding, and the header is at the start of the next payload.
#ifndef TARNIX_CHAIN_FORMAT_DUMP_LAYOUT_H
#define TARNIX_CHAIN_FORMAT_DUMP_LAYOUT_H

#include "chain/format/block_header.h"
#include "chain/format/dump_file_header.h"

// Payload bytes of a block of `length` bytes. The payload begins behind the block's header.
static inline uint32_t dump_payload_size(uint32_t length) {
    const uint32_t header_size = sizeof(struct block_header);
    return length - header_size;
}

// Whether a file header can stand where `left` bytes of a payload are left.
static inline bool dump_file_header_fits(uint64_t left) {
    return left >= sizeof(struct dump_file_header);
}

// Where the next file header stands when the stream has `stream` bytes: there, or behind the
// padding. `payload_size` is dump_payload_size.
static inline uint64_t dump_file_header_place(uint64_t stream, uint32_t payload_size) {
    const uint64_t left = payload_size - stream % payload_size;
    return dump_file_header_fits(left) ? stream : stream + left;
}

#endif
