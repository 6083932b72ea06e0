#include "partitions/partition_items.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "chain/format/initial_block_header.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

#define OLDER "/dev/block/platform/msm_sdcc.1/by-name/"
#define NEWER "/dev/block/bootdevice/by-name/"

// The layout that the boot side and the factory tools share: offset and length of each item.
// clang-format off
static const struct {
    const char *path;
    int first_item;
    std::vector<std::pair<size_t, size_t>> items;
} partitions[] = {
    {NEWER "misc", 1,
     {{0, 2048}, {2048, 16}, {2080, 16}, {2192, 16}, {2208, 16}, {2224, 16}, {2240, 16}, {2360, 16},
      {2376, 256}, {2676, 68}, {2744, 68}, {2812, 8}, {2824, 4}, {2836, 8}, {2844, 8}, {2852, 8},
      {2860, 32}, {3136, 4}, {3184, 24}, {3168, 4}, {4096, 64}, {0, 1048576}, {14408, 4}}},
    {NEWER "mfg", 101,
     {{0, 2048}, {0, 96}, {36, 4}, {72, 19}, {4096, 28}, {12288, 6}, {13312, 8}, {13320, 8},
      {13328, 4}, {16384, 64}, {16448, 4}, {16496, 8}, {16504, 40}, {16504, 4}, {16508, 4},
      {16512, 32}, {16544, 4}, {16548, 4}, {16556, 64}, {32768, 13}, {32816, 16}, {32976, 16},
      {34816, 256}, {35072, 1792}, {36864, 6144}, {65536, 8192}, {12304, 16}, {13344, 6},
      {18432, 27}, {0, 262144}}},
    {NEWER "board_info", 201,
     {{0, 16}, {16, 4}, {20, 8}, {28, 16}, {44, 4}, {48, 32}, {80, 16}, {112, 16}, {128, 32},
      {0, 16384}}},
    {NEWER "tool_diag", 301, {{0, 1048576}}},
};
// clang-format on

TEST(partition_items, every_item_at_its_place) {
    // No two places alike.
    std::string image;
    for (uint32_t i = 0; image.size() < 1048576 + 512; ++i) {
        image += bytes_of(i * 2654435761U);
    }
    for (const auto &partition : partitions) {
        on_fresh_device(partition.path, [&] {
            int item = partition.first_item;
            for (const auto &[offset, length] : partition.items) {
                SCOPED_TRACE(item);
                write_file(partition.path, image);
                // A byte more than the item: what lies behind it in the caller's memory stays.
                std::string buffer(length + 1, '#');
                const int too_much = static_cast<int>(length) + 1;
                EXPECT_EQ(-EINVAL, mfg_emmc_read(item, &buffer[0], too_much));
                EXPECT_EQ(-EINVAL, mfg_emmc_write(item, buffer.data(), too_much));
                // The whole item moves, however little is asked for.
                EXPECT_EQ(0, mfg_emmc_read(item, &buffer[0], 1));
                EXPECT_TRUE(buffer == image.substr(offset, length) + "#");
                EXPECT_EQ(0, mfg_emmc_write(item, std::string(length, 'w').data(),
                                            static_cast<int>(length)));
                EXPECT_TRUE(read_file(partition.path) ==
                            std::string(image).replace(offset, length, length, 'w'));
                ++item;
            }
        });
    }
}

TEST(partition_items, results) {
    const struct {
        const char *name;
        std::vector<const char *> nodes;  // that exist
        std::vector<int> asked;           // items one after another; 0 and less: is refused
    } rows[] = {
        // An index past a table's end meets the next tables' rows, and behind them nothing.
        {"no such item",
         {NEWER "misc", NEWER "mfg", NEWER "board_info", NEWER "tool_diag"},
         {0, -302, -24, -55, -100, -131, -211, -300}},
        {"the older directory first", {OLDER "misc", NEWER "misc", NEWER "mfg"}, {19, -101}},
        {"capitals", {NEWER "MFG", NEWER "misc"}, {101, 19}},
        {"capitals are for mfg alone", {NEWER "MFG", NEWER "misc"}, {-201, -101, 19}},
        {"the last one tried stays", {OLDER "misc", NEWER "mfg"}, {101, -19}},
        {"a number out of range settles nothing", {OLDER "misc"}, {-302, 19}},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            for (const char *node : row.nodes) {
                write_file(node, "");
            }
            for (const int item : row.asked) {
                const int result = item > 0 ? 0 : -EIO;
                char buffer[2048] = "kept";
                // An empty partition gives nothing, and is no error.
                EXPECT_EQ(result, mfg_emmc_read(abs(item), buffer, 0)) << item;
                EXPECT_STREQ("kept", buffer);
                EXPECT_EQ(result, mfg_emmc_sync(abs(item))) << item;
            }
        });
    }
}

DEVICE_TEST(partition_items, anchor_that_is_on_flash) {
    const struct initial_block_header anchor = fresh_initial_block_header(5, 4096, 4, 1);
    EXPECT_EQ(-EIO, store_anchor(&anchor));
    write_file(NEWER "misc", "");
    platform.failing["fsync"] = 1;
    EXPECT_EQ(-EIO, store_anchor(&anchor));
    EXPECT_EQ(0, store_anchor(&anchor));
    EXPECT_EQ(anchor_bytes(5, 4, 1, 1), read_file(NEWER "misc").substr(3184));
}
