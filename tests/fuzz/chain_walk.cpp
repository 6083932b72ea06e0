// The crash side's opening walk over a partition that nobody vouches for.
//
// Input: a byte each for the partition's size, the buffer's size, the read that fails (0: none) and
// the CRC; the anchor's 24 bytes; then 16 bytes for each block that is not all zeros: its number
// and its header.
#include <assert.h>
#include <string.h>
#include <zlib.h>

#include <map>
#include <set>
#include <vector>

#include "bootside/bootside.h"
#include "chain/block_header.h"
#include "chain/initial_block_header.h"

struct parameters {
    uint8_t partition, buffer, failing_read, crc;
    initial_block_header anchor;
};
struct numbered_header {
    uint32_t block;
    block_header header;
};
struct disk {
    initial_block_header anchor;
    std::map<uint64_t, block_header> headers;
    uint64_t size;
    unsigned reads_left;  // until one fails
};

static int read_misc(void *user, uint64_t offset, void *buffer, size_t length) {
    disk *on = static_cast<disk *>(user);
    assert(offset == initial_block_header_misc_offset && length == sizeof(on->anchor));
    memcpy(buffer, &on->anchor, length);
    return --on->reads_left == 0 ? -1 : 0;
}

static int read_data(void *user, uint64_t offset, void *buffer, size_t length) {
    disk *on = static_cast<disk *>(user);
    const uint32_t unit = on->anchor.block_length;
    assert(offset % unit == 0 && length % unit == 0 && length > 0);
    assert(offset <= on->size && length <= on->size - offset);
    memset(buffer, 0, length);
    for (auto at = on->headers.lower_bound(offset / unit);
         at != on->headers.end() && at->first < (offset + length) / unit; ++at) {
        memcpy(static_cast<char *>(buffer) + (at->first * unit - offset), &at->second,
               sizeof(at->second));
    }
    return --on->reads_left == 0 ? -1 : 0;
}

static uint32_t real_crc(void *, uint32_t crc, const void *data, size_t length) {
    return static_cast<uint32_t>(
        crc32(crc, static_cast<const Bytef *>(data), static_cast<uInt>(length)));
}

// Lets long chains come about by chance; a block's second visit is as wrong as with the real one.
static uint32_t counting_crc(void *, uint32_t crc, const void *, size_t) {
    return crc + 1;
}

// What an accepted chain promises, walked with everything remembered.
static void check_accepted(const disk &on, const bootside &boot) {
    std::set<uint64_t> seen;
    for (uint64_t at = on.anchor.first_block; at != 0; at = on.headers.at(at).next_block) {
        assert(on.headers.at(at).magic == block_header_magic && seen.insert(at).second);
    }
    assert(seen.size() == on.anchor.n_blocks && boot.runs <= seen.size());
    assert(bootside_capacity(&boot) == seen.size() * (on.anchor.block_length - 12));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint64_t partition_sizes[] = {0,          511,        65536,     1 << 20,
                                               1ULL << 31, 1ULL << 43, UINT64_MAX};
    static const size_t buffer_sizes[] = {512, 0, 511, 1024, 4096, 65536};
    parameters chosen;
    if (size < sizeof(chosen)) {
        return -1;
    }
    memcpy(&chosen, data, sizeof(chosen));
    disk on = {chosen.anchor, {}, partition_sizes[chosen.partition % 7], chosen.failing_read};
    numbered_header given;
    for (size_t at = sizeof(chosen); at + sizeof(given) <= size; at += sizeof(given)) {
        memcpy(&given, data + at, sizeof(given));
        on.headers[given.block] = given.header;
    }
    std::vector<char> buffer(buffer_sizes[chosen.buffer % 6]);
    bootside_port port = {};
    port.user = &on;
    port.read_misc = read_misc;
    port.read_data = read_data;
    port.crc32 = chosen.crc % 2 != 0 ? counting_crc : real_crc;
    port.data_size = on.size;
    port.buffer = buffer.data();
    port.buffer_size = buffer.size();
    bootside boot;
    if (bootside_open(&boot, &port) == bootside_ok) {
        check_accepted(on, boot);
    } else {
        // A chain that does not verify takes no dump: the port has nothing to write with.
        assert(bootside_begin_dump(&boot, 1) == bootside_out_of_order);
    }
    return 0;
}
