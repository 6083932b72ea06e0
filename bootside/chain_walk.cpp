#include "bootside/chain_walk.h"

#include "chain/format/block_header.h"
#include "chain/format/chain_link.h"
#include "chain/format/initial_block_header.h"

enum bootside_result chain_walk_fault(struct bootside_walk *walk, enum bootside_result result,
                                      uint64_t offset, uint32_t expected, uint32_t found) {
    walk->fault = {walk->position, walk->block, offset, 0, expected, found};
    return result;
}

static enum bootside_result anchor_fault(struct bootside_walk *walk, enum bootside_result result,
                                         uint32_t field, uint32_t expected, uint32_t found) {
    chain_walk_fault(walk, result, initial_block_header_misc_offset + field, expected, found);
    walk->fault.in_misc = 1;
    return result;
}

static uint64_t byte_offset(const struct bootside_walk *walk, uint32_t field) {
    return uint64_t{walk->block} * walk->block_length + field;
}

uint32_t chain_walk_crc(const struct bootside_port *port, uint32_t crc, uint32_t block,
                        uint32_t next) {
    const struct chain_link link = {block, next};
    return port->crc32(port->user, crc, &link, sizeof(link));
}

// Checks what the anchor says of the chain against the partition's size and the buffer's.
static enum bootside_result check_geometry(struct bootside_walk *walk) {
    const uint32_t length = walk->block_length;
    if (!is_block_length(length)) {
        return anchor_fault(walk, bootside_bad_block_length,
                            offsetof(struct initial_block_header, block_length),
                            initial_block_header_min_block_length, length);
    }
    // Block numbers are below 2^31: file systems answer with no larger ones.
    const uint64_t blocks = walk->port->data_size / length;
    walk->data_blocks = blocks < 0x80000000U ? static_cast<uint32_t>(blocks) : 0x80000000U;
    // Block 0 is never in a chain, so a partition of n blocks holds n - 1 of them at most. This
    // keeps the walk from going on for ever, whatever the anchor says.
    if (walk->n_blocks == 0 || walk->n_blocks >= walk->data_blocks) {
        return anchor_fault(walk, bootside_bad_block_count,
                            offsetof(struct initial_block_header, n_blocks),
                            walk->data_blocks == 0 ? 0 : walk->data_blocks - 1, walk->n_blocks);
    }
    if (walk->first_block == 0 || walk->first_block >= walk->data_blocks) {
        return anchor_fault(walk, bootside_block_outside,
                            offsetof(struct initial_block_header, first_block),
                            walk->data_blocks - 1, walk->first_block);
    }
    if (walk->port->buffer == nullptr || walk->port->buffer_size < length) {
        return anchor_fault(walk, bootside_buffer_too_small,
                            offsetof(struct initial_block_header, block_length), length,
                            static_cast<uint32_t>(walk->port->buffer_size));
    }
    return bootside_ok;
}

enum bootside_result chain_walk_start(struct bootside_walk *walk,
                                      const struct bootside_port *port) {
    struct initial_block_header anchor;
    *walk = {};
    walk->port = port;
    const int failed =
        port->read_misc(port->user, initial_block_header_misc_offset, &anchor, sizeof(anchor));
    if (failed != 0) {
        return anchor_fault(walk, bootside_read_failed, 0, 0, static_cast<uint32_t>(failed));
    }
    walk->first_block = anchor.first_block;
    walk->block_length = anchor.block_length;
    walk->n_blocks = anchor.n_blocks;
    walk->seed = anchor.crc32;
    walk->flags = anchor.flags;
    walk->block = anchor.first_block;
    if (!is_initial_block_header(&anchor)) {
        return anchor_fault(walk, bootside_no_anchor, offsetof(struct initial_block_header, magic),
                            initial_block_header_magic, anchor.magic);
    }
    const enum bootside_result result = check_geometry(walk);
    if (result == bootside_ok) {
        walk->buffer_blocks = static_cast<uint32_t>(port->buffer_size / walk->block_length);
        chain_walk_rewind(walk);
    }
    return result;
}

void chain_walk_rewind(struct bootside_walk *walk) {
    walk->position = 0;
    walk->block = walk->first_block;
    walk->crc = walk->seed;
    walk->mark_position = 0;
    walk->mark_block = walk->first_block;
    walk->window_blocks = 0;
    walk->window_wish = 1;
}

static int read_window(struct bootside_walk *walk, uint32_t blocks) {
    const struct bootside_port *port = walk->port;
    const int failed = port->read_data(port->user, byte_offset(walk, 0), port->buffer,
                                       size_t{blocks} * walk->block_length);
    walk->window_first = walk->block;
    walk->window_blocks = failed == 0 ? blocks : 0;
    return failed;
}

// Brings the current block into the buffer, and with it blocks that may be the next ones: twice as
// many as last time where the chain has gone straight on, half as many after a jump. So most of
// what is read of a scattered chain is used.
static enum bootside_result load(struct bootside_walk *walk) {
    if (walk->block - walk->window_first < walk->window_blocks) {
        return bootside_ok;
    }
    const bool straight_on = walk->block == walk->window_first + walk->window_blocks;
    const uint32_t wish = straight_on ? walk->window_wish * 2 : walk->window_wish / 2;
    uint32_t limit = walk->data_blocks - walk->block;
    limit = limit < walk->buffer_blocks ? limit : walk->buffer_blocks;
    const uint32_t left = walk->n_blocks - walk->position;
    limit = left < limit ? left : limit;
    walk->window_wish = wish < 1 ? 1 : wish < limit ? wish : limit;
    int failed = read_window(walk, walk->window_wish);
    if (failed != 0 && walk->window_wish > 1) {
        // The block that cannot be read may be one that is not in the chain.
        walk->window_wish = 1;
        failed = read_window(walk, 1);
    }
    if (failed != 0) {
        return chain_walk_fault(walk, bootside_read_failed, byte_offset(walk, 0), 0,
                                static_cast<uint32_t>(failed));
    }
    return bootside_ok;
}

