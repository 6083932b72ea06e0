// The crash side's opening walk over a partition that nobody vouches for.
//
// Input: a byte each for the partition's size, the buffer's size, the call that fails (0: none) and
// the CRC; the anchor's 24 bytes; then 16 bytes for each block that is not all zeros: its number
// and its header.
#include <set>

#include "tests/bootside/memory_device.h"

struct parameters {
    uint8_t partition, buffer, failing_call, crc;
    struct initial_block_header anchor;
};
struct numbered_header {
    uint32_t block;
    struct block_header header;
};

// What an accepted chain promises, walked with everything remembered.
static void check_accepted(const struct bootside &boot) {
    std::set<uint64_t> seen;
    struct block_header header = {block_header_magic, device.anchor.first_block, 0};
    while (header.next_block != 0) {
        assert(seen.insert(header.next_block).second);
        memcpy(&header, device.blocks.at(header.next_block).data(), sizeof(header));
        assert(header.magic == block_header_magic);
    }
    assert(seen.size() == device.anchor.n_blocks && boot.runs <= seen.size());
    assert(bootside_capacity(&boot) == seen.size() * (device.anchor.block_length - 12));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint64_t partition_sizes[] = {0,          511,        65536,     1 << 20,
                                               1ULL << 31, 1ULL << 43, UINT64_MAX};
    static const size_t buffer_sizes[] = {512, 0, 511, 1024, 4096, 65536};
    struct parameters chosen;
    if (size < sizeof(chosen)) {
        return -1;
    }
    memcpy(&chosen, data, sizeof(chosen));
    make_device(chosen.anchor, partition_sizes[chosen.partition % 7],
                buffer_sizes[chosen.buffer % 6]);
    device.calls_left = chosen.failing_call;
    struct numbered_header given;
    for (size_t at = sizeof(chosen); at + sizeof(given) <= size; at += sizeof(given)) {
        memcpy(&given, data + at, sizeof(given));
        device.blocks[given.block] = bytes_of(given.header);
    }
    if (chosen.crc % 2 != 0) {
        // Every link counts as right, so that long chains come about by chance, and cycles too.
        device.port.crc32 = [](void *, uint32_t crc, const void *, size_t) { return crc; };
    }
    struct bootside boot;
    if (bootside_open(&boot, &device.port) == bootside_ok) {
        check_accepted(boot);
    } else {
        assert(bootside_begin_dump(&boot, 1) == bootside_out_of_order);
    }
    return 0;
}
