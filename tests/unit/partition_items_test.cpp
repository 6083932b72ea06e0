#include "partitions/partition_items.h"

#include <android-base/strings.h>
#include <errno.h>
#include <gtest/gtest.h>

#include <map>

#include "tests/support/files.h"
#include "tests/support/platform.h"

#define BOOTDEVICE "/dev/block/bootdevice/by-name/"

static const size_t partition_size = 1048576 + 512;

struct item {
    int id;
    size_t offset;
    size_t length;
};

// The layout that the boot side and the factory tools share, partition after partition.
// clang-format off
static const std::vector<item> items = {
    {1, 0, 2048}, {2, 2048, 16}, {3, 2080, 16}, {4, 2192, 16}, {5, 2208, 16}, {6, 2224, 16},
    {7, 2240, 16}, {8, 2360, 16}, {9, 2376, 256}, {10, 2676, 68}, {11, 2744, 68}, {12, 2812, 8},
    {13, 2824, 4}, {14, 2836, 8}, {15, 2844, 8}, {16, 2852, 8}, {17, 2860, 32}, {18, 3136, 4},
    {19, 3184, 24}, {20, 3168, 4}, {21, 4096, 64}, {22, 0, 1048576}, {23, 14408, 4},
    {101, 0, 2048}, {102, 0, 96}, {103, 36, 4}, {104, 72, 19}, {105, 4096, 28}, {106, 12288, 6},
    {107, 13312, 8}, {108, 13320, 8}, {109, 13328, 4}, {110, 16384, 64}, {111, 16448, 4},
    {112, 16496, 8}, {113, 16504, 40}, {114, 16504, 4}, {115, 16508, 4}, {116, 16512, 32},
    {117, 16544, 4}, {118, 16548, 4}, {119, 16556, 64}, {120, 32768, 13}, {121, 32816, 16},
    {122, 32976, 16}, {123, 34816, 256}, {124, 35072, 1792}, {125, 36864, 6144},
    {126, 65536, 8192}, {127, 12304, 16}, {128, 13344, 6}, {129, 18432, 27}, {130, 0, 262144},
    {201, 0, 16}, {202, 16, 4}, {203, 20, 8}, {204, 28, 16}, {205, 44, 4}, {206, 48, 32},
    {207, 80, 16}, {208, 112, 16}, {209, 128, 32}, {210, 0, 16384},
    {301, 0, 1048576},
};
// clang-format on

static const char *partition_name(int id) {
    return id > 300 ? "tool_diag" : id > 200 ? "board_info" : id > 100 ? "mfg" : "misc";
}

// Bytes that differ from place to place and from partition to partition.
static std::string pattern(const std::string &name) {
    std::string bytes;
    for (size_t i = 0; i < partition_size / 4; i++) {
        uint32_t word = static_cast<uint32_t>(i) * 2654435761U + static_cast<uint32_t>(name[1]);
        bytes += bytes_of(word);
    }
    return bytes;
}

DEVICE_TEST(partition_items, every_item_at_its_place) {
    std::map<std::string, std::string> images;
    for (const char *name : {"misc", "mfg", "board_info", "tool_diag"}) {
        images[name] = pattern(name);
        write_file(std::string(BOOTDEVICE) + name, images[name]);
    }
    for (const item &item : items) {
        SCOPED_TRACE(item.id);
        std::string path = std::string(BOOTDEVICE) + partition_name(item.id);
        const std::string &image = images[partition_name(item.id)];
        // A byte more than the item: what lies behind it in the caller's memory stays.
        std::string buffer(item.length + 1, '#');
        // The whole item moves, however little is asked for.
        EXPECT_EQ(0, mfg_emmc_read(item.id, &buffer[0], 1));
        EXPECT_TRUE(buffer == image.substr(item.offset, item.length) + "#");
        int length = static_cast<int>(item.length);
        EXPECT_EQ(0, mfg_emmc_write(item.id, std::string(item.length, 'w').data(), length));
        EXPECT_TRUE(read_file(path) ==
                    std::string(image).replace(item.offset, item.length, item.length, 'w'));
        write_file(path, image);
    }
}

