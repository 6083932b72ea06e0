#include "guard/chain_links.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "chain/chain_crc.h"
#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "guard/device_blocks.h"

void start_links(struct chain_links *links, const struct initial_block_header *anchor,
                 struct device_blocks *device) {
    // No chain has more blocks than its device, so that a forged cycle ends too.
    const uint64_t n_blocks = std::min<uint64_t>(anchor->n_blocks, device->n_blocks);
    *links = {device, n_blocks, 0, anchor->first_block, anchor->crc32, nullptr, false};
}

static uint8_t *end(struct chain_links *links, const char *fault) {
    links->fault = fault;
    return nullptr;
}

uint8_t *next_link(struct chain_links *links) {
    if (links->next == 0) {
        return end(links, links->position == links->n_blocks ? nullptr : "it ends too early");
    }
    if (links->position == links->n_blocks) {
        return end(links, "it goes on behind its last block");
    }
    uint8_t *bytes = read_in_order(links->device, links->next);
    if (bytes == nullptr) {
        // EINVAL: the anchor's block length is none that the device transfers.
        links->unreadable = errno != ERANGE && errno != EINVAL;
        return end(links, errno == ERANGE ? "a link leads past the device" : strerror(errno));
    }
    struct block_header header;
    memcpy(&header, bytes, sizeof(header));
    if (header.magic != block_header_magic) {
        return end(links, "bad magic");
    }
    const uint32_t crc = extend_chain_crc(links->crc, links->next, header.next_block);
    if (header.crc32 != crc) {
        return end(links, "bad CRC");
    }
    links->crc = crc;
    links->next = header.next_block;
    ++links->position;
    return bytes;
}
