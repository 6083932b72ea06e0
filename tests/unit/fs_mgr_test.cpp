// The fstab loader, the lookup in its table and the boot configuration, from real files under the
// test's own root.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "chain/block_device_lookup.h"
#include "fs_mgr/fs_mgr_boot_config.h"
#include "fs_mgr/fs_mgr_flags.h"
#include "fs_mgr/fs_mgr_fstab.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

static const char fstab_path[] = "/fstab.test";

static struct fstab *load(const std::string &text) {
    write_file(fstab_path, text);
    take_log();
    return fs_mgr_read_fstab(fstab_path);
}

TEST(fs_mgr_fstab, flags_and_mount_options) {
    const std::string x_1022(1022, 'x');
    const struct {
        std::string columns;
        uint64_t mount_flags;
        int32_t fs_mgr_flags;
        std::string fs_options;
    } rows[] = {
        {"nosuid,nodev,noatime,barrier=1,discard wait", 0x406, 1, "barrier=1,discard"},
        // A name that begins with a row's name is that row.
        {"rootcontext=u:r:t,record,binder,,privateer,Ro avb=vbmeta", 0x45001, 0x2000000, "Ro"},
        {"defaults,x check,slotselected_not,verifyatboot=/x", 0, 0x88002, "x"},
        {"x forceencrypt=/a", 0, 0x400, "x"},
        // 1023 characters of unknown options are kept: with the last comma, or with one more
        // character in its place, which goes instead of it.
        {x_1022 + " wait", 0, 1, x_1022},
        {x_1022 + "y,y,ro wait", 1, 1, x_1022},
    };
    set_property("ro.boot.slot_suffix", "_b");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.columns);
        struct fstab *table = load("dev /mnt ext4 " + row.columns + "\n");
        ASSERT_NE(nullptr, table);
        const struct fstab_rec &rec = table->recs[0];
        EXPECT_EQ(row.mount_flags, rec.mount_flags);
        EXPECT_EQ(row.fs_mgr_flags, rec.fs_mgr_flags);
        EXPECT_EQ(row.fs_mgr_flags & 0x10404, fs_mgr_is_encryptable(&rec));
        EXPECT_EQ(row.fs_options, rec.fs_options);
        fs_mgr_free_fstab(table);
    }
    set_property("ro.boot.slot_suffix", "");
}

TEST(fs_mgr_fstab, values) {
    struct fstab *table = load(
        "d / ext4 ro forcefdeorfbe=footer,keydirectory=/k,verifyx=/v=1,voldmanaged=sdcard1:auto,"
        "length=-0x10,swapprio=010,max_comp_streams=0x100000002,zramsize=4294967297,"
        "reservedsize=010k,eraseblk=0x20000,eraseblk=1,logicalblk=12288,sysfs_path=/s\n"
        "d / ext4 ro "
        "bogus=1,fileencryption=ice,voldmanaged=x:0x100000003,reservedsize=5g7,zramsize=100%,"
        "length=99999999999999999999\n"
        "d / ext4 ro fileencryption=aes-256-xts:aes-256-heh,reservedsize=0x10\n");
    ASSERT_NE(nullptr, table);
    EXPECT_EQ("E [libfs_mgr]Warning: unknown flag bogus=1\n", take_log());
    const struct fstab_rec &full = table->recs[0];
    EXPECT_EQ(0xdb103b0, full.fs_mgr_flags);
    EXPECT_STREQ("footer", full.key_loc);
    EXPECT_STREQ("/k", full.key_dir);
    EXPECT_STREQ("/v=1", full.verity_loc);
    EXPECT_STREQ("sdcard1", full.label);
    EXPECT_EQ(-1, full.partnum);
    EXPECT_EQ(-16, full.length);
    EXPECT_EQ(8, full.swap_prio);
    EXPECT_EQ(2, full.max_comp_streams);
    EXPECT_EQ(1U, full.zram_size);
    EXPECT_EQ(10240U, full.reserved_size);
    EXPECT_EQ(std::pair(1U, 3U), std::pair(full.file_contents_mode, full.file_names_mode));
    EXPECT_EQ(131072U, full.erase_blk_size);
    EXPECT_EQ(0U, full.logical_blk_size);
    EXPECT_STREQ("/s", full.sysfs_path);
    const struct fstab_rec &other = table->recs[1];
    EXPECT_EQ(std::pair(2U, 3U), std::pair(other.file_contents_mode, other.file_names_mode));
    EXPECT_EQ(3, other.partnum);
    EXPECT_EQ(5368709120U, other.reserved_size);
    EXPECT_EQ(INT64_MAX, other.length);
    EXPECT_EQ(static_cast<uint32_t>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE)),
              other.zram_size);
    const struct fstab_rec &last = table->recs[2];
    EXPECT_EQ(std::pair(1U, 4U), std::pair(last.file_contents_mode, last.file_names_mode));
    EXPECT_EQ(0U, last.reserved_size);
    EXPECT_EQ(-1, last.swap_prio);
    free(full.verity_loc);  // outlives the table
    fs_mgr_free_fstab(table);
}

