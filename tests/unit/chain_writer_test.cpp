#include "chain/chain_writer.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "chain/chain_crc.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const uint32_t seed = 0x12345678;
static const call_script last_of_four_fails = {as_usual, as_usual, as_usual, {EIO}};

DEVICE_TEST(chain_writer, headers_and_anchor) {
    const std::vector<uint32_t> blocks = {5, 6, 9, 3};
    const std::vector<std::string> headers = chain_headers(seed, blocks);
    const struct {
        const char *name;
        void (*disturb)();
        int result;
        const char *written;  // the headers that come to be on the device, by their numbers
        size_t last;          // chain_crc is this header's afterwards
        const char *error;
    } rows[] = {
        {"interrupted", [] { platform.seeks = platform.writes = interrupted_and_short; }, 0, "0123",
         3, ""},
        {"a hole", [] { platform.fibmap[2] = {0}; }, -1, "0", 0,
         "E refusing to write to block 0\n"},
        {"no place for a block",
         [] {
             platform.fibmap[2] = {7, EIO};
         },
         -1, "0", 0, "E failed to find block 2\n"},
        {"no place, and block 0",
         [] {
             platform.fibmap[2] = {0, EIO};
         },
         -1, "0", 0, "E refusing to write to block 0\n"},
        // The CRC stays where it is when a seek fails, and moves on when a write does.
        {"a seek fails", [] { platform.seeks = last_of_four_fails; }, 0, "012", 2,
         "E error seeking to block 00000003: Input/output error\n"},
        {"a write fails", [] { platform.writes = second_fails; }, 0, "023", 3,
         "E error writing: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            std::string device(16 * block_length, 'd');
            std::string misc(8192, 'm');
            write_file(DEVICE_PATH, device);
            write_file(MISC_PATH, misc);
            make_map_file(5 * block_length - 1);
            platform.fibmap = {{5}, {6}, {9}, {3}};
            row.disturb();
            chain_crc = seed;
            EXPECT_EQ(row.result, raw_write_blocks(MAP_PATH, DEVICE_PATH));

            for (const char number : std::string(row.written)) {
                const auto i = static_cast<size_t>(number - '0');
                device.replace(blocks[i] * block_length, headers[i].size(), headers[i]);
            }
            if (row.result == 0) {
                misc.replace(3184, 24, anchor_bytes(5, 4, seed, 1));
            }
            EXPECT_TRUE(read_file(DEVICE_PATH) == device);
            EXPECT_TRUE(read_file(MISC_PATH) == misc);
            EXPECT_EQ(headers[row.last].substr(8), bytes_of(chain_crc));
            const std::string log = take_log();
            EXPECT_NE(std::string::npos, log.find(row.error)) << log;
        });
    }
}

DEVICE_TEST(chain_writer, numbers_of_blocks_beyond_31_bits) {
    write_file(DEVICE_PATH, "");
    platform.fibmap = {{5}};
    chain_crc = seed;
    make_map_file(block_length << 32);
    EXPECT_EQ(-1, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ("", read_file(DEVICE_PATH));
    // Negative in 32 bits: a chain of one block.
    make_map_file(block_length << 31);
    EXPECT_EQ(0, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ(std::string(5 * block_length, '\0') + chain_headers(seed, {5})[0],
              read_file(DEVICE_PATH));
}
