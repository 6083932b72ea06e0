// The crash side's opening walk over a partition that nobody vouches for, and beside it the tool's
// integrity test (-t): it must find no fault with a chain that the crash side accepts.
//
// Input: a byte each for the partition's size, the buffer's size, the call that fails (0: none) and
// the CRC; the anchor's 24 bytes; then 16 bytes for each block that is not all zeros: its number
// and its header.
#include <android-base/strings.h>

#include <set>

#include "chain/block_map.h"
#include "chain/chain_integrity.h"
#include "chain/transfer.h"
#include "tests/bootside/memory_device.h"
#include "tests/support/captured_log.h"

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

// These four stand before the rooms' own: the integrity test reads the same device. Its walk does
// not end in a cycle, as it should, so that its reads do.
static int64_t sought;
static unsigned reads_left;

int open_retry(const char *, int, mode_t) {
    return INT_MAX;  // no file's
}

int map_block(int, int *) {
    return 0;
}

off64_t seek_to_block(int, int64_t block, uint64_t) {
    sought = block;
    return 0;
}

int read_retry(int, void *buffer, size_t length) {
    const auto found = device.blocks.find(static_cast<uint64_t>(sought));
    memset(buffer, 0, length);
    if (found != device.blocks.end()) {
        found->second.copy(static_cast<char *>(buffer), length);
    }
    return reads_left-- == 0 ? -1 : 0;
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
    reads_left = 1000;
    const int tested = test_block_chain(".", ".", &device.anchor);
    const std::string read = "I Read " + std::to_string(device.anchor.n_blocks) + " blocks";
    const bool is_whole = android::base::EndsWith(take_log(), read + " successfully\n");
    struct bootside boot;
    if (bootside_open(&boot, &device.port) == bootside_ok) {
        check_accepted(boot);
        assert(chosen.crc % 2 != 0 || (tested == 0 && is_whole));
    } else {
        assert(bootside_begin_dump(&boot, 1) == bootside_out_of_order);
    }
    return 0;
}
