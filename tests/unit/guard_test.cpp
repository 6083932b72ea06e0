// What the file systems of the emulated device do not answer, and chains that only a forger makes.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

#include "chain/format/block_header.h"
#include "chain/format/dump_file_header.h"
#include "chain/format/dump_layout.h"
#include "chain/format/initial_block_header.h"
#include "guard/chain_comparison.h"
#include "guard/chain_links.h"
#include "guard/copied_dump.h"
#include "guard/device_blocks.h"
#include "guard/dump_rescue.h"
#include "guard/guarded_map.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;
static const std::vector<uint32_t> chain = {5, 6, 9, 8};

// `stream` goes into its payloads. What a block that is linked twice was first stays.
static void make_chain(const std::vector<uint32_t> &blocks, std::string stream = "") {
    const std::vector<std::string> headers = chain_headers(seed, blocks);
    const size_t payload = dump_payload_size(block_length);
    stream.resize(blocks.size() * payload);
    for (size_t i = headers.size(); i-- > 0;) {
        write_file_at(DEVICE_PATH, blocks[i] * block_length,
                      headers[i] + stream.substr(i * payload, payload));
    }
}

static struct initial_block_header anchor_of(const std::vector<uint32_t> &blocks) {
    return fresh_initial_block_header(blocks[0], block_length, static_cast<uint32_t>(blocks.size()),
                                      seed);
}

static struct device_blocks open_device(uint64_t n_blocks) {
    must(truncate(DEVICE_PATH, static_cast<off_t>(n_blocks * block_length)) == 0, DEVICE_PATH);
    struct device_blocks device;
    must(open_device_blocks(DEVICE_PATH, block_length, &device) == 0, DEVICE_PATH);
    return device;
}

static enum chain_comparison compare(const std::vector<uint32_t> &blocks, uint64_t n_blocks) {
    make_map_file(blocks.size() * block_length + 1);
    const struct initial_block_header anchor = anchor_of(blocks);
    struct device_blocks device = open_device(n_blocks);
    const enum chain_comparison result =
        compare_chain(open(MAP_PATH, O_RDONLY), &anchor, &device, false);
    close_device_blocks(&device);
    return result;
}

// An extent in blocks of the file and the device.
static struct fiemap_extent extent(uint64_t index, uint64_t place, uint64_t count) {
    struct fiemap_extent result = {};
    result.fe_logical = index * block_length;
    result.fe_physical = place * block_length;
    result.fe_length = count * block_length;
    return result;
}

static void expect_comparison(enum chain_comparison expected, const char *row,
                              const std::vector<struct fiemap_extent> &extents,
                              const std::vector<struct fibmap_answer> &fibmap, int error = 0) {
    on_fresh_device(row, [&] {
        make_chain(chain);
        platform.extents = extents;
        platform.fibmap = fibmap;
        platform.fiemap_error = error;
        EXPECT_EQ(expected, compare(chain, 16)) << take_log();
    });
}

// A map whose third block has an extent of its own, at the 512-byte sector `sector` of the device,
// or none, where that is 0. By FIBMAP it lies at block `fibmap`.
static void expect_with_third(enum chain_comparison expected, const char *row, uint64_t sector,
                              uint32_t flags, int fibmap) {
    // The first two lie side by side, and the file ends within a block.
    std::vector<struct fiemap_extent> extents = {extent(0, 5, 1), extent(1, 6, 1), extent(3, 8, 2)};
    if (sector != 0) {
        struct fiemap_extent third = extent(2, 0, 1);
        third.fe_physical = sector * 512;
        third.fe_flags = flags;
        extents.insert(extents.begin() + 2, third);
    }
    expect_comparison(expected, row, extents, {{5}, {6}, {fibmap}, {8}});
}