DEVICE_TEST(partition_items, refusals) {
    for (const char *name : {"misc", "mfg", "board_info", "tool_diag"}) {
        write_file(std::string(BOOTDEVICE) + name, "");
    }
    const std::string out_of_range = "Error: item number is out of range, ";
    const struct {
        int id;
        std::string reason;
    } rows[] = {
        {0, out_of_range + "0"},
        {302, out_of_range + "302"},
        // An index past a table's end meets the next tables' rows, and behind them 0.
        {24, "ID is not correct: mfg_item=24, index=23, id=101"},
        {55, "ID is not correct: mfg_item=55, index=54, id=202"},
        {100, "ID is not correct: mfg_item=100, index=99, id=0"},
        {211, "ID is not correct: mfg_item=211, index=10, id=301"},
        {300, "ID is not correct: mfg_item=300, index=99, id=0"},
    };
    std::string printed;
    char bytes[5] = "kept";
    testing::internal::CaptureStdout();
    for (const auto &row : rows) {
        EXPECT_EQ(-EIO, mfg_emmc_read(row.id, bytes, 0)) << row.id;
        EXPECT_EQ(-EIO, mfg_emmc_write(row.id, bytes, 0)) << row.id;
        std::string refusal = row.reason + "\nError: open partition failed, item=";
        refusal += std::to_string(row.id);
        printed.append(refusal).append("\n").append(refusal).append(".\n");
    }
    EXPECT_EQ(-EINVAL, mfg_emmc_read(13, bytes, 5));
    EXPECT_EQ(-EINVAL, mfg_emmc_write(13, bytes, 5));
    printed +=
        "Error: read data lengh too large, read_len=5, data_len=4\n"
        "Error: write data lengh too large, write_len=5, data_len=4\n";
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    // An empty partition, of an item that exists, gives nothing and is no error.
    EXPECT_EQ(0, mfg_emmc_read(13, bytes, 4));
    EXPECT_STREQ("kept", bytes);
    EXPECT_EQ("", read_file(BOOTDEVICE "misc"));
}

DEVICE_TEST(partition_items, first_open_fixes_the_directory) {
    // M/ is the older directory, B/ the newer one.
    const struct {
        const char *name;
        const char *nodes;  // that exist
        const char *asked;  // items, one after another, each with the node that does not open
    } rows[] = {
        {"no way back from the older directory", "M/misc B/mfg", "19: 101:M/mfg 101:M/mfg"},
        {"capitals", "B/MFG B/misc B/mfg", "101: 19:"},
        {"capitals are for mfg alone", "B/misc B/mfg", "201:B/board_info 301:B/tool_diag 101: 19:"},
        {"the last one tried stays", "M/misc B/mfg", "101: 19:B/misc"},
        {"nothing there", "M/misc M/tool_diag", "101:B/MFG 19:B/misc 301:B/tool_diag 101:B/MFG"},
        {"a number out of range settles nothing", "B/mfg M/misc", "302: 19: 0:"},
    };
    auto node_path = [](const std::string &node) {
        return (node[0] == 'M' ? "/dev/block/platform/msm_sdcc.1" : "/dev/block/bootdevice") +
               ("/by-name/" + node.substr(2));
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            for (const std::string &node : android::base::Split(row.nodes, " ")) {
                write_file(node_path(node), "");
            }
            for (const std::string &asked : android::base::Split(row.asked, " ")) {
                char buffer[2048];
                testing::internal::CaptureStdout();
                mfg_emmc_read(atoi(asked.c_str()), buffer, 0);
                std::string printed = testing::internal::GetCapturedStdout();
                std::string node = asked.substr(asked.find(':') + 1);
                std::string failure =
                    node.empty() ? "" : "Error: " + node_path(node) + " open failed.\n";
                EXPECT_EQ(failure, printed.substr(0, failure.size())) << asked;
                EXPECT_EQ(node.empty(), printed.find("open failed.") == std::string::npos) << asked;
            }
        });
    }
}
