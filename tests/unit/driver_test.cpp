#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "extract/dump_file_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

// The driver's main.
int tarnix_main(int argc, char *argv[]);

static const uint32_t seed = 0x12345678;
static const char misc_rest[] = "the rest of misc";

// A device whose fstab, properties and partitions are in order, with a map file of two blocks.
static void prepare_device() {
    set_property("ro.boot.qorramdump", "1");
    set_property("ro.hardware", "virt");
    write_file("/fstab.virt", DEVICE_PATH " /data ext4 noatime wait,check\n");
    write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
    write_file(MISC_PATH, std::string(3184 + 24, '\0') + misc_rest);
    make_map_file(2 * block_length);
    platform.fibmap = {{5}, {6}};
    leave_free("/dev/block", 0);
}

static void put_anchor(uint32_t flags) {
    write_file_at(MISC_PATH, 3184, anchor_bytes(5, 2, seed, flags));
}

static std::string misc_with(const std::string &anchor) {
    return std::string(3184, '\0') + anchor + misc_rest;
}

// Puts a chain of two blocks on the device, with a dump of one file in it.
static void put_dump() {
    std::vector<std::string> headers = chain_headers(seed, {5, 6});
    const struct dump_file_header file = {dump_file_header_magic, "DDR.BIN", 5, 0};
    write_file_at(DEVICE_PATH, 5 * block_length, headers[0] + bytes_of(file) + "12345");
    write_file_at(DEVICE_PATH, 5 * block_length + 12 + 45, std::string(40, '\0'));
    write_file_at(DEVICE_PATH, 6 * block_length, headers[1]);
}

static int run(const std::string &arguments) {
    std::vector<std::string> words = android::base::Split("tarnix " + arguments, " ");
    std::vector<char *> argv;
    for (std::string &word : words) {
        if (!word.empty()) {
            argv.push_back(&word[0]);
        }
    }
    int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    return tarnix_main(argc, argv.data());
}

#define START "I tarnix_v3 start!!\nI security off, continue tarnix jobs\n"
#define USAGE                                                                          \
    "I usage: tarnix [-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] <block file>\n"  \
    "I     -r <out file> read from raw block of <block file> to <out file>\n"          \
    "I     -c <size>     also create <block file> of size and convert\n\n"             \
    "I     -t            test block chain integrity\n"                                 \
    "I     -a <in file>  parsing maps to ramdump files\n"                              \
    "I     -p            print progress\n"                                             \
    "I     -i <crc>      specify initial hex crc value\n"                              \
    "I Convert between raw blocks and files.  If only <block file> parameter\n"        \
    "I is supplied, then just re-write <block file> as raw data.  <block file> must\n" \
    "I exist, otherwise, use the -c option to create the file before\n"                \
    "I converting it.\n"
#define FOUND(crc)                           \
    "I   block dev: " DEVICE_PATH            \
    "\n"                                     \
    "I encryptable: no\nI   encrypted: no\n" \
    "I initial CRC: " crc "\n"
#define CHAIN(crc) FOUND(crc) "I initializing block chain (i=" crc ")\n"
#define VALID "E valid map file exists: " MAP_PATH "\n"
#define CREATE(magic) \
    "E no valid map file is found (magic: " magic "): " MAP_PATH ", start create\n"
#define CLEARED                             \
    "E start to clear init header!!\n"      \
    "P persist.vendor.tarnix.map=invalid\n" \
    "E clear init header ok!!\n"
#define FIELDS                                           \
    "I initial_block_header.magic        = 0x72644842\n" \
    "I initial_block_header.first_block  = 0x5\n"        \
    "I initial_block_header.block_length = 0x1000\n"     \
    "I initial_block_header.n_blocks     = 0x2\n"        \
    "I initial_block_header.crc32        = 0x12345678\n" \
    "I initial_block_header.flags        = 0x1\n"

struct driver_row {
    const char *name;
    std::function<void()> prepare;
    std::string arguments;
    int status;
    std::string log;
};

static void expect_runs(const std::vector<driver_row> &rows) {
    for (const driver_row &row : rows) {
        on_fresh_device(row.name, [&row] {
            prepare_device();
            row.prepare();
            EXPECT_EQ(row.status, run(row.arguments));
            EXPECT_EQ(row.log, take_log());
        });
    }
}

static void nothing_more() {
}

