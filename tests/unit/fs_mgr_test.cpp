// The fstab loader, the lookup in its table and the boot configuration, from real files under the
// test's own root.
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gmock/gmock.h>
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
    set_property("ro.boot.slot_suffix", "_b");
    take_log();
    return fs_mgr_read_fstab(fstab_path);
}

static std::string describe(const struct fstab_rec &rec) {
    std::string text =
        android::base::StringPrintf("%s %s %s %lx %x", rec.blk_device, rec.mount_point, rec.fs_type,
                                    rec.mount_flags, rec.fs_mgr_flags);
    for (const char *value :
         {rec.fs_options, rec.key_loc, rec.key_dir, rec.verity_loc, rec.label, rec.sysfs_path}) {
        text += value != nullptr ? std::string(" '") + value + "'" : " -";
    }
    const std::vector<int64_t> numbers = {fs_mgr_is_encryptable(&rec),
                                          rec.length,
                                          rec.partnum,
                                          rec.swap_prio,
                                          rec.max_comp_streams,
                                          rec.zram_size,
                                          static_cast<int64_t>(rec.reserved_size),
                                          rec.file_contents_mode,
                                          rec.file_names_mode,
                                          rec.erase_blk_size,
                                          rec.logical_blk_size};
    return text + " " + android::base::Join(numbers, ' ');
}

TEST(fs_mgr_fstab, columns) {
    const std::string x_1022(1022, 'x');
    const auto memory = static_cast<uint32_t>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE));
    const std::string no_values = " - - - - - 0 0 -1 -1 0 0 0 0 0 0 0";
    const struct {
        std::string columns;
        std::string record;
        std::string log;
    } rows[] = {
        {"nosuid,nodev,noatime,barrier=1,discard wait", "406 1 'barrier=1,discard'" + no_values,
         ""},
        // A name that begins with a row's name is that row.
        {"rootcontext=u:r:t,record,binder,,privateer,Ro avb=vbmeta",
         "45001 2000000 'Ro'" + no_values, ""},
        {"defaults,x check,slotselected_not,verifyatboot=/x", "0 88002 'x'" + no_values, ""},
        {"noexec,nodiratime,remount,unbindable,slave,shared nonremovable,recoveryonly,noemulatedsd,"
         "notrim,formattable,nofail,latemount,quota,wrappedkey",
         "1a0828 10465848 -" + no_values, ""},
        {"ro forceencrypt=/a", "1 400 - '/a' - - - - 1024 0 -1 -1 0 0 0 0 0 0 0", ""},
        {"rw encryptable=/a", "0 4 - '/a' - - - - 4 0 -1 -1 0 0 0 0 0 0 0", ""},
        // 1023 characters of unknown options are kept: with the last comma, or with one more
        // character in its place, which goes instead of it.
        {x_1022 + " wait", "0 1 '" + x_1022 + "'" + no_values, ""},
        {x_1022 + "y,y,ro wait", "1 1 '" + x_1022 + "'" + no_values, ""},
        {"rw forcefdeorfbe=footer,keydirectory=/k,verifyx=/v=1,voldmanaged=sdcard1:auto,"
         "length=-0x10,swapprio=010,max_comp_streams=0x100000002,zramsize=4294967297,"
         "reservedsize=010k,eraseblk=0x20000,eraseblk=1,logicalblk=12288,sysfs_path=/s",
         "0 db103b0 - 'footer' '/k' '/v=1' 'sdcard1' '/s' 65536 -16 -1 8 2 1 10240 1 3 131072 0",
         ""},
        {"rw bogus=1,fileencryption=ice,voldmanaged=x:0x100000003,reservedsize=5g7,zramsize=100%,"
         "length=99999999999999999999",
         "0 202130 - - - - 'x' - 0 9223372036854775807 3 -1 0 " + std::to_string(memory) +
             " 5368709120 2 3 0 0",
         "E [libfs_mgr]Warning: unknown flag bogus=1\n"},
        {"rw voldmanaged=a,fileencryption=b:c", "0 2010 -" + no_values,
         "E [libfs_mgr]Warning: voldmanaged= flag malformed\n"
         "E [libfs_mgr]Unknown file contents encryption mode: b\n"
         "E [libfs_mgr]Unknown file names encryption mode: c\n"},
        {"rw fileencryption=aes-256-xts:aes-256-heh,reservedsize=0x10,logicalblk=4096",
         "0 1202000 - - - - - - 0 0 -1 -1 0 0 0 1 4 0 4096", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.columns);
        struct fstab *table = load("dev /mnt ext4 " + row.columns + "\n");
        ASSERT_NE(nullptr, table);
        EXPECT_THAT(describe(table->recs[0]), testing::EndsWith(" /mnt ext4 " + row.record));
        EXPECT_EQ(row.log, take_log());
        free(table->recs[0].verity_loc);  // outlives the table
        fs_mgr_free_fstab(table);
    }
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
        "# comment\n \t # comment\n\n \v\f\r\n\t/dev/a  /dat\t \text4 ro sysfs_path=/s\r\n"
        "/dev/b#1 /data f2fs x check # wait\n"
        "\r/dev/c /data/vendor vfat rw wait,slotselect");
    ASSERT_NE(nullptr, table);
    ASSERT_EQ(3, table->num_entries);
    EXPECT_EQ("/dev/a /dat ext4 1 8000000 - - - - - '/s\r' 0 0 -1 -1 0 0 0 0 0 0 0",
              describe(table->recs[0]));
    EXPECT_EQ("/dev/b#1 /data f2fs 0 2 'x' - - - - - 0 0 -1 -1 0 0 0 0 0 0 0",
              describe(table->recs[1]));
    EXPECT_STREQ("\r/dev/c_b", table->recs[2].blk_device);
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
