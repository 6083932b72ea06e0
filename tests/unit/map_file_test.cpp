#include <android-base/stringprintf.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chain/map_file.h"
#include "chain/progress.h"
#include "chain/transfer.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

using android::base::StringPrintf;

#define CREATING(size) "I Creating reserved area " size " bytes\n"

DEVICE_TEST(map_file, creation) {
    const uint64_t mib = 1048576;
    const size_t as_before = SIZE_MAX;
    const struct {
        const char *name;
        uint64_t size;
        uint64_t space;  // of the data partition
        call_script writes;
        int result;
        const char *log;  // behind the line of the available space
        size_t left;      // bytes of 0xFF in the file afterwards
    } rows[] = {
        {"a progress line every 256 chunks, and a rest", 16842759, 32 * mib, undisturbed, 0,
         CREATING("16842759") "I 0/257\nI 256/257\nI 257/257\n", 16842759},
        {"all the space", mib, mib, undisturbed, 0, CREATING("1048576") "I 0/16\nI 16/16\n", mib},
        {"one byte more", mib + 1, mib, undisturbed, -1,
         "E create_file: Not enough space available to create ramdump file: " MAP_PATH
         ", avail space: 1048576, requested size: 1048577\n",
         as_before},
        {"interrupted", 65540, mib, interrupted_and_short, 0, CREATING("65540") "I 0/1\nI 1/1\n",
         65540},
        {"a chunk fails", 131072, mib, second_fails, -1,
         CREATING("131072") "I 0/2\nE error writing: Input/output error\n", 65536},
        {"the rest fails", 65537, mib, second_fails, -1,
         CREATING("65537") "I 0/1\nE error writing: Input/output error\n", 65536},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            umask(0);
            write_file("/data/other", "takes a block");
            leave_free("/data", row.space);
            make_map_file(5);
            unlink(row.result == 0 ? MAP_PATH : "");
            platform.writes = row.writes;
            show_progress = 1;
            EXPECT_EQ(row.result, create_file(MAP_PATH, row.size));
            EXPECT_EQ(
                StringPrintf("E get_directory_available_space: available_space: %lu\n", row.space) +
                    row.log,
                take_log());
            bool untouched = row.left == as_before;
            EXPECT_TRUE(read_file(MAP_PATH) ==
                        (untouched ? std::string(5, '\0') : std::string(row.left, '\xFF')));
            struct stat made;
            EXPECT_TRUE(row.result != 0 ||
                        (stat(MAP_PATH, &made) == 0 && made.st_mode == (S_IFREG | 0660)));
        });
    }
}

DEVICE_TEST(map_file, space_that_cannot_be_told) {
    // The space is that of /data/vendor, wherever the file goes.
    EXPECT_EQ(-1, create_file("/vendor/map", 1));
    EXPECT_EQ(
        "E get_directory_available_space: Could not statvfs /data/vendor: No such file or "
        "directory\n"
        "E get_directory_available_space: available_space: 0\n"
        "E create_file: Not enough space available to create ramdump file: /vendor/map, avail "
        "space: 0, requested size: 1\n",
        take_log());
}

DEVICE_TEST(transfer, repeats_until_all_is_done) {
    const call_script no_progress = {{0, 0}, {0, 3}, {0, 0}};
    const call_script no_space_then = {{0, 3}, {ENOSPC}};
    const struct {
        const char *name;
        call_script calls;
        const char *failure;  // null: none
    } rows[] = {
        {"interrupted", interrupted_and_short, nullptr},
        {"no progress for a while", no_progress, nullptr},
        {"failing in the middle", no_space_then, "No space left on device"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            write_file("/data/file", "0123456789");
            int fd = open("/data/file", O_RDWR);
            int result = row.failure == nullptr ? 0 : -1;
            platform.reads = row.calls;
            char buffer[11] = "..........";
            EXPECT_EQ(result, read_retry(fd, buffer, 10));
            lseek(fd, 0, SEEK_SET);
            platform.writes = row.calls;
            EXPECT_EQ(result, write_retry(fd, "abcdefghij", 10));
            EXPECT_EQ(0, read_retry(fd, buffer, 0) + write_retry(fd, buffer, 0));
            if (result == 0) {
                EXPECT_STREQ("0123456789", buffer);
                EXPECT_EQ("abcdefghij", read_file("/data/file"));
                EXPECT_EQ("", take_log());
            } else {
                EXPECT_EQ(StringPrintf("E error reading: %s\nE error writing: %s\n", row.failure,
                                       row.failure),
                          take_log());
            }
            close(fd);
        });
    }
}