TEST(guard, extents) {
    const uint32_t encrypted = FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_ENCRYPTED;
    expect_with_third(chain_matches, "plain", 72, 0, 9);
    expect_with_third(chain_matches, "encrypted", 72, encrypted, 9);
    expect_with_third(chain_differs, "compressed", 72, FIEMAP_EXTENT_ENCODED, 0);
    expect_with_third(chain_differs, "inline", 72, FIEMAP_EXTENT_DATA_INLINE, 0);
    expect_with_third(chain_differs, "delayed", 72, FIEMAP_EXTENT_DELALLOC, 0);
    expect_with_third(chain_disputed, "delayed, or not", 72, FIEMAP_EXTENT_DELALLOC, 9);
    expect_with_third(chain_differs, "unwritten", 72, FIEMAP_EXTENT_UNWRITTEN, 0);
    expect_with_third(chain_differs, "unwritten, given away", 72, FIEMAP_EXTENT_UNWRITTEN, 9);
    expect_with_third(chain_disputed, "unwritten, or not", 72, FIEMAP_EXTENT_UNWRITTEN, 10);
    expect_with_third(chain_disputed, "misaligned", 73, 0, 9);
    expect_with_third(chain_differs, "hole", 0, 0, 0);
    expect_with_third(chain_differs, "elsewhere", 80, 0, 10);
    expect_with_third(chain_disputed, "elsewhere, or not", 80, 0, 9);
    expect_with_third(chain_differs, "past 32 bits", 8 * (1ULL << 32 | 9), 0, 0);
    expect_with_third(chain_differs, "past the device", 800, 0, 100);

    expect_comparison(chain_differs, "nothing", {}, {{0}});
    expect_comparison(chain_differs, "hole at the end", {extent(0, 5, 2)}, {{5}, {6}, {0}});
    expect_comparison(chain_differs, "begins elsewhere", {extent(0, 7, 4)}, {{7}});
    expect_comparison(chain_cannot_be_compared, "unconfirmed", {extent(0, 7, 4)}, {{7, EPERM}});
    expect_comparison(chain_cannot_be_compared, "not what was asked", {extent(0, 5, 0)}, {});
    expect_comparison(chain_cannot_be_compared, "no such call", {}, {}, EOPNOTSUPP);
}

// More runs than one answer holds, and one that is two of the CRC's pieces and a block.
DEVICE_TEST(guard, many_extents) {
    std::vector<uint32_t> blocks;
    for (uint32_t i = 0; i < 300; ++i) {
        blocks.push_back(1000 - 3 * i + (i % 2));
        platform.extents.push_back(extent(i, blocks[i], 1));
    }
    for (uint32_t i = 0; i < 515; ++i) {
        blocks.push_back(2000 + i);
    }
    platform.extents.push_back(extent(300, 2000, 515));
    make_chain(blocks);
    EXPECT_EQ(chain_matches, compare(blocks, 2515));
    EXPECT_EQ("I the chain is the map file's: 815 blocks in 301 runs, 302 headers read\n",
              take_log());
    for (const uint32_t block : blocks) {
        platform.fibmap.push_back({static_cast<int>(block)});
    }
    write_file_at(DEVICE_PATH, 2514 * block_length + 8, "1234");
    EXPECT_EQ(chain_has_bad_header, compare(blocks, 2515));
    EXPECT_EQ("E map file and chain differ at block 814, device block 2514: bad CRC\n", take_log());
}

// The file's tail has moved next to its head, headers and all: the old link is within the run.
DEVICE_TEST(guard, a_moved_tail) {
    const std::vector<uint32_t> old = {5, 6, 10, 11};
    make_chain(old);
    platform.extents = {extent(0, 5, 2), extent(2, 10, 2)};
    platform.fibmap = {{5}, {6}, {10}, {11}};
    write_file_at(DEVICE_PATH, 6 * block_length + 4, "1234");
    EXPECT_EQ(chain_has_bad_header, compare(old, 16));
    make_chain(old);
    platform.extents = {extent(0, 5, 4)};
    platform.fibmap = {{5}, {6}, {7}, {8}};
    const std::string tail = read_file(DEVICE_PATH).substr(10 * block_length);
    write_file_at(DEVICE_PATH, 7 * block_length, tail);
    EXPECT_EQ(chain_differs, compare(old, 16)) << take_log();
}

