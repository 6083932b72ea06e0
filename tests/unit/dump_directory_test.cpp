#include "extract/dump_directory.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "extract/permissions.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

#define BASE "/data/vendor/ramdump/apq"

static mode_t mode_of(const std::string &path) {
    struct stat found = {};
    stat(path.c_str(), &found);
    return found.st_mode & 07777;
}

DEVICE_TEST(dump_directory, rotation) {
    const char *const at_32_gib = "size=34359738368";
    const char *const above_32_gib = "size=34359742464";
    const struct {
        const char *name;
        const char *size;
        const char *before;
        const char *made;
        const char *after;
    } rows[] = {
        {"names with a dot do not count", at_32_gib, ".07", "00", ".07 00"},
        {"one stays at 32 GiB", at_32_gib, "00 01 05", "06", "06"},
        {"two stay above", above_32_gib, "00 01 02", "03", "02 03"},
        {"by number, not by text", above_32_gib, "100 99", "101", "100 101"},
        {"a name without a number is the oldest", above_32_gib, "03 abc", "04", "03 04"},
        {"a number with a tail", at_32_gib, "06 07abc", "08", "08"},
        {"the highest number there is", at_32_gib, "2147483647", "-2147483648", "-2147483648"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            mount_tmpfs("/data", row.size);
            for (const std::string &name : android::base::Split(row.before, " ")) {
                make_directories(std::string(BASE "/") + name);
                write_file(std::string(BASE "/") + name + "/a file", "x");
            }
            unlink(BASE "/a file");  // of the row without a directory
            EXPECT_EQ(0, config_ramdump_path());
            EXPECT_EQ(std::string(BASE "/") + row.made + "/", ramdump_path);
            EXPECT_STREQ(ramdump_path, permission_path);
            EXPECT_EQ(row.after, android::base::Join(list_directory(BASE), ' '));
        });
    }
}

DEVICE_TEST(dump_directory, what_is_in_the_way_stays) {
    mount_tmpfs("/data", "size=32G");
    make_directories(BASE "/01/full/deeper");
    write_file(BASE "/02", "a plain file");
    chmod("/data", 0700);
    chmod("/data/vendor", 0700);
    EXPECT_EQ(0, config_ramdump_path());
    EXPECT_EQ(
        "E get_directory_total_space: total_space: 34359738368\n"
        "E path: /data/vendor/ramdump/apq/03/\n"
        "E permission_path: /data/vendor/ramdump/apq/03/\n"
        "I _chmod: path: /data/vendor/ramdump/apq/03.\n"
        "I _chmod: chmod for /data/vendor/ramdump/apq/03/..\n"
        "I _chmod: chmod for /data/vendor/ramdump/apq/03/...\n"
        "I _remove: path: /data/vendor/ramdump/apq/01.\n"
        "I _remove: remove for /data/vendor/ramdump/apq/01/full.\n"
        "I _remove: fail to remove for /data/vendor/ramdump/apq/01/full: Directory not empty.\n"
        "I config_ramdump_path(): rmdir /data/vendor/ramdump/apq/01 failed! error: "
        "Directory not empty\n"
        "I _remove: path: /data/vendor/ramdump/apq/02 cannot be accessed, ignore.\n"
        "I config_ramdump_path(): rmdir /data/vendor/ramdump/apq/02 failed! error: "
        "Not a directory\n",
        take_log());
    EXPECT_EQ("01 02 03", android::base::Join(list_directory(BASE), ' '));
    // Everybody gets in, as far as the tool has a say.
    for (const char *path : {"/data/vendor", "/data/vendor/ramdump", BASE, BASE "/03"}) {
        EXPECT_EQ(0777U, mode_of(path)) << path;
    }
    EXPECT_EQ(0700U, mode_of("/data"));
    EXPECT_EQ(0755U, mode_of(BASE "/01/full"));
}

DEVICE_TEST(permissions, one_level) {
    write_file("/data/top/dump/sub/inner", "");
    write_file("/data/top/dump/a", "");
    chmod("/data/top", 0700);
    chmod("/data/top/dump", 0700);
    _chmod("/data/top/dump");
    for (const char *opened :
         {"/data/top", "/data/top/dump", "/data/top/dump/a", "/data/top/dump/sub"}) {
        EXPECT_EQ(0777U, mode_of(opened)) << opened;
    }
    EXPECT_EQ(0644U, mode_of("/data/top/dump/sub/inner"));
    EXPECT_EQ(0755U, mode_of("/data"));
}

DEVICE_TEST(permissions, what_cannot_be_opened_up) {
    write_file("/data/file", "");
    symlink("nowhere", "/data/link");
    _chmod("/data/file");
    _chmod(("/" + std::string(5000, 'x')).c_str());
    EXPECT_EQ(
        "I _chmod: path: /data/file cannot be accessed, ignore.\n"
        "I _chmod: path: /" +
            std::string(4095, 'x') + " cannot be accessed, ignore.\n",
        take_log());
    _chmod("/data");
    EXPECT_NE(
        std::string::npos,
        take_log().find("I _chmod: chmod for /data/link.\n"
                        "I _chmod: fail to chmod for /data/link: No such file or directory.\n"));
}
