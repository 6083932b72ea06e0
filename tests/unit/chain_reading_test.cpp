// The two that read the chain's blocks on the device: the integrity test and the copy.
#include <android-base/strings.h>
#include <errno.h>
#include <gtest/gtest.h>

#include "chain/chain_integrity.h"
#include "chain/chain_reader.h"
#include "chain/format/initial_block_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

#define OUT_PATH "/data/out"
#define FIRST_HEADER \
    "I first block_header = {magic=0x6e684342, next_block=0x8001, crc32=0x80b7952a}\n"
#define NOT_VERIFIED                 \
    "I Read 3 blocks successfully\n" \
    "W Integrity of chain not verified due to CRC mismatch\n"
#define OPENED "I Opened " OUT_PATH " for writing\n"

static const uint32_t seed = 0x12345678;
static const std::vector<uint32_t> blocks = {0x8000, 0x8001, 0x9f00};
static const uint64_t map_size = 3 * block_length + 4095;

static int walk() {
    // More blocks than there are: the walk goes by the links.
    const struct initial_block_header anchor = {
        initial_block_header_magic, blocks[0], block_length, 0x63, seed, 1};
    return test_block_chain(MAP_PATH, DEVICE_PATH, &anchor);
}

static int copy() {
    return raw_read_blocks(MAP_PATH, DEVICE_PATH, OUT_PATH);
}

static void spoil_crc(uint32_t block) {
    write_file_at(DEVICE_PATH, block * block_length + 8, "1234");
}

TEST(chain_reading, results_and_logs) {
    std::vector<std::string> contents;
    for (const std::string &header : chain_headers(seed, blocks)) {
        contents.push_back(header + std::string(block_length - header.size(), 'x'));
    }
    const std::string before = "there before";
    const struct {
        const char *name;
        int (*read)();
        void (*disturb)();
        int result;
        std::string log;  // its end
        std::string out;
    } rows[] = {
        {"walk, interrupted", walk, [] { platform.seeks = platform.reads = interrupted_and_short; },
         0, FIRST_HEADER "I Read 3 blocks successfully\n", before},
        // The second damage goes unreported.
        {"walk, two CRCs", walk,
         [] {
             spoil_crc(0x8001);
             spoil_crc(0x9f00);
         },
         0,
         FIRST_HEADER
         "E CRC32 mismatch at block 8001, got 34333231, expecting 22381805\n" NOT_VERIFIED,
         before},
        {"walk, last CRC", walk, [] { spoil_crc(0x9f00); }, 0,
         "E CRC32 mismatch at block 9f00, got 34333231, expecting 08c9cdde\n" NOT_VERIFIED, before},
        {"walk, a seek fails", walk, [] { platform.seeks = second_fails; }, -1,
         FIRST_HEADER "E error seeking to block 00008001: Input/output error\n", before},
        {"walk, a read fails", walk, [] { platform.reads = second_fails; }, -1,
         FIRST_HEADER "E error reading: Input/output error\n", before},
        {"copy, interrupted", copy,
         [] { platform.seeks = platform.reads = platform.writes = interrupted_and_short; }, 0,
         "I raw_read_blocks: 3 avail, 3 blocks needed\n" OPENED,
         contents[0] + contents[1] + contents[2]},
        {"copy, more room than the map has blocks", copy,
         [] { leave_free("/dev/block", 4 * block_length); }, -ESRCH,
         "E raw_read_blocks: Not enough space available to write ramdump 4 avail, need 3 blocks\n",
         before},
        {"copy, a hole", copy, [] { platform.fibmap[1] = {0}; }, 0, OPENED,
         contents[0] + std::string(block_length, '\0') + contents[2]},
        {"copy, no place for a block", copy,
         [] {
             platform.fibmap[1] = {7, EIO};
         },
         -1, OPENED "E failed to find block 1\n", contents[0]},
        {"copy, a seek fails", copy, [] { platform.seeks = second_fails; }, -1,
         OPENED "E error seeking to block 00008001: Input/output error\n", contents[0]},
        {"copy, a write fails", copy, [] { platform.writes = second_fails; }, -1,
         OPENED "E error writing: Input/output error\n", contents[0]},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            for (size_t i = 0; i < blocks.size(); ++i) {
                write_file_at(DEVICE_PATH, blocks[i] * block_length, contents[i]);
                platform.fibmap.push_back({static_cast<int>(blocks[i])});
            }
            leave_free("/dev/block", 3 * block_length);
            make_map_file(map_size);
            write_file(OUT_PATH, before);
            row.disturb();
            EXPECT_EQ(row.result, row.read());
            const std::string log = take_log();
            EXPECT_TRUE(android::base::EndsWith(log, row.log)) << log;
            EXPECT_TRUE(read_file(OUT_PATH) == row.out);
        });
    }
}
