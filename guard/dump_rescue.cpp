#include "guard/dump_rescue.h"

#include <stdint.h>
#include <string.h>

#include "chain/format/dump_layout.h"
#include "chain/format/initial_block_header.h"
#include "extract/dump_space.h"
#include "extract/dump_stream.h"
#include "extract/pending_dump.h"
#include "guard/chain_links.h"
#include "guard/device_blocks.h"
#include "guard/guard_log.h"
#include "partitions/partition_items.h"

// Feeds the payloads to the parser until the dump or the chain ends. Whether the dump did.
static bool parse_links(struct chain_links *links) {
    const uint32_t payload_size = dump_payload_size(links->device->block_length);
    for (uint8_t *bytes = next_link(links); bytes != nullptr; bytes = next_link(links)) {
        if (process_data(bytes + sizeof(struct block_header), payload_size) < 0) {
            return true;
        }
    }
    return links->fault == nullptr && !dump_file_is_unfinished();
}

static void say_how_it_ended(const struct chain_links *links, bool is_whole) {
    if (is_whole) {
        guard_error("the pending dump is saved along the links: %lu blocks\n", links->position);
    } else if (links->fault != nullptr) {
        guard_error(
            "the pending dump is cut: %lu of %lu blocks are saved, then the chain breaks "
            "off: %s\n",
            links->position, links->n_blocks, links->fault);
    } else {
        guard_error("the pending dump is cut: its last file goes on behind the chain's end\n");
    }
}

bool rescue_dump(struct initial_block_header *anchor, struct device_blocks *device,
                 const char *map_path) {
    // The space first: begin_extraction removes older dumps.
    if (!has_space_for_dump(map_path) || begin_extraction(anchor) < 0) {
        guard_error("the pending dump cannot be saved: it stays, and nothing is started\n");
        return false;
    }
    struct chain_links links;
    start_links(&links, anchor, device);
    const bool is_whole = parse_links(&links);
    sync_dump_files();
    int error = dump_storage_error();
    if (error == 0 && links.unreadable) {
        // What is behind the block may be read at another start, or from an image.
        guard_error("the pending dump cannot be read: it stays, and nothing is started: %s\n",
                    links.fault);
        return false;
    }
    if (error == 0) {
        finish_extraction(anchor, map_path);
        error = -store_anchor(anchor);
    }
    if (error != 0) {
        guard_error("the pending dump is not safe: it stays, and nothing is started: %s\n",
                    strerror(error));
        return false;
    }
    say_how_it_ended(&links, is_whole);
    return true;
}
