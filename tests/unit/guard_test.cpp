// What the file systems of the emulated device do not answer, and chains that only a forger makes.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <stdio.h>
#include <unistd.h>

#include "chain/format/block_header.h"
#include "chain/format/dump_file_header.h"
#include "chain/format/dump_layout.h"
#include "chain/format/initial_block_header.h"
#include "guard/chain_comparison.h"
#include "guard/chain_links.h"
#include "guard/device_blocks.h"
#include "guard/dump_rescue.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;
static const std::vector<uint32_t> chain = {5, 6, 9, 8};

static void make_chain(const std::vector<uint32_t> &blocks) {
    const std::vector<std::string> headers = chain_headers(seed, blocks);
    for (size_t i = 0; i < blocks.size(); ++i) {
        write_file_at(DEVICE_PATH, blocks[i] * block_length, headers[i]);
    }
}

static struct initial_block_header anchor_of(const std::vector<uint32_t> &blocks) {
    return fresh_initial_block_header(blocks[0], block_length, static_cast<uint32_t>(blocks.size()),
                                      seed);
}

static enum chain_comparison compare(const std::vector<uint32_t> &blocks) {
    make_map_file(blocks.size() * block_length + 1);
    const struct initial_block_header anchor = anchor_of(blocks);
    struct device_blocks device;
    must(open_device_blocks(DEVICE_PATH, block_length, &device) == 0, DEVICE_PATH);
    const int file = open(MAP_PATH, O_RDONLY);
    const enum chain_comparison result = compare_chain(file, &anchor, &device, false);
    close_device_blocks(&device);
    return result;
}

// An extent in blocks of the file and the device.
static struct fiemap_extent extent(uint64_t index, uint64_t place, uint64_t count,
                                   uint32_t flags = 0) {
    struct fiemap_extent result = {};
    result.fe_logical = index * block_length;
    result.fe_physical = place * block_length;
    result.fe_length = count * block_length;
    result.fe_flags = flags;
    return result;
}

TEST(guard, extents) {
    struct fiemap_extent misaligned = extent(2, 9, 1);
    misaligned.fe_physical += 512;
    const fibmap_answer as_chain[] = {{5}, {6}, {9}, {8}};
    const fibmap_answer no_third[] = {{5}, {6}, {0}, {8}};
    const std::vector<fibmap_answer> same(as_chain, as_chain + 4);
    const std::vector<fibmap_answer> hole(no_third, no_third + 4);
    const auto third = [](uint32_t flags) {
        return std::vector<struct fiemap_extent>{extent(0, 5, 2), extent(2, 9, 1, flags),
                                                 extent(3, 8, 1)};
    };
    const struct {
        const char *name;
        std::vector<struct fiemap_extent> extents;
        std::vector<fibmap_answer> fibmap;
        enum chain_comparison result;
        int error = 0;
    } rows[] = {
        {"three runs", third(0), {}, chain_matches},
        {"side by side, the last part of a block",
         {extent(0, 5, 1), extent(1, 6, 1), extent(2, 9, 1), extent(3, 8, 2)},
         {},
         chain_matches},
        {"encrypted",
         third(FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_ENCRYPTED),
         {},
         chain_matches},
        {"compressed", third(FIEMAP_EXTENT_ENCODED), hole, chain_differs},
        {"unwritten", third(FIEMAP_EXTENT_UNWRITTEN), hole, chain_differs},
        {"inline", third(FIEMAP_EXTENT_DATA_INLINE), hole, chain_differs},
        {"delayed", third(FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_UNKNOWN), hole, chain_differs},
        {"unwritten, FIBMAP gives away the place", third(FIEMAP_EXTENT_UNWRITTEN), same,
         chain_differs},
        {"unwritten by one word only",
         third(FIEMAP_EXTENT_UNWRITTEN),
         {{5}, {6}, {10}, {8}},
         chain_disputed},
        {"delayed by one word only", third(FIEMAP_EXTENT_DELALLOC), same, chain_disputed},
        {"misaligned", {extent(0, 5, 2), misaligned, extent(3, 8, 1)}, same, chain_disputed},
        {"hole", {extent(0, 5, 2), extent(3, 8, 1)}, hole, chain_differs},
        {"hole at the end", {extent(0, 5, 2)}, hole, chain_differs},
        {"nothing", {}, {{0}}, chain_differs},
        {"begins elsewhere", {extent(0, 7, 4)}, {{7}}, chain_differs},
        {"goes on elsewhere",
         {extent(0, 5, 2), extent(2, 10, 2)},
         {{5}, {6}, {10}, {11}},
         chain_differs},
        {"goes on elsewhere by one word only",
         {extent(0, 5, 2), extent(2, 10, 2)},
         same,
         chain_disputed},
        {"past 32 bits",
         {extent(0, 5, 2), extent(2, uint64_t{1} << 32 | 9, 1), extent(3, 8, 1)},
         hole,
         chain_differs},
        {"nobody confirms", {extent(0, 7, 4)}, {{7, EPERM}}, chain_cannot_be_compared},
        {"never answers what is asked", {extent(0, 5, 0)}, {}, chain_cannot_be_compared},
        {"no such call", {}, {}, chain_cannot_be_compared, EOPNOTSUPP},
        {"past the device",
         {extent(0, 5, 2), extent(2, 100, 1), extent(3, 8, 1)},
         {{5}, {6}, {100}, {8}},
         chain_differs},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
            make_chain(chain);
            platform.extents = row.extents;
            platform.fibmap = row.fibmap;
            platform.fiemap_error = row.error;
            EXPECT_EQ(row.result, compare(chain)) << take_log();
        });
    }
}

