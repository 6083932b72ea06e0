// What a whole run on the emulated device cannot be brought to (tests/device has the rest).
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

// The driver's main.
int tarnix_main(int argc, char *argv[]);

static const uint32_t seed = 0x12345678;
static const char misc_rest[] = "the rest of misc";

// A device whose fstab, properties and partitions are in order, with a map file of two blocks.
static void prepare_device() {
    set_property("ro.boot.qorramdump", "1");
    set_property("ro.hardware", "virt");
    write_file("/fstab.virt", DEVICE_PATH " /data ext4 noatime wait,check\n");
    write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
    write_file(MISC_PATH, std::string(3184 + 24, '\0') + misc_rest);
    make_map_file(2 * block_length);
    platform.fibmap = {{5}, {6}};
    leave_free("/dev/block", 0);
}

static void put_anchor(uint32_t flags) {
    write_file_at(MISC_PATH, 3184, anchor_bytes(5, 2, seed, flags));
}

static int run(const std::string &arguments) {
    std::vector<std::string> words = android::base::Split("tarnix " + arguments, " ");
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    return tarnix_main(static_cast<int>(words.size()), argv.data());
}

#define START "I tarnix_v3 start!!\nI security off, continue tarnix jobs\n"
#define VALID START "E valid map file exists: " MAP_PATH "\n"
#define FOUND(device)                          \
    "I   block dev: " device                   \
    "\nI encryptable: no\nI   encrypted: no\n" \
    "I initial CRC: 00000001\n"
#define CHAIN(device) FOUND(device) "I initializing block chain (i=00000001)\n"

TEST(driver, modes_on_a_valid_map) {
    const struct {
        const char *name;
        const char *arguments;
        uint32_t flags;
        const char *log;
    } rows[] = {
        {"the other flags are no dump", "-s -i 1 " MAP_PATH, 0xfffffffd,
         VALID CHAIN(
             DEVICE_PATH) "E main: No ramdump for reading (flag = 0xfffffffd)\nI Success\n"},
        {"copy, and no extraction", "-s -i 1 -r /data/out " MAP_PATH, 3,
         VALID CHAIN(DEVICE_PATH) "P debug.qor.tarnix=reversing\nI Opened " DEVICE_PATH
                                  " for reading\nI raw_read_blocks: 0 avail, 2 blocks needed\n"
                                  "I Opened /data/out for writing\nI Success\n"},
        {"through a link", "-i 1 /vendor/link", 3, START CHAIN(DEVICE_PATH) "I Success\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            prepare_device();
            put_anchor(row.flags);
            symlink(MAP_PATH, "/vendor/link");
            EXPECT_EQ(0, run(row.arguments));
            EXPECT_EQ(row.log, take_log());
        });
    }
}

DEVICE_TEST(driver, a_test_does_nothing_else) {
    prepare_device();
    put_anchor(3);
    EXPECT_EQ(-2, run("-t -s -i 1 -r /data/out " MAP_PATH));
    std::string log = take_log();
    EXPECT_EQ(0U, log.find(VALID FOUND(DEVICE_PATH) "I initial_block_header.magic")) << log;
    EXPECT_TRUE(android::base::EndsWith(log, "E Bad magic at block 5, got 64646464\n")) << log;
    EXPECT_NE(0, access("/data/out", F_OK));
}

DEVICE_TEST(driver, a_chain_that_cannot_be_built_leaves_no_anchor) {
    prepare_device();
    put_anchor(3);
    unlink(MAP_PATH);
    platform.fibmap = {{5}, {0}};
    EXPECT_EQ(-1, run("-i 1 -a 8192 -p " MAP_PATH));
    std::string log = take_log();
    EXPECT_TRUE(android::base::EndsWith(log, "E refusing to write to block 0\n")) << log;
    EXPECT_TRUE(read_file(MISC_PATH) == std::string(3184 + 24, '\0') + misc_rest);
}

TEST(driver, map_size) {
    const struct {
        const char *ddr_size;
        const char *arguments;
        const char *size;
    } rows[] = {
        {"4.5", "-s", "5905580032"},
        {"12", "-s", "2147483648"},
        {"", "-p -s", "1073741823"},
        {"4", "-c 9000000000 -s", "5368709120"},
        {"4", "-s -a 0009000000001k", "9000000001"},
    };
    for (const auto &row : rows) {
        on_fresh_device(std::string(row.ddr_size) + row.arguments, [&row] {
            prepare_device();
            set_property("ro.boot.ddrsize", row.ddr_size);
            leave_free("/data", 4096);
            EXPECT_EQ(-1, run(row.arguments));
            EXPECT_TRUE(android::base::EndsWith(
                take_log(),
                std::string("requested size: ") + row.size + "\nE create_file failed\n"));
        });
    }
}
