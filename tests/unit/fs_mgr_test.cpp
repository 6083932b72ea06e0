// The fstab loader and the boot configuration, from real files under the test's own root.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "fs_mgr/fs_mgr_boot_config.h"
#include "fs_mgr/fs_mgr_flags.h"
#include "fs_mgr/fs_mgr_fstab.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

using std::string_literals::operator""s;

static const char fstab_path[] = "/fstab.test";
static const std::string dt_dir = "/proc/device-tree/firmware/android";

// An entry's optional fields, those that differ from an entry without options, as words.
static std::string describe(const fstab_rec &rec) {
    std::ostringstream out;
    const auto text = [&out](const char *name, const char *value) {
        if (value != nullptr) {
            out << name << "=" << value << " ";
        }
    };
    const auto number = [&out](const char *name, auto value, decltype(value) usual) {
        if (value != usual) {
            out << name << "=" << value << " ";
        }
    };
    text("key_loc", rec.key_loc);
    text("key_dir", rec.key_dir);
    text("verity_loc", rec.verity_loc);
    number("length", rec.length, 0);
    text("label", rec.label);
    number("partnum", rec.partnum, -1);
    number("swap_prio", rec.swap_prio, -1);
    number("max_comp_streams", rec.max_comp_streams, 0);
    number("zram_size", rec.zram_size, 0U);
    number("reserved_size", rec.reserved_size, 0U);
    number("contents", rec.file_contents_mode, 0U);
    number("names", rec.file_names_mode, 0U);
    number("erase_blk_size", rec.erase_blk_size, 0U);
    number("logical_blk_size", rec.logical_blk_size, 0U);
    text("sysfs_path", rec.sysfs_path);
    std::string words = out.str();
    if (!words.empty()) {
        words.pop_back();
    }
    return words;
}

static fstab *load(const std::string &text) {
    write_file(fstab_path, text);
    take_log();
    return fs_mgr_read_fstab(fstab_path);
}

TEST(fs_mgr_fstab, mount_options) {
    const struct {
        std::string options;
        uint64_t flags;
        std::string fs_options;
    } rows[] = {
        {"nosuid,nodev,noatime,barrier=1,discard", 0x406, "barrier=1,discard"},
        {"ro", 0x1, ""},
        {"rootcontext=u:r:t", 0x1, ""},  // a name that begins with a row's name is that row
        {"record,binder,,privateer", 0x45000, ""},
        {"noexec,nodiratime,remount,unbindable,slave,shared,Ro", 0x1a0828, "Ro"},
        // 1023 characters of unknown options are kept: with the last comma, or with one more
        // character in its place, which goes instead of it.
        {std::string(1022, 'x'), 0, std::string(1022, 'x')},
        {std::string(1023, 'x'), 0, std::string(1022, 'x')},
        {std::string(1000, 'x') + "," + std::string(100, 'y') + ",ro", 1,
         std::string(1000, 'x') + "," + std::string(21, 'y')},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.options);
        fstab *table = load("dev /mnt ext4 " + row.options + " wait\n");
        ASSERT_NE(nullptr, table);
        const fstab_rec &rec = table->recs[0];
        EXPECT_EQ(row.flags, rec.mount_flags);
        EXPECT_EQ(row.fs_options.empty(), rec.fs_options == nullptr);
        EXPECT_EQ(row.fs_options, rec.fs_options != nullptr ? rec.fs_options : "");
        EXPECT_EQ("", take_log());
        fs_mgr_free_fstab(table);
    }
}

TEST(fs_mgr_fstab, fs_mgr_options) {
    const struct {
        const char *options;
        int32_t flags;
        const char *values;
        const char *log;
    } rows[] = {
        {"wait,check,slotselected_not,formattable", 0xc003, "", ""},
        {"wrappedkey,nonremovable,recoveryonly,verifyatboot=/x,avb=vbmeta", 0x12080048, "", ""},
        {"noemulatedsd,notrim,nofail,latemount,quota", 0x461800, "", ""},
        {"bogus=1,check", 2, "", "E [libfs_mgr]Warning: unknown flag bogus=1\n"},

        {"forceencrypt=/b", 0x400, "key_loc=/b", ""},
        {"forcefdeorfbe=footer", 0x10000, "key_loc=footer contents=1 names=3", ""},
        {"keydirectory=/k,sysfs_path=/s", 0xc000000, "key_dir=/k sysfs_path=/s", ""},
        {"verify=", 0x200, "verity_loc=", ""},
        {"verifyx=/v=1", 0x200, "verity_loc=/v=1", ""},

        {"fileencryption=ice", 0x2000, "contents=2 names=3", ""},
        {"fileencryption=aes-256-xts:aes-256-heh", 0x2000, "contents=1 names=4", ""},

        {"voldmanaged=sdcard1:auto", 0x10, "label=sdcard1", ""},
        {"voldmanaged=sdcard1:0x100000003", 0x10, "label=sdcard1 partnum=3", ""},

        {"length=99999999999999999999", 0x20, "length=9223372036854775807", ""},
        {"length=-0x10,swapprio=010,max_comp_streams=0x100000002", 0x1000a0,
         "length=-16 swap_prio=8 max_comp_streams=2", ""},

        {"zramsize=4294967297", 0x100, "zram_size=1", ""},
        {"zramsize=0%", 0x100, "", ""},
        {"reservedsize=010k,wait", 0x200001, "reserved_size=10240", ""},
        {"reservedsize=0x10", 0x200000, "", ""},
        {"reservedsize=7 G", 0x200000, "reserved_size=7", ""},
        {"reservedsize=17179869183gB", 0x200000, "reserved_size=18446744072635809792", ""},
        {"eraseblk=2048,logicalblk=12288", 0x1800000, "", ""},
        {"eraseblk=0x20000,eraseblk=1", 0x800000, "erase_blk_size=131072", ""},
    };
    set_property("ro.boot.slot_suffix", "_b");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.options);
        fstab *table = load("dev /mnt ext4 ro " + std::string(row.options) + "\n");
        ASSERT_NE(nullptr, table);
        const fstab_rec &rec = table->recs[0];
        EXPECT_EQ(row.flags, rec.fs_mgr_flags);
        EXPECT_EQ(row.flags & 0x10404, fs_mgr_is_encryptable(&rec));
        EXPECT_EQ(row.values, describe(rec));
        EXPECT_EQ(row.log, take_log());
        free(rec.verity_loc);  // outlives the table
        fs_mgr_free_fstab(table);
    }
}

