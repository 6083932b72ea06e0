// What a whole run on the emulated device cannot be brought to (tests/device has the rest).
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "driver/run_options.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

// The driver's main.
int tarnix_main(int argc, char *argv[]);

// Calls main or a part of it with a command line.
template <typename Function>
static int with_arguments(const std::string &arguments, const Function &function) {
    std::vector<std::string> words = android::base::Split("tarnix " + arguments, " ");
    std::vector<char *> argv(words.size() + 1);
    for (size_t i = 0; i < words.size(); ++i) {
        argv[i] = &words[i][0];
    }
    optind = 0;  // from the start, also in a second run
    return function(static_cast<int>(words.size()), argv.data());
}

static void prepare_device() {
    set_property("ro.boot.qorramdump", "1");
    set_property("ro.hardware", "virt");
    write_file("/fstab.virt", DEVICE_PATH " /data ext4 noatime wait,check\n");
    write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
    platform.fibmap = {{5}, {6}};
}

DEVICE_TEST(driver, modes_on_a_valid_map) {
    prepare_device();
    make_map_file(2 * block_length);
    leave_free("/dev/block", 4096);
    must(symlink(MAP_PATH, "/vendor/link") == 0, "/vendor/link");

    // The other flags are no dump.
    write_file_at(MISC_PATH, 3184, anchor_bytes(5, 2, 0x12345678, 0xfffffffd));
    EXPECT_EQ(0, with_arguments("-s " MAP_PATH, tarnix_main));
    std::string log = take_log();
    const char none[] = ")\nE main: No ramdump for reading (flag = 0xfffffffd)\nI Success\n";
    EXPECT_TRUE(android::base::EndsWith(log, none)) << log;

    // A copy, and no extraction of what is pending.
    write_file_at(MISC_PATH, 3184, anchor_bytes(5, 2, 0x12345678, 3));
    EXPECT_EQ(0, with_arguments("-s -r /data/out /vendor/link", tarnix_main));
    log = take_log();
    const char copied[] =
        ")\nP debug.qor.tarnix=reversing\n"
        "I Opened " DEVICE_PATH
        " for reading\n"
        "I raw_read_blocks: 0 avail, 2 blocks needed\n"
        "I Opened /data/out for writing\nI Success\n";
    EXPECT_TRUE(android::base::EndsWith(log, copied)) << log;
}

DEVICE_TEST(driver, each_call_interrupted_once) {
    prepare_device();
    write_file(MISC_PATH, std::string(8192, '\0'));
    make_directories("/data/vendor/ramdump");
    leave_free("/dev/block", 4096);
    const struct {
        const char *arguments;
        uint32_t flags;  // of the anchor before the run; 0: none
        int calls;       // that go through
    } rows[] = {
        {"-i 12345678 -a 8192 " MAP_PATH, 0, 9},
        {"-t " MAP_PATH, 1, 3},
        {"-r /data/out " MAP_PATH, 1, 8},
        {"-s " MAP_PATH, 3, 7},
    };
    for (const auto &row : rows) {
        if (row.flags != 0) {
            write_file_at(MISC_PATH, 3184, anchor_bytes(5, 2, 0x12345678, row.flags));
        }
        platform.uninterrupted = 0;
        platform.interrupts = true;
        EXPECT_EQ(0, with_arguments(row.arguments, tarnix_main)) << row.arguments;
        platform.interrupts = false;
        EXPECT_EQ(row.calls, platform.uninterrupted) << take_log();
    }
    const std::vector<std::string> headers = chain_headers(0x12345678, {5, 6});
    EXPECT_EQ(headers[0] + headers[1],
              read_file("/data/out").substr(0, 12) + read_file("/data/out").substr(4096, 12));
}

TEST(driver, map_size) {
    const struct {
        const char *ddr_size;
        const char *arguments;
        uint64_t size;
    } rows[] = {
        {"4.5", "-s", 5905580032},
        {"12", "-s", 2147483648},
        {"", "-p -s", 1073741823},
        {"\xff", "-s", 223338299392},
        {"4", "-c 9000000000 -s", 5368709120},
        {"4", "-s -a 0009000000001k", 9000000001},
    };
    for (const auto &row : rows) {
        in_own_process(std::string(row.ddr_size) + row.arguments, [&row] {
            set_property("ro.boot.ddrsize", row.ddr_size);
            struct run_options options;
            EXPECT_EQ(0, with_arguments(row.arguments, [&options](int argc, char *argv[]) {
                          return parse_options(argc, argv, &options);
                      }));
            EXPECT_EQ(row.size, options.map_size);
        });
    }
}