// What becomes of a dump whose blocks change, or are kept back, while it is saved, and of one whose
// links only a forger makes.
TEST(guard, rescue) {
    const struct {
        const char *name;
        const char *file;
        std::vector<uint32_t> blocks;  // linked in this order
        uint64_t file_blocks;          // size of its data, in blocks
        uint32_t anchor_blocks;
        uint64_t n_found;
        const char *line;  // a regular expression
        bool is_saved = true;
        uint64_t device_blocks = 16;
        int failing_fsync = 0;
    } rows[] = {
        {"whole", "a", chain, 3, 4, 4, "saved along the links: 4 blocks"},
        {"no blocks", "a", {0}, 3, 0, 0, "saved along the links: 0 blocks"},
        {"its name is none", "a/b", chain, 3, 4, 4, "cut: the last file that was found"},
        {"it leads out", "../../../../ro/b", chain, 3, 4, 4, "cut: the last file that was found"},
        {"longer than the chain", "a", chain, 4, 4, 4, "cut: its last file goes on"},
        {"longer than the anchor says", "a", chain, 3, 3, 3, "cut: 3 of 3 .*: it goes on behind"},
        {"broken already", "a", chain, 4, 5, 4, "cut: 4 of 5 .*: it ends too early"},
        {"a cycle", "a", {5, 6, 9, 5}, 4, UINT32_MAX, 3, "cut: 3 of 16 .*: bad CRC"},
        {"past the device", "a", {5, 6, 1u << 31}, 3, 9, 2, "cut: 2 of 9 .*: a link leads past"},
        {"broken by its files", "a", chain, 4, 5, 5, "cut: 4 of 5 .*, then the dump's own files"},
        {"unreadable", "a", chain, 3, 4, 4, "cannot be read: it stays, and nothing", false, 4},
        {"not on flash", "a", chain, 3, 4, 4, "is not safe: it stays, and nothing", false, 16, 1},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            mount_tmpfs("/data/ro", "");
            must(mount(nullptr, "/data/ro", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0, "ro");
            struct initial_block_header anchor = anchor_of(row.blocks);
            anchor.n_blocks = row.anchor_blocks;
            write_file(MISC_PATH, std::string(3184, 'm') + anchor_bytes(5, 4, seed, 3));
            make_map_file(chain.size() * block_length);
            const std::string data(row.file_blocks * block_length, 'x');
            struct dump_file_header file = {dump_file_header_magic, "", data.size(), 0};
            snprintf(file.name, sizeof(file.name), "%s", row.file);
            make_chain(row.blocks, bytes_of(file) + data);
            struct device_blocks device = open_device(16);
            must(truncate(DEVICE_PATH, static_cast<off_t>(row.device_blocks * block_length)) == 0,
                 DEVICE_PATH);
            platform.failing["fsync"] = row.failing_fsync;
            EXPECT_EQ(row.is_saved, rescue_dump(&anchor, &device, row.n_found, MAP_PATH));
            EXPECT_THAT(take_log(), testing::ContainsRegex(row.line));
            EXPECT_EQ(row.is_saved ? 1 : 3, read_file(MISC_PATH)[3184 + 20]);
            close_device_blocks(&device);
        });
    }
}

// The file was copied to the blocks 1 to 4, and the chain's third block is lost.
TEST(guard, copied_dump) {
    const struct {
        const char *name;
        uint64_t device_blocks;  // that can be read
        int fiemap_error;
        enum copied_dump whole, beginning;
    } rows[] = {
        {"readable", 16, 0, dump_is_copied, dump_is_copied},
        {"its last block is not", 4, 0, dump_cannot_be_looked_for, dump_is_copied},
        {"its first is not", 1, 0, dump_cannot_be_looked_for, dump_cannot_be_looked_for},
        {"nobody tells where it is", 16, EIO, dump_cannot_be_looked_for, dump_is_copied},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            make_chain(chain, "F1Le");
            const std::string disk = read_file(DEVICE_PATH);
            for (size_t i = 0; i < chain.size(); ++i) {
                write_file_at(DEVICE_PATH, (1 + i) * block_length,
                              disk.substr(chain[i] * block_length, block_length));
            }
            write_file_at(DEVICE_PATH, 9 * block_length, "gone");
            make_map_file(chain.size() * block_length);
            platform.extents = {extent(0, 1, 4)};
            platform.fibmap = {{1}};
            platform.fiemap_error = row.fiemap_error;
            const struct guarded_map map = {anchor_of(chain), MAP_PATH, DEVICE_PATH,
                                            open(MAP_PATH, O_RDONLY),
                                            open_device(row.device_blocks)};
            struct chain_links walked = {};
            walked.position = 2;
            EXPECT_EQ(row.whole, find_copied_dump(&map, &walked));
            EXPECT_EQ(row.beginning, find_dump_at_beginning(&map));
        });
    }
}
