#include "extract/dump_directory.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

#define BASE "/data/vendor/ramdump/apq"

DEVICE_TEST(dump_directory, rotation) {
    const char *at_32_gib = "size=34359738368";
    const char *above_32_gib = "size=34359742464";
    const struct {
        const char *name;
        const char *size;
        const char *before;
        const char *made;
        const char *after;
    } rows[] = {
        {"names with a dot do not count", at_32_gib, ".07", "00", ".07 00"},
        {"one stays at 32 GiB", at_32_gib, "00 06 07abc", "08", "08"},
        {"two stay above, by number and not by text", above_32_gib, "100 99 abc", "101", "100 101"},
        {"the highest number there is", at_32_gib, "2147483647", "-2147483648", "-2147483648"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            mount_tmpfs("/data", row.size);
            for (const std::string &name : android::base::Split(row.before, " ")) {
                write_file(BASE "/" + name + "/a file", "x");
            }
            EXPECT_EQ(0, config_ramdump_path());
            EXPECT_EQ(std::string(BASE "/") + row.made + "/", ramdump_path);
            EXPECT_STREQ(ramdump_path, permission_path);
            EXPECT_EQ(row.after, android::base::Join(list_directory(BASE), ' '));
        });
    }
}

DEVICE_TEST(dump_directory, what_is_in_the_way_stays) {
    make_directories(BASE "/01/full/deeper");
    write_file(BASE "/02", "a plain file");
    for (const char *path : {"/data", "/data/vendor", BASE}) {
        must(chmod(path, 0700) == 0, path);
    }
    EXPECT_EQ(0, config_ramdump_path());
    EXPECT_NE(std::string::npos, take_log().find("I config_ramdump_path(): rmdir " BASE
                                                 "/01 failed! error: Directory not empty\n"));
    EXPECT_EQ("01 02 03", android::base::Join(list_directory(BASE), ' '));
    // Everybody gets in, as far as the tool has a say.
    for (const char *path : {"/data", "/data/vendor", BASE, BASE "/03"}) {
        struct stat found = {};
        must(stat(path, &found) == 0, path);
        EXPECT_EQ(path == std::string("/data") ? 0700U : 0777U, found.st_mode & 07777) << path;
    }
}
