#include "extract/dump_directory.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/files.h"
#include "tests/support/platform.h"

#define BASE "/data/vendor/ramdump/apq"

TEST(dump_directory, rotation) {
    const char *at_32_gib = "size=34359738368";
    const char *above_32_gib = "size=34359742464";
    const struct {
        const char *name;
        const char *size;
        const char *before;  // files
        const char *made;
        const char *after;
    } rows[] = {
        {"names with a dot do not count", at_32_gib, ".07/x", "00", ".07 00"},
        {"one stays at 32 GiB", at_32_gib, "00/x 06/x 07abc/x", "08", "08"},
        {"two stay above, by number and not by text", above_32_gib, "100/x 99/x abc/x", "101",
         "100 101"},
        {"the highest number there is", at_32_gib, "2147483647/x", "-2147483648", "-2147483648"},
        {"what is in the way stays", at_32_gib, "00/x 01/full/x 02", "03", "01 02 03"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            mount_tmpfs("/data", row.size);
            for (const std::string &file : android::base::Split(row.before, " ")) {
                write_file(BASE "/" + file, "x");
            }
            const std::string made = std::string(BASE "/") + row.made + "/";
            const std::vector<std::string> above = {"/data", "/data/vendor", BASE};
            for (const std::string &path : above) {
                must(chmod(path.c_str(), 0700) == 0, path);
            }
            EXPECT_EQ(0, config_ramdump_path());
            EXPECT_EQ(made, ramdump_path);
            EXPECT_STREQ(ramdump_path, permission_path);
            EXPECT_EQ(row.after, android::base::Join(list_directory(BASE), ' '));
            // Everybody gets in, as far as the tool has a say.
            for (const std::string &path : {above[0], above[1], above[2], made}) {
                struct stat found = {};
                must(stat(path.c_str(), &found) == 0, path);
                EXPECT_EQ(path == "/data" ? 0700U : 0777U, found.st_mode & 07777) << path;
            }
        });
    }
}