// More runs than one answer holds, and one that is longer than the CRC's pieces.
DEVICE_TEST(guard, many_extents) {
    std::vector<uint32_t> blocks;
    for (uint32_t i = 0; i < 300; ++i) {
        blocks.push_back(1000 - 3 * i + (i % 2));
        platform.extents.push_back(extent(i, blocks[i], 1));
    }
    for (uint32_t i = 0; i < 600; ++i) {
        blocks.push_back(2000 + i);
    }
    platform.extents.push_back(extent(300, 2000, 600));
    make_chain(blocks);
    write_file_at(DEVICE_PATH, 2600 * block_length, "d");
    EXPECT_EQ(chain_matches, compare(blocks));
    EXPECT_EQ("I the chain is the map file's: 900 blocks in 301 runs, 302 headers read\n",
              take_log());
    for (const uint32_t block : blocks) {
        platform.fibmap.push_back({static_cast<int>(block)});
    }
    const std::string bad_crc = "device block 2599: bad CRC\n";
    write_file_at(DEVICE_PATH, 2599 * block_length + 8, "1234");
    EXPECT_EQ(chain_has_bad_crc, compare(blocks));
    EXPECT_EQ("E map file and chain differ at block 899, " + bad_crc, take_log());
    // It hides nothing that comes behind it.
    write_file_at(DEVICE_PATH, blocks[1] * block_length + 8, "1234");
    write_file_at(DEVICE_PATH, 2599 * block_length, "gone");
    EXPECT_EQ(chain_differs, compare(blocks));
    EXPECT_EQ(
        "E map file and chain differ at block 1, device block 998: bad CRC\n"
        "E map file and chain differ at block 899, device block 2599: bad magic\n",
        take_log());
}

// What becomes of a dump whose blocks change, or are kept back, while it is saved.
TEST(guard, rescue) {
    const struct {
        const char *name;
        const char *file;
        uint64_t file_blocks;  // size of its data, in blocks
        uint32_t anchor_blocks;
        uint64_t n_found;
        uint64_t device_blocks;
        bool is_saved;
        const char *line;
    } rows[] = {
        {"whole", "a", 3, 4, 4, 16, true, "saved along the links: 4 blocks"},
        {"its name is none", "a/b", 3, 4, 4, 16, true, "cut: the last file that was found cannot"},
        {"longer than the chain", "a", 4, 4, 4, 16, true, "cut: its last file goes on behind"},
        {"broken already", "a", 4, 5, 4, 16, true, "cut: 4 of 5 blocks are saved, then the chain"},
        {"broken by its files", "a", 4, 5, 5, 16, true, "saved, then the dump's own files took"},
        {"unreadable", "a", 3, 4, 4, 4, false, "cannot be read: it stays, and nothing is started"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            write_file(MISC_PATH, std::string(3184, 'm') + anchor_bytes(5, 4, seed, 3));
            make_map_file(chain.size() * block_length);
            write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
            make_chain(chain);
            const std::string data(row.file_blocks * block_length, 'x');
            struct dump_file_header file = {dump_file_header_magic, "", data.size(), 0};
            snprintf(file.name, sizeof(file.name), "%s", row.file);
            const std::string stream = bytes_of(file) + data;
            const size_t payload = dump_payload_size(block_length);
            for (size_t i = 0; i < chain.size(); ++i) {
                write_file_at(DEVICE_PATH, chain[i] * block_length + sizeof(struct block_header),
                              stream.substr(i * payload, payload));
            }
            struct initial_block_header anchor = anchor_of(chain);
            anchor.n_blocks = row.anchor_blocks;
            struct device_blocks device;
            must(open_device_blocks(DEVICE_PATH, block_length, &device) == 0, DEVICE_PATH);
            must(truncate(DEVICE_PATH, static_cast<off_t>(row.device_blocks * block_length)) == 0,
                 DEVICE_PATH);
            EXPECT_EQ(row.is_saved, rescue_dump(&anchor, &device, row.n_found, MAP_PATH));
            EXPECT_THAT(take_log(), testing::HasSubstr(row.line));
            EXPECT_EQ(row.is_saved ? 1 : 3, read_file(MISC_PATH)[3184 + 20]);
            close_device_blocks(&device);
        });
    }
}

TEST(guard, links) {
    const struct {
        const char *name;
        std::vector<uint32_t> blocks;  // linked in this order
        uint32_t n_blocks;             // the anchor's
        uint64_t good;
        const char *fault;
    } rows[] = {
        {"whole", {5, 6, 9, 8}, 4, 4, nullptr},
        {"shorter than the anchor says", {5, 6, 9, 8}, 5, 4, "it ends too early"},
        {"longer", {5, 6, 9, 8}, 3, 3, "it goes on behind its last block"},
        {"a cycle", {5, 6, 9, 5}, UINT32_MAX, 3, "bad CRC"},
        {"past the device", {5, 6, 1u << 31}, 9, 2, "a link leads past the device"},
        {"nothing", {0}, 0, 0, nullptr},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
            const std::vector<std::string> headers = chain_headers(seed, row.blocks);
            // The first header of a block that is linked twice stays.
            for (size_t i = headers.size(); i-- > 0;) {
                if (row.blocks[i] < 16) {
                    write_file_at(DEVICE_PATH, row.blocks[i] * block_length, headers[i]);
                }
            }
            struct initial_block_header anchor = anchor_of(row.blocks);
            anchor.n_blocks = row.n_blocks;
            struct device_blocks device;
            must(open_device_blocks(DEVICE_PATH, block_length, &device) == 0, DEVICE_PATH);
            struct chain_links links;
            start_links(&links, &anchor, &device);
            while (next_link(&links) != nullptr) {
            }
            EXPECT_EQ(row.good, links.position);
            EXPECT_STREQ(row.fault, links.fault);
        });
    }
}