enum bootside_result chain_walk_read(struct bootside_walk *walk) {
    const enum bootside_result result = load(walk);
    if (result != bootside_ok) {
        return result;
    }
    walk->content = static_cast<const unsigned char *>(walk->port->buffer) +
                    size_t{walk->block - walk->window_first} * walk->block_length;
    struct block_header header;
    __builtin_memcpy(&header, walk->content, sizeof(header));
    walk->next = header.next_block;
    walk->stored_crc = header.crc32;
    if (header.magic != block_header_magic) {
        return chain_walk_fault(walk, bootside_bad_block_magic,
                                byte_offset(walk, offsetof(struct block_header, magic)),
                                block_header_magic, header.magic);
    }
    return bootside_ok;
}

enum bootside_result chain_walk_check(struct bootside_walk *walk) {
    walk->crc = chain_walk_crc(walk->port, walk->crc, walk->block, walk->next);
    if (walk->crc != walk->stored_crc) {
        return chain_walk_fault(walk, bootside_bad_block_crc,
                                byte_offset(walk, offsetof(struct block_header, crc32)), walk->crc,
                                walk->stored_crc);
    }
    return bootside_ok;
}

enum bootside_result chain_walk_follow(struct bootside_walk *walk) {
    const uint64_t offset = byte_offset(walk, offsetof(struct block_header, next_block));
    const uint32_t seen = walk->position + 1;
    if (seen == walk->n_blocks && walk->next != 0) {
        return chain_walk_fault(walk, bootside_chain_too_long, offset, 0, walk->next);
    }
    if (seen < walk->n_blocks && walk->next == 0) {
        return chain_walk_fault(walk, bootside_chain_too_short, offset, walk->n_blocks, seen);
    }
    if (walk->next >= walk->data_blocks) {
        return chain_walk_fault(walk, bootside_block_outside, offset, walk->data_blocks - 1,
                                walk->next);
    }
    // The mark moves on whenever the walk has got twice as far. So it comes to stand in the cycle
    // of a chain that has one, with a whole lap to go before it moves again (Brent's method).
    if (walk->position > 2 * walk->mark_position) {
        walk->mark_position = walk->position;
        walk->mark_block = walk->block;
    }
    walk->position = seen;
    walk->block = walk->next;
    return bootside_ok;
}

uint32_t chain_walk_lap(const struct bootside_walk *walk) {
    return walk->block == walk->mark_block ? walk->position - walk->mark_position : 0;
}

// Looks for `block` among the first `positions` blocks of the chain, checking no CRC. Returns its
// position, or `positions` when it is not there.
static uint32_t first_position_of(const struct bootside_walk *from, uint32_t block,
                                  uint32_t positions) {
    struct bootside_walk walk = *from;
    chain_walk_rewind(&walk);
    while (walk.position < positions && walk.block != block &&
           chain_walk_read(&walk) == bootside_ok && walk.next < walk.data_blocks) {
        ++walk.position;
        walk.block = walk.next;
    }
    return walk.block == block ? walk.position : positions;
}

// Called where the current block's CRC is right. If the walk has been here before, the running CRC
// is the same as then, so each lap from here on is like the last one. They are left out, as many as
// fit before n_blocks: the walk ends with the same fault, and an anchor that claims a long chain
// over a short cycle keeps nobody waiting.
static void leave_out_laps(struct bootside_walk *walk) {
    const uint32_t lap = chain_walk_lap(walk);
    if (lap != 0) {
        walk->position += (walk->n_blocks - 1 - walk->position) / lap * lap;
    }
}

// How a chain that comes back to one of its blocks is found out, with nothing remembered: there the
// CRC is wrong, since the stored one is that of the first visit. If all CRCs have been forged to
// match, the chain does not end: a block has one link, the same at each visit, so the walk never
// meets the link 0. And so a walk that ends after n_blocks blocks has met each of them once.
enum bootside_result chain_walk_step(struct bootside_walk *walk) {
    enum bootside_result result = chain_walk_read(walk);
    if (result == bootside_ok) {
        result = chain_walk_check(walk);
    }
    if (result == bootside_ok) {
        leave_out_laps(walk);
        result = chain_walk_follow(walk);
    }
    if (result != bootside_bad_block_crc && result != bootside_chain_too_long) {
        return result;
    }
    const bool too_long = result == bootside_chain_too_long;
    const uint32_t block = too_long ? walk->next : walk->block;
    const uint32_t position = too_long ? walk->n_blocks : walk->position;
    const uint32_t before = first_position_of(walk, block, position);
    walk->window_blocks = 0;
    if (before < position) {
        walk->position = position;
        walk->block = block;
        return chain_walk_fault(walk, bootside_block_twice, byte_offset(walk, 0), position, before);
    }
    return result;
}