TEST(fs_mgr_fstab, sizes_that_overflow_64_bits_abort) {
    const auto aborts = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(load("dev /mnt ext4 ro reservedsize=17179869184G\n"), aborts, "");
    // In the pages asked for, and then in their bytes.
    EXPECT_EXIT(zram_percentage(100, UINT64_C(1) << 58, 1), aborts, "");
    EXPECT_EXIT(zram_percentage(100, UINT64_C(1) << 52, 4096), aborts, "");
    EXPECT_EQ(4096U, zram_percentage(1, 199, 4096));               // whole pages
    EXPECT_EQ(8192U, zram_percentage(200, (1U << 19) + 1, 4096));  // 4 GiB and two pages
}

// The device on which the map file would be.
static const char *find_device(struct fstab *table) {
    device_fstab = table;
    int encryptable = 0;
    int encrypted = 0;
    return find_block_device("/data/vendor/map", &encryptable, &encrypted);
}

TEST(fs_mgr_fstab, lines) {
    // Comments, blanks, a carriage return that stays, a "#" that is data, text after the fifth
    // field, no newline at the end.
    struct fstab *table = load(
        "# comment\n \t # comment\n\n \v\f\r\n\t/dev/a  /a\t \text4 ro sysfs_path=/s\r\n"
        "/dev/b#1 /data f2fs x check # wait\n"
        "\r/dev/c /data/vendor vfat rw wait");
    ASSERT_NE(nullptr, table);
    ASSERT_EQ(3, table->num_entries);
    const struct fstab_rec *recs = table->recs;
    EXPECT_STREQ("/dev/a", recs[0].blk_device);
    EXPECT_EQ(nullptr, recs[0].fs_options);
    EXPECT_STREQ("/s\r", recs[0].sysfs_path);
    EXPECT_EQ(2, recs[1].fs_mgr_flags);
    EXPECT_EQ(nullptr, recs[1].sysfs_path);  // nothing left over from the line before
    EXPECT_STREQ("\r/dev/c", recs[2].blk_device);
    EXPECT_STREQ("/dev/b#1", find_device(table));  // the first one, not the deepest
    fs_mgr_free_fstab(table);

    EXPECT_EQ(nullptr, load("/dev/a /a ext4 ro wait\n/dev/b /b ext4\n/dev/c /c ext4 ro wait\n"));
    EXPECT_EQ(
        "E [libfs_mgr]Error parsing mount_flags\n"
        "E [libfs_mgr]fs_mgr_read_fstab(): failed to load fstab from : '/fstab.test'\n",
        take_log());
}

// Takes the place of libc's: what the loader's second pass reads, if it is to differ.
static std::string second_text;

void rewind(FILE *stream) {
    if (!second_text.empty()) {
        write_file(fstab_path, second_text);
    }
    EXPECT_EQ(0, fseek(stream, 0, SEEK_SET));
}

TEST(fs_mgr_fstab, file_changes_between_the_passes) {
    const std::string line = "/dev/a /a ext4 ro wait\n";
    for (const auto &texts : {std::pair(line, line + line), std::pair(line + line, line)}) {
        second_text = texts.second;
        struct fstab *table = load(texts.first);
        second_text.clear();
        ASSERT_NE(nullptr, table);
        const bool grew = texts.first == line;
        EXPECT_EQ(grew ? "E [libfs_mgr]Tried to process more entries than counted\n" : "",
                  take_log());
        ASSERT_EQ(grew ? 1 : 2, table->num_entries);
        EXPECT_EQ(nullptr, find_device(table));  // an entry without a mount point is none
        fs_mgr_free_fstab(table);
    }
}

// The device shows which source wins (tests/device); these are the edges of the text.
DEVICE_TEST(fs_mgr_boot_config, kernel_command_line) {
    write_file("/proc/cmdline",
               "androidboot.key=a=b xandroidboot.key=c androidboot.key androidboot.key=\"d e\"\n");
    std::string value = "from before";
    EXPECT_FALSE(fs_mgr_get_boot_config_from_kernel_cmdline("ke", &value));
    EXPECT_EQ("from before", value);
    EXPECT_TRUE(fs_mgr_get_boot_config_from_kernel_cmdline("key", &value));
    EXPECT_EQ("\"d", value);
}
