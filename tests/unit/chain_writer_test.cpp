#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include "chain/block_header.h"
#include "chain/chain_crc.h"
#include "chain/chain_writer.h"
#include "chain/progress.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;
static const uint32_t misc_size = 8192;
static const uint32_t anchor_offset = 3184;

// What is said of a chain of four blocks from block 5 on, before and after its headers.
static const char opening_lines[] =
    "I  block size: 4096 bytes\n"
    "I  file size: 20479 bytes, 4 full blocks available\n"
    "I Opened " DEVICE_PATH
    " for writing\n"
    "I first block_header = {magic=0x6e684342, next_block=0x6, crc32=0x36ba5b6c}<no line end>\n";
static const char closing_lines[] =
    "I 4/4\n"
    "P persist.vendor.tarnix.map=valid\n"
    "I block device: " DEVICE_PATH
    "\n"
    "I initial_block_header.magic        = 0x72644842\n"
    "I initial_block_header.first_block  = 0x5\n"
    "I initial_block_header.block_length = 0x1000\n"
    "I initial_block_header.n_blocks     = 0x4\n"
    "I initial_block_header.crc32        = 0x12345678\n"
    "I initial_block_header.flags        = 0x1\n";

static void put(std::string *image, uint64_t offset, const std::string &bytes) {
    image->replace(offset, bytes.size(), bytes);
}

struct written_header {
    uint32_t block;
    std::string bytes;
};

static std::vector<written_header> chain(const std::vector<uint32_t> &blocks) {
    std::vector<written_header> headers;
    for (size_t i = 0; i < blocks.size(); i++) {
        headers.push_back({blocks[i], chain_headers(seed, blocks)[i]});
    }
    return headers;
}

// The header of `block`, with the CRC continued over its own link alone.
static written_header link(uint32_t crc, uint32_t block, uint32_t next) {
    return {block, chain_headers(crc, {block, next})[0]};
}

static uint32_t crc_of(const written_header &header) {
    struct block_header record;
    memcpy(&record, header.bytes.data(), sizeof(record));
    return record.crc32;
}

DEVICE_TEST(chain_writer, headers_anchor_and_log) {
    const written_header first = link(seed, 5, 6);
    // Header 2 fails: after a failing seek the CRC goes on from header 1, after a failing write it
    // has moved over link 2 all the same.
    const written_header after_seek = link(crc_of(first), 9, 3);
    const written_header after_write = link(crc_of(chain({5, 6, 9, 3})[1]), 9, 3);
    const std::vector<written_header> all = chain({5, 6, 9, 3});
    const std::vector<written_header> up_to_block_2 = {first};
    const std::vector<written_header> around_seek = {first, after_seek,
                                                     link(crc_of(after_seek), 3, 0)};
    const std::vector<written_header> around_write = {first, after_write,
                                                      link(crc_of(after_write), 3, 0)};
    using answers = std::vector<fibmap_answer>;
    const answers found = {{5}, {6}, {9}, {3}};
    const answers hole_2 = {{5}, {6}, {0}, {3}};
    const answers lost_2 = {{5}, {6}, {7, EIO}, {3}};
    const answers lost_hole_2 = {{5}, {6}, {0, EIO}, {3}};
    const struct {
        const char *name;
        answers fibmap;
        call_script seeks;
        call_script writes;
        int result;
        std::vector<written_header> headers;  // all that changes on the device
        const char *error;                    // behind the line of the first header
    } rows[] = {
        {"interrupted", found, interrupted_and_short, interrupted_and_short, 0, all, ""},
        {"a hole in the middle", hole_2, undisturbed, undisturbed, -1, up_to_block_2,
         "E refusing to write to block 0\n"},
        {"no place for block 2", lost_2, undisturbed, undisturbed, -1, up_to_block_2,
         "E failed to find block 2\n"},
        {"block 2 fails and is 0", lost_hole_2, undisturbed, undisturbed, -1, up_to_block_2,
         "E refusing to write to block 0\n"},
        {"a seek fails", found, second_fails, undisturbed, 0, around_seek,
         "E error seeking to block 00000006: Input/output error\n"},
        {"a write fails", found, undisturbed, second_fails, 0, around_write,
         "E error writing: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            std::string device(16 * block_length, 'd');
            std::string misc(misc_size, 'm');
            write_file(DEVICE_PATH, device);
            write_file(MISC_PATH, misc);
            make_map_file(5 * block_length - 1);
            platform.fibmap = row.fibmap;
            platform.seeks = row.seeks;
            platform.writes = row.writes;
            chain_crc = seed;
            show_progress = 1;
            EXPECT_EQ(row.result, raw_write_blocks(MAP_PATH, DEVICE_PATH));

            std::string log = opening_lines + std::string(row.error);
            for (const written_header &header : row.headers) {
                put(&device, header.block * block_length, header.bytes);
            }
            if (row.result == 0) {
                log += closing_lines;
                put(&misc, anchor_offset, anchor_bytes(5, 4, seed, 1));
                EXPECT_EQ(crc_of(row.headers.back()), chain_crc);
                EXPECT_EQ(4, platform.fibmap_calls);
            }
            EXPECT_EQ(log, take_log());
            EXPECT_TRUE(read_file(DEVICE_PATH) == device);
            EXPECT_TRUE(read_file(MISC_PATH) == misc);
        });
    }
}

DEVICE_TEST(chain_writer, worked_chain) {
    const std::vector<uint32_t> blocks = {0x8000, 0x8001, 0x9f00};
    const struct block_header headers[] = {{block_header_magic, 0x8001, 0x80b7952a},
                                           {block_header_magic, 0x9f00, 0x22381805},
                                           {block_header_magic, 0, 0x08c9cdde}};
    write_file(DEVICE_PATH, "");
    make_map_file(3 * block_length);
    platform.fibmap = {{0x8000}, {0x8001}, {0x9f00}};
    chain_crc = seed;
    // No misc, and a property store that refuses: neither makes the run fail.
    platform.refuses_property_sets = true;
    EXPECT_EQ(0, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    for (size_t i = 0; i < blocks.size(); i++) {
        EXPECT_EQ(bytes_of(headers[i]), read_file_at(DEVICE_PATH, blocks[i] * block_length, 12));
    }
}

DEVICE_TEST(chain_writer, nothing_to_work_on) {
    EXPECT_EQ(-1, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ("E failed to stat " MAP_PATH "\n", take_log());

    // 2^32 blocks: the low half of their number is 0.
    make_map_file(block_length << 32);
    EXPECT_EQ(-1, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ(
        "I  block size: 4096 bytes\n"
        "I  file size: 17592186044416 bytes, 0 full blocks available\n"
        "E 0 full blocks available in file\n",
        take_log());
}
