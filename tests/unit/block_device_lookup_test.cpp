#include <gtest/gtest.h>

#include "chain/block_device_lookup.h"
#include "fs_mgr/fs_mgr_fstab.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

DEVICE_TEST(block_device_lookup, first_entry_that_contains_the_path) {
    const std::string map_path = "/data/vendor/ramdump/ramdump.map";
    const struct {
        const char *name;
        std::vector<const char *> mount_points;  // entry k has the device "k"
        std::string path;
        const char *device;  // null: none
    } rows[] = {
        {"mounted above", {"/data"}, map_path, "0"},
        {"a longer name", {"/data"}, "/database/x", nullptr},
        {"the root holds nothing", {"/"}, map_path, nullptr},
        {"the root holds itself", {"/"}, "/", "0"},
        {"the root holds double slashes", {"/"}, "//data", "0"},
        {"a slash at the end", {"/data/"}, map_path, nullptr},
        {"the first, not the deepest", {"/system", "/data", "/data/vendor"}, map_path, "1"},
        {"an entry without a mount point", {nullptr, "/data"}, map_path, "1"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        char devices[][2] = {"0", "1", "2"};
        std::vector<struct fstab_rec> recs(row.mount_points.size());
        for (size_t i = 0; i < recs.size(); i++) {
            recs[i].blk_device = devices[i];
            recs[i].mount_point = const_cast<char *>(row.mount_points[i]);
        }
        struct fstab table = {static_cast<int32_t>(recs.size()), recs.data(), nullptr};
        device_fstab = &table;
        int encryptable = 7;
        int encrypted = 7;
        const char *found = find_block_device(row.path.c_str(), &encryptable, &encrypted);
        EXPECT_STREQ(row.device, found);
        EXPECT_EQ(row.device == nullptr ? 7 : 0, encryptable);
        EXPECT_EQ(row.device == nullptr ? 7 : 0, encrypted);
    }
    device_fstab = nullptr;
}

DEVICE_TEST(block_device_lookup, encryption) {
    const struct {
        const char *option;
        const char *state;
        int encryptable;
        int encrypted;
    } rows[] = {
        {"wait", "encrypted", 0, 0},
        {"forceencrypt=footer", "encrypted", 1, 1},
        {"forcefdeorfbe=footer", "encrypted ", 1, 0},
        {"encryptable=footer", "unencrypted", 1, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.option) + ", " + row.state);
        write_file("/fstab.test", std::string("dev /data ext4 defaults ") + row.option);
        set_property("ro.crypto.state", row.state);
        device_fstab = fs_mgr_read_fstab("/fstab.test");
        int encryptable = 7;
        int encrypted = 7;
        EXPECT_STREQ("dev", find_block_device("/data/x", &encryptable, &encrypted));
        EXPECT_EQ(row.encryptable, encryptable);
        EXPECT_EQ(row.encrypted, encrypted);
        fs_mgr_free_fstab(device_fstab);
    }
    device_fstab = nullptr;
}
