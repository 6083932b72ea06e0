#include "chain/chain_reader.h"

#include <errno.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

#define OUT_PATH "/data/out"

// Block k of the device holds this byte throughout.
static std::string block_of(uint32_t k) {
    return std::string(block_length, static_cast<char>('A' + k % 50));
}

DEVICE_TEST(chain_reader, copies_the_blocks_of_the_device) {
    const std::string before = "what was there before, longer than nothing";
    const std::string opened = "I Opened " OUT_PATH " for writing\n";
    const std::vector<fibmap_answer> scattered = {{100}, {101}, {7}};
    const std::vector<fibmap_answer> hole = {{100}, {0}};
    const std::vector<fibmap_answer> lost = {{100}, {7, EIO}};
    const struct {
        const char *name;
        uint64_t map_size;
        uint64_t free_blocks;  // where the device's node is
        std::vector<fibmap_answer> fibmap;
        call_script seeks;
        call_script reads;
        call_script writes;
        int result;
        std::string log;  // behind the line of the space
        std::string out;
    } rows[] = {
        {"as many blocks free as needed", 16383, 3, scattered, undisturbed, undisturbed,
         undisturbed, 0, opened, block_of(100) + block_of(101) + block_of(7)},
        {"one more free than needed", 12288, 4, scattered, undisturbed, undisturbed, undisturbed,
         -ESRCH,
         "E raw_read_blocks: Not enough space available to write ramdump 4 avail, need 3 blocks\n",
         before},
        {"a hole", 8192, 0, hole, undisturbed, undisturbed, undisturbed, 0, opened,
         block_of(100) + block_of(0)},
        {"no whole block", 4095, 0, scattered, undisturbed, undisturbed, undisturbed, 0, opened,
         ""},
        {"interrupted", 4096, 0, scattered, interrupted_and_short, interrupted_and_short,
         interrupted_and_short, 0, opened, block_of(100)},
        {"no place for a block", 8192, 0, lost, undisturbed, undisturbed, undisturbed, -1,
         opened + "E failed to find block 1\n", block_of(100)},
        {"a seek fails", 8192, 0, scattered, second_fails, undisturbed, undisturbed, -1,
         opened + "E error seeking to block 00000065: Input/output error\n", block_of(100)},
        {"a read fails", 8192, 0, scattered, undisturbed, second_fails, undisturbed, -1,
         opened + "E error reading: Input/output error\n", block_of(100)},
        {"a write fails", 8192, 0, scattered, undisturbed, undisturbed, second_fails, -1,
         opened + "E error writing: Input/output error\n", block_of(100)},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            for (uint32_t k = 0; k < 102; k++) {
                write_file_at(DEVICE_PATH, k * block_length, block_of(k));
            }
            leave_free("/dev/block", row.free_blocks * block_length);
            make_map_file(row.map_size);
            write_file(OUT_PATH, before);
            platform.fibmap = row.fibmap;
            platform.seeks = row.seeks;
            platform.reads = row.reads;
            platform.writes = row.writes;
            EXPECT_EQ(row.result, raw_read_blocks(MAP_PATH, DEVICE_PATH, OUT_PATH));
            EXPECT_EQ("I Opened " DEVICE_PATH " for reading\nI raw_read_blocks: " +
                          std::to_string(row.free_blocks) + " avail, " +
                          std::to_string(row.map_size / block_length) + " blocks needed\n" +
                          row.log,
                      take_log());
            EXPECT_TRUE(read_file(OUT_PATH) == row.out);
        });
    }
}

DEVICE_TEST(chain_reader, space_that_cannot_be_told) {
    make_map_file(block_length);
    write_file(DEVICE_PATH, block_of(0));
    platform.fstatvfs_calls = {{ENOSYS}};
    EXPECT_EQ(-ENOENT, raw_read_blocks(MAP_PATH, DEVICE_PATH, OUT_PATH));
    EXPECT_EQ("I Opened " DEVICE_PATH
              " for reading\n"
              "E failed to get vfs stats: Function not implemented\n",
              take_log());
}
