#include "chain/map_file.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

DEVICE_TEST(map_file, creation) {
    const uint64_t space = 1048576;  // of the data partition
    const struct {
        const char *name;
        const char *path;
        uint64_t size;
        call_script writes;
        int result;
        std::string log;  // its end
        size_t left;      // bytes of 0xFF in the file afterwards
    } rows[] = {
        {"all the space", MAP_PATH, space, interrupted_and_short, 0,
         "I Creating reserved area 1048576 bytes\n", space},
        // Wherever the file goes, the space is the data partition's.
        {"a byte too many",
         "/vendor/map",
         space + 1,
         {},
         -1,
         "E create_file: Not enough space available to create ramdump file: /vendor/map, avail "
         "space: 1048576, requested size: 1048577\n",
         0},
        {"the rest fails", MAP_PATH, 65537, second_fails, -1,
         "E error writing: Input/output error\n", 65536},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            write_file("/data/vendor/other", "takes a block");
            write_file("/vendor/map", "");
            make_directories("/data/vendor/ramdump");
            leave_free("/data", space);
            platform.writes = row.writes;
            umask(0);
            EXPECT_EQ(row.result, create_file(row.path, row.size));
            const std::string log = take_log();
            EXPECT_TRUE(android::base::EndsWith(log, row.log)) << log;
            EXPECT_TRUE(read_file(row.path) == std::string(row.left, '\xFF'));
            struct stat made = {};
            EXPECT_EQ(0, stat(row.path, &made));
            EXPECT_EQ(row.left == 0 ? 0100644U : 0100660U, made.st_mode);
        });
    }
}