TEST(driver, gates_and_options) {
    expect_runs({
        {"security on, before any option", [] { set_property("ro.sf", "1"); }, "-x", 0,
         "I tarnix_v3 start!!\nI security on, exit\n"},
        {"security not quite on", [] { set_property("ro.sf", "1 "); }, "-x", 2, START USAGE},
        {"flag unset", [] { set_property("ro.boot.qorramdump", ""); }, "-x", 0,
         START "E fail to get ro.boot.qorramdump, exit\n"},
        {"flag not quite set", [] { set_property("ro.boot.qorramdump", "1 "); }, "-x", 0,
         START "E ro.boot.qorramdump (radio flag) is not enabled, exit\n"},
        {"unknown option", nothing_more, "-p -b " MAP_PATH, 2, START USAGE},
        {"option without its argument", nothing_more, "-r", 2, START USAGE},
        {"no path", nothing_more, "-i 1", 0,
         START USAGE "I input_path set to " MAP_PATH "\n" CHAIN("00000001") "I Success\n"},
        {"plain", nothing_more, "-i 12345678 " MAP_PATH " ignored", 0,
         START CHAIN("12345678") "I Success\n"},
        {"seed of 33 bits", nothing_more, "-i 1ffffFFFF " MAP_PATH, 0,
         START CHAIN("ffffffff") "I Success\n"},
        {"-c creates nothing", [] { unlink(MAP_PATH); }, "-c 1000 -p " MAP_PATH, 1,
         START "E failed to convert " MAP_PATH
               " to absolute path: No such file or directory<no line end>\n"},
        {"-a with a path", nothing_more, "-a /data/in " MAP_PATH, -1,
         START CREATE("0x0") "E get_directory_available_space: available_space: 1073741824\n"
                             "E auto create is not supported yet!!\nE create_file failed\n"},
    });
}

#define NO_FSTAB(path)                                                           \
    "E [libfs_mgr]fs_mgr_read_fstab(): cannot open file: '" path                 \
    "': No such file or directory\n"                                             \
    "E [libfs_mgr]fs_mgr_read_fstab(): cannot open default file: 'fstab.qcom': " \
    "No such file or directory\n"                                                \
    "E failed to read " path "\n"

TEST(driver, block_device) {
    auto move_fstab = [] {
        write_file("/vendor/etc/fstab.virt", read_file("/fstab.virt"));
        unlink("/fstab.virt");
    };
    auto encrypt = [] {
        write_file("/fstab.virt", "dev /data f2fs ro forceencrypt=footer");
        set_property("ro.crypto.state", "encrypted");
        symlink(MAP_PATH, "/vendor/link");
    };
    expect_runs({
        {"second place", move_fstab, "-i 1 " MAP_PATH, 0,
         START NO_FSTAB("/fstab.virt") CHAIN("00000001") "I Success\n"},
        {"in neither place", [] { unlink("/fstab.virt"); }, MAP_PATH, 1,
         START NO_FSTAB("/fstab.virt") NO_FSTAB("/vendor/etc/fstab.virt")},
        {"no hardware name", [] { set_property("ro.hardware", ""); }, MAP_PATH, 1,
         START "E failed to get ro.hardware\nE failed to get ro.hardware\n"},
        {"not in the fstab", [] { write_file("/vendor/map", ""); }, "/vendor/map", 1,
         START "E failed to find block device for /vendor/map<no line end>\n"},
        {"through a link", encrypt, "-i 1 /vendor/link", 0,
         START "I   block dev: dev\nI encryptable: yes\nI   encrypted: yes\n"
               "I initial CRC: 00000001\nI initializing block chain (i=00000001)\nI Success\n"},
    });
}

TEST(driver, map_size) {
    const struct {
        const char *ddr_size;
        const char *arguments;
        const char *size;
    } rows[] = {
        {"4", "-s", "5368709120"},
        {"4.5", "-s", "5905580032"},
        {"6", "-s", "7516192768"},
        {"8", "-s", "9663676416"},
        {"12", "-s", "2147483648"},
        {"", "-p -s", "1073741823"},
        {"/", "-s", "0"},
        {"4", "-c 9000000000 -s", "5368709120"},
        {"4", "-s -c 9000000000", "9000000000"},
        {"4", "-s -a 0009000000001k", "9000000001"},
    };
    for (const auto &row : rows) {
        on_fresh_device(std::string(row.ddr_size) + row.arguments, [&row] {
            prepare_device();
            set_property("ro.boot.ddrsize", row.ddr_size);
            leave_free("/data", 4096);
            EXPECT_EQ(-1, run(row.arguments));
            std::string log = take_log();
            std::string reason = std::string("requested size: ") + row.size + "\n";
            if (strcmp(row.size, "0") == 0) {
                reason = "auto create is not supported yet!!\n";
            }
            EXPECT_NE(std::string::npos, log.find(reason + "E create_file failed\n")) << log;
        });
    }
}