TEST(fs_mgr_fstab, overflow_aborts) {
    const auto aborts = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(load("dev /mnt ext4 ro reservedsize=-1K\n"), aborts, "");
    // In the pages asked for, and then in their bytes.
    EXPECT_EXIT(zram_percentage(100, UINT64_C(1) << 58, 1), aborts, "");
    EXPECT_EXIT(zram_percentage(100, UINT64_C(1) << 52, 4096), aborts, "");
}

TEST(fs_mgr_fstab, zram_percentage) {
    EXPECT_EQ(2048000000U, zram_percentage(50, 1000000, 4096));
    EXPECT_EQ(4096U, zram_percentage(1, 199, 4096));  // whole pages
    EXPECT_EQ(0U, zram_percentage(100, 1U << 20, 4096));
    EXPECT_EQ(8192U, zram_percentage(200, (1U << 19) + 1, 4096));  // 4 GiB and two pages

    fstab *table = load("dev /mnt ext4 ro zramsize=100%\n");
    ASSERT_NE(nullptr, table);
    const auto memory = sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE);
    EXPECT_EQ(static_cast<uint32_t>(memory), table->recs[0].zram_size);
    fs_mgr_free_fstab(table);
}

TEST(fs_mgr_fstab, lines) {
    // Comments, blanks, a carriage return that stays, a "#" that is data, text after the fifth
    // field, lines of 1 MiB, no newline at the end.
    const std::string mebibyte(1 << 20, 'x');
    fstab *table =
        load("# comment\n \t # comment\n\n \v\f\r\n\t/dev/a  /a\t \text4 ro sysfs_path=/s\r\n#" +
             mebibyte + "\n/dev/b#1 /b f2fs " + mebibyte +
             " check # wait\n"
             "\r/dev/c /c vfat rw wait");
    ASSERT_NE(nullptr, table);
    EXPECT_EQ("", take_log());
    EXPECT_STREQ(fstab_path, table->fstab_filename);
    ASSERT_EQ(3, table->num_entries);
    const fstab_rec *recs = table->recs;
    EXPECT_STREQ("/dev/a", recs[0].blk_device);
    EXPECT_STREQ("/a", recs[0].mount_point);
    EXPECT_STREQ("/s\r", recs[0].sysfs_path);
    EXPECT_STREQ("/dev/b#1", recs[1].blk_device);
    EXPECT_EQ(1022U, strlen(recs[1].fs_options));
    EXPECT_EQ(2, recs[1].fs_mgr_flags);
    EXPECT_EQ("", describe(recs[1]));  // nothing left over from the line before
    EXPECT_STREQ("\r/dev/c", recs[2].blk_device);
    EXPECT_EQ(1, recs[2].fs_mgr_flags);
    fs_mgr_free_fstab(table);
}

