#include "guard/copied_dump.h"

#include <stdint.h>
#include <string.h>
#include <sys/stat.h>

#include "chain/block_map.h"
#include "chain/chain_crc.h"
#include "chain/format/dump_layout.h"
#include "guard/chain_extents.h"
#include "guard/chain_links.h"
#include "guard/device_blocks.h"
#include "guard/guarded_map.h"

// What a new map file is filled with.
static const uint8_t map_fill = 0xFF;

// The walk over the file's blocks, which follows the links that stand in them.
struct copied_chain {
    struct device_blocks here;   // the blocks of the file
    struct device_blocks there;  // those that the links lead to
    uint64_t n_before;           // blocks before the break
    uint64_t position;           // blocks found good so far
    uint32_t link;               // where the chain has the next one
    uint32_t crc;                // running CRC up to here
    bool is_seen;                // a block was found in both places, with the same bytes
    bool is_in_doubt;            // one behind the break holds more than the fill
    bool is_unreadable;          // one cannot be read, or the file system does not tell where it is
};

// Whether a block holds nothing but the fill behind its header.
static bool is_fresh(const uint8_t *block, uint32_t block_length) {
    const uint8_t *payload = block + sizeof(struct block_header);
    return payload[0] == map_fill &&
           memcmp(payload, payload + 1, dump_payload_size(block_length) - 1) == 0;
}

// Whether the file's block at `place` is the chain's next.
static bool is_next(struct copied_chain *chain, uint64_t place) {
    const uint8_t *copy = read_in_order(&chain->here, place);
    if (copy == nullptr) {
        chain->is_unreadable = true;
        return false;
    }
    struct block_header header;
    memcpy(&header, copy, sizeof(header));
    const uint32_t crc = extend_chain_crc(chain->crc, chain->link, header.next_block);
    if (header.magic != block_header_magic || header.crc32 != crc) {
        return false;
    }
    if (chain->link != place) {
        const uint8_t *original = read_in_order(&chain->there, chain->link);
        if (original != nullptr && memcmp(original, copy, sizeof(header)) == 0) {
            if (memcmp(original, copy, chain->here.block_length) != 0) {
                return false;
            }
            chain->is_seen |= chain->position < chain->n_before;
        }
    }
    chain->is_in_doubt |=
        chain->position >= chain->n_before && !is_fresh(copy, chain->here.block_length);
    chain->crc = crc;
    chain->link = header.next_block;
    ++chain->position;
    return true;
}

static bool follow(struct copied_chain *chain, struct chain_extents *extents) {
    struct block_run run;
    int more = 0;
    while ((more = next_run(extents, &run)) == 1) {
        for (uint64_t i = 0; i < run.count; ++i) {
            if (run.place == 0 || !is_next(chain, run.place + i)) {
                return false;
            }
        }
    }
    chain->is_unreadable |= more == -1;
    return more == 0 && chain->link == 0;
}

enum copied_dump find_copied_dump(const struct guarded_map *map, const struct chain_links *walked) {
    const struct initial_block_header *anchor = &map->anchor;
    struct stat map_stat;
    if (map->file != -1 && fstat(map->file, &map_stat) != 0) {
        return dump_cannot_be_looked_for;
    }
    if (map->file == -1 || map->device.buffer == nullptr ||
        static_cast<uint64_t>(map_stat.st_blksize) != anchor->block_length ||
        static_cast<uint64_t>(map_stat.st_size) / anchor->block_length != anchor->n_blocks) {
        return dump_is_not_copied;
    }
    struct copied_chain chain = {};
    chain.here.fd = chain.there.fd = -1;
    chain.n_before = walked->position;
    chain.link = anchor->first_block;
    chain.crc = anchor->crc32;
    struct chain_extents extents;
    start_extents(&extents, map->file, anchor->block_length, anchor->n_blocks);
    const bool is_open =
        open_device_blocks(map->device_path, anchor->block_length, &chain.here) == 0 &&
        open_device_blocks(map->device_path, anchor->block_length, &chain.there) == 0;
    const bool follows = is_open && follow(&chain, &extents);
    close_device_blocks(&chain.here);
    close_device_blocks(&chain.there);
    if (!is_open || chain.is_unreadable) {
        return dump_cannot_be_looked_for;
    }
    if (follows && chain.is_seen) {
        return dump_is_copied;
    }
    return follows && chain.is_in_doubt ? dump_may_be_copied : dump_is_not_copied;
}

enum copied_dump find_dump_at_beginning(const struct guarded_map *map) {
    if (map->file == -1) {
        return dump_is_not_copied;
    }
    struct stat map_stat;
    int block = 0;
    if (fstat(map->file, &map_stat) != 0 || map_block(map->file, &block) != 0) {
        return dump_cannot_be_looked_for;
    }
    const uint32_t block_length = static_cast<uint32_t>(map_stat.st_blksize);
    if (block <= 0 || !is_block_length(block_length)) {
        return dump_is_not_copied;
    }
    enum copied_dump found = dump_cannot_be_looked_for;
    struct device_blocks device;
    const uint8_t *bytes = nullptr;
    if (open_device_blocks(map->device_path, block_length, &device) == 0) {
        bytes = read_alone(&device, static_cast<uint64_t>(block));
    }
    if (bytes != nullptr) {
        struct block_header block_start;
        struct dump_file_header file_start;
        memcpy(&block_start, bytes, sizeof(block_start));
        memcpy(&file_start, bytes + sizeof(block_start), sizeof(file_start));
        found =
            block_start.magic == block_header_magic && file_start.magic == dump_file_header_magic
                ? dump_is_copied
                : dump_is_not_copied;
    }
    close_device_blocks(&device);
    return found;
}
