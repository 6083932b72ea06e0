#include <gtest/gtest.h>

#include "chain/chain_crc.h"
#include "chain/chain_test.h"
#include "chain/initial_block_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;

#define ANCHOR_LINES                                     \
    "I initial_block_header.magic        = 0x72644842\n" \
    "I initial_block_header.first_block  = 0x8000\n"     \
    "I initial_block_header.block_length = 0x1000\n"     \
    "I initial_block_header.n_blocks     = 0x63\n"       \
    "I initial_block_header.crc32        = 0x12345678\n" \
    "I initial_block_header.flags        = 0x1\n"
#define FIRST_LINE \
    "I first block_header = {magic=0x6e684342, next_block=0x8001, crc32=0x80b7952a}\n"
#define MISMATCH_LINES(block, expected)                                      \
    "E CRC32 mismatch at block " block ", got 34333231, expecting " expected \
    "\n"                                                                     \
    "I Read 3 blocks successfully\n"                                         \
    "W Integrity of chain not verified due to CRC mismatch\n"

DEVICE_TEST(chain_integrity, walk) {
    const std::vector<uint32_t> one = {0x8000};
    const std::vector<uint32_t> three = {0x8000, 0x8001, 0x9f00};
    const std::vector<uint32_t> none;
    const std::vector<uint32_t> last_two = {0x8001, 0x9f00};
    const std::vector<uint32_t> last = {0x9f00};
    const struct {
        const char *name;
        std::vector<uint32_t> blocks;
        std::vector<uint32_t> spoiled;  // blocks whose CRC is not right
        call_script seeks;
        call_script reads;
        int result;
        const char *log;  // behind "Opened"
    } rows[] = {
        // The anchor says 0x63 blocks: the walk goes by the links.
        {"intact", three, none, undisturbed, undisturbed, 0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        {"one block", one, none, undisturbed, undisturbed, 0,
         "I first block_header = {magic=0x6e684342, next_block=0, crc32=0xc40b7f46}\n"
         "I Read 1 blocks successfully\n"},
        {"interrupted", three, none, interrupted_and_short, interrupted_and_short, 0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        // The second damaged CRC goes unreported.
        {"two CRCs", three, last_two, undisturbed, undisturbed, 0,
         FIRST_LINE MISMATCH_LINES("8001", "22381805")},
        {"last CRC", three, last, undisturbed, undisturbed, 0,
         FIRST_LINE MISMATCH_LINES("9f00", "08c9cdde")},
        {"a seek fails", three, none, second_fails, undisturbed, -1,
         FIRST_LINE "E error seeking to block 00008001: Input/output error\n"},
        {"a read fails", three, none, undisturbed, second_fails, -1,
         FIRST_LINE "E error reading: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            make_map_file(block_length);
            write_file(DEVICE_PATH, "");
            std::vector<std::string> headers = chain_headers(seed, row.blocks);
            for (size_t i = 0; i < headers.size(); i++) {
                write_file_at(DEVICE_PATH, row.blocks[i] * block_length, headers[i]);
            }
            for (uint32_t block : row.spoiled) {
                write_file_at(DEVICE_PATH, block * block_length + 8, "1234");
            }
            struct initial_block_header anchor = {
                initial_block_header_magic, 0x8000, block_length, 0x63, seed, 1};
            // Neither the file system's word on block 0 nor the running CRC matters.
            platform.fibmap = {{5}};
            platform.seeks = row.seeks;
            platform.reads = row.reads;
            chain_crc = 0xdeadbeef;
            EXPECT_EQ(row.result, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
            EXPECT_EQ(std::string(ANCHOR_LINES) +
                          "I  block size: 4096 bytes\nI Opened " DEVICE_PATH " for reading\n" +
                          row.log,
                      take_log());
            // It goes on from the computed values, damaged CRCs or not.
            EXPECT_TRUE(row.result != 0 || row.blocks != three || chain_crc == 0x08c9cdde);
        });
    }
}