TEST(fs_mgr_fstab, one_bad_line_discards_the_table) {
    const struct {
        std::string text;
        const char *log;
    } rows[] = {
        {"\n # /dev/a /a ext4 ro wait\n", "No entries found in fstab"},
        {"\0/dev/a /a ext4 ro wait\n"s, "No entries found in fstab"},
        {"/dev/b /b\n", "Error parsing fs_type"},
        {"/dev/b /b ext4 \n", "Error parsing mount_flags"},
        {"/dev/a /a ext4 x,y wait,sysfs_path=/s\n/dev/b /b ext4 ro\n/dev/c /c ext4 ro wait\n",
         "Error parsing fs_mgr_options"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(nullptr, load(row.text));
        EXPECT_EQ(std::string("E [libfs_mgr]") + row.log +
                      "\nE [libfs_mgr]fs_mgr_read_fstab(): failed to load fstab from : "
                      "'/fstab.test'\n",
                  take_log());
    }
    fs_mgr_free_fstab(nullptr);
}

// A terminal of this process; -1 when the machine gives none.
static int open_terminal() {
    make_directories("/dev/pts");
    if (access("/dev/pts/ptmx", F_OK) == -1 &&
        mount("pts", "/dev/pts", "devpts", 0, "newinstance,ptmxmode=0666") == -1) {
        return -1;
    }
    const int terminal = open("/dev/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC);
    return terminal != -1 && unlockpt(terminal) == 0 ? terminal : -1;
}

// A terminal is a file that changes between the passes: each of them is given a text of its own,
// with the end-of-file character after it.
TEST(fs_mgr_fstab, file_changes_between_the_passes) {
    const struct {
        const char *typed;
        int32_t num_entries;
        const char *log;
    } rows[] = {
        {"/dev/a /a ext4 ro wait\n\x04"
         "/dev/b /b ext4 ro check\n#\n/dev/c /c ext4 ro wait\n\x04",
         1, "E [libfs_mgr]Tried to process more entries than counted\n"},
        {"/dev/a /a ext4 ro wait\n/dev/a /a ext4 ro wait\n\x04"
         "/dev/b /b ext4 ro check\n\x04",
         2, ""},
    };
    for (const auto &row : rows) {
        const android::base::unique_fd terminal(open_terminal());
        if (terminal == -1) {
            GTEST_SKIP() << "no terminal to be had here: " << strerror(errno);
        }
        const std::string name = ptsname(terminal);
        // Held open: a terminal that nobody has open forgets what was typed.
        const android::base::unique_fd held(open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_TRUE(android::base::WriteStringToFd(row.typed, terminal));
        fstab *table = fs_mgr_read_fstab(name.c_str());
        EXPECT_EQ(row.log, take_log());
        ASSERT_NE(nullptr, table);
        ASSERT_EQ(row.num_entries, table->num_entries);
        EXPECT_STREQ("/dev/b", table->recs[0].blk_device);
        EXPECT_TRUE(row.num_entries == 1 || table->recs[1].blk_device == nullptr);
        fs_mgr_free_fstab(table);
    }
}

// The device shows which source wins (tests/device); these are the edges of the text.
TEST(fs_mgr_boot_config, slot_suffix) {
    const std::string compatible = "android,firmware\0"s;
    const std::string slot = "_c\0"s;
    const struct {
        std::string cmdline;
        std::string compatible;
        std::string slot_file;
        bool found;
        std::string suffix;
    } rows[] = {
        {"\tandroidboot.slot_suffix=\"_a b\"\n", compatible, slot, true, "\"_a"},
        {"androidboot.slot_suffix=_a= xandroidboot.slot_suffix=_a androidboot.slot_suffi=_a "
         "androidboot.slot_suffix",
         compatible, slot, true, "_c"},
        {"", compatible, "_c", true, "_"},
        {"", compatible, "\0"s, true, ""},
        {"", compatible, "", false, ""},
        {"", compatible + compatible, slot, false, ""},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.cmdline + "|" + row.compatible + "|" + row.slot_file, [&row] {
            write_file("/proc/cmdline", row.cmdline);
            write_file(dt_dir + "/compatible", row.compatible);
            write_file(dt_dir + "/slot_suffix", row.slot_file);
            std::string value = "from before";
            EXPECT_EQ(row.found, fs_mgr_get_boot_config("slot_suffix", &value));
            EXPECT_EQ(row.suffix, value);

            fstab *table = load(
                "/dev/a /a ext4 ro slotselect\n/dev/b /b ext4 ro wait\n"
                "/dev/c /c ext4 ro slotselect,check\n");
            ASSERT_EQ(row.suffix.empty(), table == nullptr);
            if (table != nullptr) {
                EXPECT_EQ("/dev/a" + row.suffix, table->recs[0].blk_device);
                EXPECT_STREQ("/dev/b", table->recs[1].blk_device);
                EXPECT_EQ("/dev/c" + row.suffix, table->recs[2].blk_device);
            }
            fs_mgr_free_fstab(table);
        });
    }
}

DEVICE_TEST(fs_mgr_boot_config, device_tree_links_are_not_followed) {
    write_file(dt_dir + "/elsewhere", "android,firmware\0"s);
    ASSERT_EQ(0, symlink("elsewhere", (dt_dir + "/compatible").c_str()));
    EXPECT_FALSE(is_dt_compatible());
}

// The directory is settled once in a process, so nothing in this binary may ask for it outside
// on_fresh_device or a DEVICE_TEST.
DEVICE_TEST(fs_mgr_boot_config, moved_device_tree_directory) {
    const std::string moved = "/proc/device-tree/firmware/other";
    write_file("/proc/cmdline", "androidboot.android_dt_dir=" + moved + "\n");
    EXPECT_EQ(moved, get_android_dt_dir());
    write_file("/proc/cmdline", "androidboot.android_dt_dir=/nowhere");
    EXPECT_EQ(moved, get_android_dt_dir());
}