TEST(driver, build) {
    on_fresh_device("first run", [] {
        prepare_device();
        unlink(MAP_PATH);
        EXPECT_EQ(0, run("-i 12345678 -a 8192 " MAP_PATH));
        EXPECT_EQ(START CREATE("0x0")
            "E get_directory_available_space: available_space: 1073741824\n"
            "I Creating reserved area 8192 bytes\nI 0/0\n" CLEARED CHAIN("12345678")
            "I start to raw_write_blocks\n"
            "I  block size: 4096 bytes\nI  file size: 8192 bytes, 2 full blocks available\n"
            "I Opened " DEVICE_PATH " for writing\n"
            "I first block_header = {magic=0x6e684342, next_block=0x6, crc32=0x36ba5b6c}<no line end>\n"
            "I 2/2\nP persist.vendor.tarnix.map=valid\nI block device: " DEVICE_PATH "\n" FIELDS
            "I Success\n", take_log());
        EXPECT_TRUE(read_file(MISC_PATH) == misc_with(anchor_bytes(5, 2, seed, 1)));
    });
    on_fresh_device("an anchor without a map file, and a chain that cannot be built", [] {
        prepare_device();
        put_anchor(3);
        unlink(MAP_PATH);
        platform.fibmap = {{5}, {0}};
        EXPECT_EQ(-1, run("-i 1 -a 8192 -p " MAP_PATH));
        std::string log = take_log();
        EXPECT_EQ(0U, log.find(START CREATE("0x72644842"))) << log;
        EXPECT_TRUE(android::base::EndsWith(log, "E refusing to write to block 0\n")) << log;
        EXPECT_TRUE(read_file(MISC_PATH) == misc_with(std::string(24, '\0')));
    });
    on_fresh_device("built and copied out in one run", [] {
        prepare_device();
        EXPECT_EQ(0, run("-i 12345678 -a 8192 -r /data/out " MAP_PATH));
        std::vector<std::string> headers = chain_headers(seed, {5, 6});
        EXPECT_TRUE(read_file("/data/out") ==
                    chain_block(headers[0], 'd') + chain_block(headers[1], 'd'));
        EXPECT_TRUE(android::base::EndsWith(
            take_log(),
            FIELDS "P debug.qor.tarnix=reversing\nI Opened " DEVICE_PATH " for reading\n"
                   "I raw_read_blocks: 0 avail, 2 blocks needed\nI Opened /data/out for writing\n"
                   "I Success\n"));
    });
}

#define PARSING(flags) \
    "E main start parsing ramdump (flag = " flags ")\nP debug.qor.tarnix=running\n"
#define NEW_DIRECTORY                                        \
    "E get_directory_total_space: total_space: 1073741824\n" \
    "E path: /data/vendor/ramdump/apq/00/\n"                 \
    "E permission_path: /data/vendor/ramdump/apq/00/\n" OPENED_UP
#define OPENED_UP                                          \
    "I _chmod: path: /data/vendor/ramdump/apq/00.\n"       \
    "I _chmod: chmod for /data/vendor/ramdump/apq/00/..\n" \
    "I _chmod: chmod for /data/vendor/ramdump/apq/00/...\n"
#define READING "I Opened " DEVICE_PATH " for reading\n"

