#include <android-base/stringprintf.h>
#include <errno.h>
#include <gtest/gtest.h>

#include "chain/chain_crc.h"
#include "chain/chain_test.h"
#include "chain/initial_block_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;

static std::string opening_lines(uint32_t first_block) {
    return android::base::StringPrintf(
        "I initial_block_header.magic        = 0x72644842\n"
        "I initial_block_header.first_block  = %#x\n"
        "I initial_block_header.block_length = 0x1000\n"
        "I initial_block_header.n_blocks     = 0x63\n"
        "I initial_block_header.crc32        = 0x12345678\n"
        "I initial_block_header.flags        = 0x1\n"
        "I  block size: 4096 bytes\n",
        first_block);
}

// The chain 0x8000, 0x8001, 0x9f00 from the seed; or only its last block, as a chain of one.
#define FIRST_LINE \
    "I first block_header = {magic=0x6e684342, next_block=0x8001, crc32=0x80b7952a}\n"

TEST(chain_integrity, walk) {
    const struct {
        const char *name;
        std::vector<uint32_t> blocks;
        // Bytes that spoil what was built: the byte offset in the block, the block, and the bytes.
        std::vector<std::pair<uint64_t, std::string>> damage;
        std::deque<scripted_call> seeks;
        std::deque<scripted_call> reads;
        int result;
        const char *log;  // behind "Opened"
    } rows[] = {
        // The anchor says 0x63 blocks: the walk goes by the links.
        {"intact",
         {0x8000, 0x8001, 0x9f00},
         {},
         {},
         {},
         0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        {"one block",
         {0x8000},
         {},
         {},
         {},
         0,
         "I first block_header = {magic=0x6e684342, next_block=0, crc32=0xc40b7f46}\n"
         "I Read 1 blocks successfully\n"},
        {"no block", {}, {}, {}, {}, 0, "I Read 0 blocks successfully\n"},
        {"interrupted and short",
         {0x8000, 0x8001, 0x9f00},
         {},
         {{EINTR}, as_usual, {EINTR}},
         {{0, 0}, {EINTR}, {0, 11}},
         0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        {"payloads do not count",
         {0x8000, 0x8001, 0x9f00},
         {{0x8001ULL * block_length + 12, "dump"}},
         {},
         {},
         0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        // The second damaged CRC goes unreported; the count is of all.
        {"CRCs of blocks 2 and 3",
         {0x8000, 0x8001, 0x9f00},
         {{0x8001ULL * block_length + 8, "1234"}, {0x9f00ULL * block_length + 8, "1234"}},
         {},
         {},
         0,
         FIRST_LINE "E CRC32 mismatch at block 8001, got 34333231, expecting 22381805\n"
                    "I Read 3 blocks successfully\n"
                    "W Integrity of chain not verified due to CRC mismatch\n"},
        // The running CRC is the computed one: blocks behind a damaged CRC verify.
        {"last CRC",
         {0x8000, 0x8001, 0x9f00},
         {{0x9f00ULL * block_length + 8, "1234"}},
         {},
         {},
         0,
         FIRST_LINE "E CRC32 mismatch at block 9f00, got 34333231, expecting 08c9cdde\n"
                    "I Read 3 blocks successfully\n"
                    "W Integrity of chain not verified due to CRC mismatch\n"},
        {"magic of block 2",
         {0x8000, 0x8001, 0x9f00},
         {{0x8001ULL * block_length, "BHdr"}},
         {},
         {},
         -ENOENT,
         FIRST_LINE "E Bad magic at block 8001, got 72644842\n"},
        {"a seek fails",
         {0x8000, 0x8001, 0x9f00},
         {},
         {as_usual, {EIO}},
         {},
         -1,
         FIRST_LINE "E error seeking to block 00008001: Input/output error\n"},
        {"a read fails",
         {0x8000, 0x8001, 0x9f00},
         {},
         {},
         {{EIO}},
         -1,
         "E error reading: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            make_map_file(block_length);
            write_file(DEVICE_PATH, "");
            std::vector<std::string> headers = chain_headers(seed, row.blocks);
            for (size_t i = 0; i < headers.size(); i++) {
                write_file_at(DEVICE_PATH, uint64_t{row.blocks[i]} * block_length, headers[i]);
            }
            for (const auto &damage : row.damage) {
                write_file_at(DEVICE_PATH, damage.first, damage.second);
            }
            uint32_t first_block = row.blocks.empty() ? 0 : row.blocks[0];
            struct initial_block_header anchor = {
                initial_block_header_magic, first_block, block_length, 0x63, seed, 1};
            // Neither the file system's word on block 0 nor the running CRC matters.
            platform.fibmap = {{5}};
            platform.seeks = row.seeks;
            platform.reads = row.reads;
            chain_crc = 0xdeadbeef;
            EXPECT_EQ(row.result, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
            EXPECT_EQ(
                opening_lines(first_block) + "I Opened " DEVICE_PATH " for reading\n" + row.log,
                take_log());
        });
    }
}

TEST(chain_integrity, files_that_cannot_be_opened) {
    const struct initial_block_header anchor = {
        initial_block_header_magic, 7, block_length, 0x63, seed, 1};
    EXPECT_EQ(-1, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
    EXPECT_EQ("E failed to open " MAP_PATH " for reading: No such file or directory\n", take_log());

    make_map_file(block_length);
    EXPECT_EQ(-1, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
    std::string log = take_log();
    EXPECT_EQ("E Failed to get block 0 for file " MAP_PATH ": Invalid argument\n",
              log.substr(0, 78));
    EXPECT_NE(std::string::npos, log.find("E failed to stat " DEVICE_PATH "\n"));
}
