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

TEST(map_file, creation) {
    const uint64_t mib = 1048576;
    const struct {
        const char *name;
        uint64_t size;
        uint64_t space;  // of the data partition
        std::deque<scripted_call> writes;
        int result;
        const char *log;  // behind the line of the available space
        size_t left;      // bytes of 0xFF in the file afterwards; old_file: as it was before
    } rows[] = {
        // The check for size 0 comes after the open, which has truncated the old file.
        {"nothing asked for", 0, mib, {}, -1, "E auto create is not supported yet!!\n", 0},
        {"less than a chunk", 7, mib, {}, 0, "I Creating reserved area 7 bytes\nI 0/0\n", 7},
        {"whole chunks",
         131072,
         mib,
         {},
         0,
         "I Creating reserved area 131072 bytes\nI 0/2\nI 2/2\n",
         131072},
        {"chunks and a rest",
         131079,
         mib,
         {},
         0,
         "I Creating reserved area 131079 bytes\nI 0/2\nI 2/2\n",
         131079},
        {"a progress line every 256 chunks",
         257 * 65536,
         32 * mib,
         {},
         0,
         "I Creating reserved area 16842752 bytes\nI 0/257\nI 256/257\nI 257/257\n",
         257 * 65536},
        {"all the space there is",
         mib,
         mib,
         {},
         0,
         "I Creating reserved area 1048576 bytes\nI 0/16\nI 16/16\n",
         mib},
        {"one byte more than there is",
         mib + 1,
         mib,
         {},
         -1,
         "E create_file: Not enough space available to create ramdump file: " MAP_PATH
         ", avail space: 1048576, requested size: 1048577\n",
         SIZE_MAX},
        {"short and interrupted writes",
         65540,
         mib,
         {{0, 100}, {EINTR}, as_usual, {EINTR}, {0, 1}},
         0,
         "I Creating reserved area 65540 bytes\nI 0/1\nI 1/1\n",
         65540},
        {"a chunk cannot be written",
         131072,
         mib,
         {as_usual, {ENOSPC}},
         -1,
         "I Creating reserved area 131072 bytes\nI 0/2\n"
         "E error writing: No space left on device\n",
         65536},
        {"the rest cannot be written",
         65537,
         mib,
         {as_usual, {EIO}},
         -1,
         "I Creating reserved area 65537 bytes\nI 0/1\nE error writing: Input/output error\n",
         65536},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            umask(0);
            mount_tmpfs("/data", StringPrintf("size=%lu", row.space).c_str());
            make_map_file(5);
            unlink(row.result == 0 ? MAP_PATH : "");
            platform.writes = row.writes;
            show_progress = 1;
            EXPECT_EQ(row.result, create_file(MAP_PATH, row.size));
            EXPECT_EQ(
                StringPrintf("E get_directory_available_space: available_space: %lu\n", row.space) +
                    row.log,
                take_log());
            bool untouched = row.left == SIZE_MAX;
            EXPECT_TRUE(read_file(MAP_PATH) ==
                        (untouched ? std::string(5, '\0') : std::string(row.left, '\xFF')));
            struct stat made;
            EXPECT_TRUE(row.result != 0 ||
                        (stat(MAP_PATH, &made) == 0 && made.st_mode == (S_IFREG | 0660)));
        });
    }
}

TEST(map_file, no_place_for_it) {
    // The space is that of /data/vendor, wherever the file goes.
    EXPECT_EQ(-1, create_file("/vendor/map", 1));
    EXPECT_EQ(
        "E get_directory_available_space: Could not statvfs /data/vendor: No such file or "
        "directory\n"
        "E get_directory_available_space: available_space: 0\n"
        "E create_file: Not enough space available to create ramdump file: /vendor/map, avail "
        "space: 0, requested size: 1\n",
        take_log());

    make_directories("/data/vendor");
    leave_free("/data", block_length);
    EXPECT_EQ(-1, create_file("/data/none/map", 1));
    EXPECT_EQ(
        "E get_directory_available_space: available_space: 4096\n"
        "E failed to open file:/data/none/map for writing: No such file or directory\n",
        take_log());

    // Without progress there is only the announcement.
    EXPECT_EQ(0, create_file("/data/vendor/map", 4096));
    EXPECT_EQ(
        "E get_directory_available_space: available_space: 4096\n"
        "I Creating reserved area 4096 bytes\n",
        take_log());
}

TEST(transfer, repeats_until_all_is_done) {
    const struct {
        const char *name;
        std::deque<scripted_call> calls;
        int result;
        const char *reason;
    } rows[] = {
        {"at once", {}, 0, nullptr},
        {"in pieces", {{0, 3}, {0, 1}}, 0, nullptr},
        {"interrupted", {{EINTR}, {0, 3}, {EINTR}, {EINTR}}, 0, nullptr},
        {"no progress for a while", {{0, 0}, {0, 3}, {0, 0}}, 0, nullptr},
        {"failing at once", {{EIO}}, -1, "Input/output error"},
        {"failing in the middle", {{0, 3}, {ENOSPC}}, -1, "No space left on device"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            write_file("/data/file", "0123456789");
            int fd = open("/data/file", O_RDWR);
            platform.reads = row.calls;
            char buffer[11] = "..........";
            EXPECT_EQ(row.result, read_retry(fd, buffer, 10));
            lseek(fd, 0, SEEK_SET);
            platform.writes = row.calls;
            EXPECT_EQ(row.result, write_retry(fd, "abcdefghij", 10));
            EXPECT_EQ(0, read_retry(fd, buffer, 0) + write_retry(fd, buffer, 0));
            if (row.result == 0) {
                EXPECT_STREQ("0123456789", buffer);
                EXPECT_EQ("abcdefghij", read_file("/data/file"));
                EXPECT_EQ("", take_log());
            } else {
                EXPECT_EQ(StringPrintf("E error reading: %s\nE error writing: %s\n", row.reason,
                                       row.reason),
                          take_log());
            }
            close(fd);
        });
    }
}