TEST(driver, modes_on_a_valid_map) {
    auto no_base = [] {
        put_anchor(3);
        write_file("/data/vendor/ramdump/apq", "");
    };
    auto no_mapping = [] {
        put_anchor(3);
        platform.fibmap.clear();
    };
    auto pending_empty_map = [] {
        put_anchor(3);
        make_map_file(0);
    };
    auto chain_with_dump = [] {
        put_anchor(1);
        put_dump();
    };
    auto no_map_file = [] {
        put_anchor(1);
        unlink(MAP_PATH);
    };
    expect_runs({
        {"no dump", [] { put_anchor(0xfffffffd); }, "-s -i 1 " MAP_PATH, 0,
         START VALID CHAIN(
             "00000001") "E main: No ramdump for reading (flag = 0xfffffffd)\nI Success\n"},
        {"no directory for the dump", no_base, "-s -i 1 " MAP_PATH, -1,
         START VALID CHAIN("00000001") PARSING(
             "0x3") "E get_directory_total_space: Could not statvfs /data/vendor/ramdump/apq/: "
                    "Not a directory\n"
                    "E get_directory_total_space: total_space: 0\n"
                    "I scandir failed: Not a directory\nE main: config_ramdump_path error\n"},
        {"a map that cannot be mapped", no_mapping, "-s -i 1 " MAP_PATH, -1,
         START VALID CHAIN("00000001") PARSING("0x3") NEW_DIRECTORY READING
         "E get_directory_available_space: available_space: 1073741824\n"
         "E failed to find block 0\nE main: parsing error\n"},
        {"copy that is refused", [] { leave_free("/dev/block", 3 * block_length); },
         "-i 1 -r /data/out " MAP_PATH, -3,
         START CHAIN("00000001") "P debug.qor.tarnix=reversing\n" READING
                                 "I raw_read_blocks: 3 avail, 2 blocks needed\n"
                                 "E raw_read_blocks: Not enough space available to write ramdump 3 "
                                 "avail, need 2 blocks\n"},
        {"copy, and no extraction", pending_empty_map, "-s -i 1 -r /data/out " MAP_PATH, 0,
         START VALID CHAIN("00000001") "P debug.qor.tarnix=reversing\n" READING
                                       "I raw_read_blocks: 0 avail, 0 blocks needed\nI Opened "
                                       "/data/out for writing\n"
                                       "I Success\n"},
        {"test, and nothing else", chain_with_dump, "-t -s -i 7 -r /data/out " MAP_PATH, 0,
         START VALID FOUND("00000007") FIELDS
         "I  block size: 4096 bytes\n" READING
         "I first block_header = {magic=0x6e684342, next_block=0x6, crc32=0x36ba5b6c}\n"
         "I Read 2 blocks successfully\n"},
        // The anchor that was read before the new map file made it void still leads the test.
        {"test beside a new map file", no_map_file, "-t -a 8192 -i 7 " MAP_PATH, -2,
         START CREATE("0x72644842") "E get_directory_available_space: available_space: 1073741824\n"
                                    "I Creating reserved area 8192 bytes\nI 0/0\n" CLEARED FOUND(
                                        "00000007") FIELDS
         "I  block size: 4096 bytes\n" READING "E Bad magic at block 5, got 64646464\n"},
    });
}

// The default map file is taken apart, whatever the command line names.
TEST(driver, extraction) {
    for (const char *map : {MAP_PATH, "/data/another.map"}) {
        on_fresh_device(map, [map] {
            prepare_device();
            put_anchor(0x87);
            put_dump();
            write_file("/data/another.map", "");
            EXPECT_EQ(0, run(std::string("-s -i 1 ") + map));
            EXPECT_EQ(
                android::base::StringPrintf(
                    START "E valid map file exists: %s\n" CHAIN("00000001") PARSING("0x87")
                        NEW_DIRECTORY READING
                    "E get_directory_available_space: available_space: 1073741824\n"
                    "E Found file 'DDR.BIN', size 5\n"
                    "E full path: /data/vendor/ramdump/apq/00/DDR.BIN\n"
                    "E Found file '', size 0\n"
                    "I * bad magic, got 00000000, expecting 654c3146\n"
                    "E main: grant permission to ramdump files: /data/vendor/ramdump/apq/00/, "
                    "%s\n" OPENED_UP "I _chmod: chmod for /data/vendor/ramdump/apq/00/DDR.BIN.\n"
                    "E main: grant permission to ramdump files finished\n"
                    "P debug.qor.tarnix=done\nI Success\n",
                    map, map),
                take_log());
            EXPECT_EQ("12345", read_file("/data/vendor/ramdump/apq/00/DDR.BIN"));
            EXPECT_TRUE(read_file(MISC_PATH) == misc_with(anchor_bytes(5, 2, seed, 1)));
        });
    }
}
