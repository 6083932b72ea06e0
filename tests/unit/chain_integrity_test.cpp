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

static std::string anchor_lines(uint32_t first_block) {
    return android::base::StringPrintf(
        "I initial_block_header.magic        = 0x72644842\n"
        "I initial_block_header.first_block  = %#x\n"
        "I initial_block_header.block_length = 0x1000\n"
        "I initial_block_header.n_blocks     = 0x63\n"
        "I initial_block_header.crc32        = 0x12345678\n"
        "I initial_block_header.flags        = 0x1\n",
        first_block);
}

#define FIRST_LINE \
    "I first block_header = {magic=0x6e684342, next_block=0x8001, crc32=0x80b7952a}\n"
#define MISMATCH_LINES(block, expected)                                      \
    "E CRC32 mismatch at block " block ", got 34333231, expecting " expected \
    "\n"                                                                     \
    "I Read 3 blocks successfully\n"                                         \
    "W Integrity of chain not verified due to CRC mismatch\n"

// Overwrites bytes of the device: 4 of them at `offset` of `block`.
struct damage {
    uint64_t block;
    uint64_t offset;
    const char *bytes;
};

DEVICE_TEST(chain_integrity, walk) {
    const std::vector<uint32_t> none;
    const std::vector<uint32_t> one = {0x8000};
    const std::vector<uint32_t> three = {0x8000, 0x8001, 0x9f00};
    const std::vector<damage> intact;
    const std::vector<damage> payload = {{0x8001, 12, "dump"}};
    const std::vector<damage> two_crcs = {{0x8001, 8, "1234"}, {0x9f00, 8, "1234"}};
    const std::vector<damage> last_crc = {{0x9f00, 8, "1234"}};
    const std::vector<damage> magic = {{0x8001, 0, "BHdr"}};
    const struct {
        const char *name;
        std::vector<uint32_t> blocks;
        std::vector<damage> damages;
        call_script seeks;
        call_script reads;
        int result;
        const char *log;  // behind "Opened"
    } rows[] = {
        // The anchor says 0x63 blocks: the walk goes by the links.
        {"intact", three, intact, undisturbed, undisturbed, 0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        {"one block", one, intact, undisturbed, undisturbed, 0,
         "I first block_header = {magic=0x6e684342, next_block=0, crc32=0xc40b7f46}\n"
         "I Read 1 blocks successfully\n"},
        {"no block", none, intact, undisturbed, undisturbed, 0, "I Read 0 blocks successfully\n"},
        {"interrupted", three, intact, interrupted_and_short, interrupted_and_short, 0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        {"payload", three, payload, undisturbed, undisturbed, 0,
         FIRST_LINE "I Read 3 blocks successfully\n"},
        // The second damaged CRC goes unreported.
        {"two CRCs", three, two_crcs, undisturbed, undisturbed, 0,
         FIRST_LINE MISMATCH_LINES("8001", "22381805")},
        {"last CRC", three, last_crc, undisturbed, undisturbed, 0,
         FIRST_LINE MISMATCH_LINES("9f00", "08c9cdde")},
        {"magic", three, magic, undisturbed, undisturbed, -ENOENT,
         FIRST_LINE "E Bad magic at block 8001, got 72644842\n"},
        {"a seek fails", three, intact, second_fails, undisturbed, -1,
         FIRST_LINE "E error seeking to block 00008001: Input/output error\n"},
        {"a read fails", three, intact, undisturbed, first_fails, -1,
         "E error reading: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            make_map_file(block_length);
            write_file(DEVICE_PATH, "");
            std::vector<std::string> headers = chain_headers(seed, row.blocks);
            for (size_t i = 0; i < headers.size(); i++) {
                write_file_at(DEVICE_PATH, row.blocks[i] * block_length, headers[i]);
            }
            for (const damage &damage : row.damages) {
                write_file_at(DEVICE_PATH, damage.block * block_length + damage.offset,
                              damage.bytes);
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
            EXPECT_EQ(anchor_lines(first_block) +
                          "I  block size: 4096 bytes\nI Opened " DEVICE_PATH " for reading\n" +
                          row.log,
                      take_log());
            // It goes on from the computed values, damaged CRCs or not.
            EXPECT_TRUE(row.result != 0 || row.blocks != three || chain_crc == 0x08c9cdde);
        });
    }
}

DEVICE_TEST(chain_integrity, files_that_cannot_be_opened) {
    const struct initial_block_header anchor = {
        initial_block_header_magic, 7, block_length, 0x63, seed, 1};
    const std::string no_map_block =
        "E Failed to get block 0 for file " MAP_PATH ": Invalid argument\n";
    EXPECT_EQ(-1, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
    EXPECT_EQ("E failed to open " MAP_PATH " for reading: No such file or directory\n", take_log());

    make_map_file(block_length);
    EXPECT_EQ(-1, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
    EXPECT_EQ(no_map_block + anchor_lines(7) + "E failed to stat " DEVICE_PATH "\n", take_log());

    make_unopenable(DEVICE_PATH);
    EXPECT_EQ(-1, test_block_chain(MAP_PATH, DEVICE_PATH, &anchor));
    EXPECT_EQ(no_map_block + anchor_lines(7) +
                  "I  block size: 4096 bytes\n"
                  "E failed to open blk_dev:" DEVICE_PATH
                  " for reading: No such device or address\n",
              take_log());
}
