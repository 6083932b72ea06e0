// Whole runs that meet something: damage, calls that fail, shut gates (tests/device has the rest).
#include <android-base/strings.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chain/chain_crc.h"
#include "chain/chain_writer.h"
#include "chain/format/dump_file_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

#define OUT_PATH "/data/out"

// The driver's main.
int tarnix_main(int argc, char *argv[]);

static const uint32_t seed = 0x12345678;
static const std::vector<uint32_t> blocks = {5, 6, 9, 3};
static const std::string before(5000, 'b');
static const std::string file_data(4084 - 2 * sizeof(struct dump_file_header), 'a');

static int run(const std::string &arguments) {
    std::vector<std::string> words = android::base::Split("tarnix " + arguments, " ");
    std::vector<char *> argv(words.size() + 1);
    for (size_t i = 0; i < words.size(); ++i) {
        argv[i] = &words[i][0];
    }
    return tarnix_main(static_cast<int>(words.size()), argv.data());
}

// The chain's blocks. The dump in them is pending: its first file is OUT_PATH, as the boot side is
// trusted with names; the name of the second ends only with its header, at the end of a block.
static std::vector<std::string> block_contents() {
    const struct dump_file_header file = {dump_file_header_magic, "../../../../out",
                                          file_data.size(), 0};
    const std::vector<std::string> headers = chain_headers(seed, blocks);
    std::vector<std::string> contents = {headers[0] + bytes_of(file) + file_data + "F1Le" +
                                         std::string(20, 'n') + "ssssssssrrrrrrrr"};
    for (size_t i = 1; i < blocks.size(); ++i) {
        contents.push_back(headers[i] + std::string(4084, static_cast<char>('p' + i)));
    }
    return contents;
}

static void prepare_device() {
    set_property("ro.boot.qorramdump", "1");
    set_property("ro.hardware", "virt");
    write_file("/fstab.virt", DEVICE_PATH " /data ext4 noatime wait,check\n");
    write_file(DEVICE_PATH, std::string(16 * block_length, 'd'));
    for (size_t i = 0; i < blocks.size(); ++i) {
        write_file_at(DEVICE_PATH, blocks[i] * block_length, block_contents()[i]);
        platform.fibmap.push_back({static_cast<int>(blocks[i])});
    }
    write_file(MISC_PATH, std::string(8192, 'm'));
    write_file_at(MISC_PATH, 3184, anchor_bytes(5, 4, seed, 3));
    make_map_file(4 * block_length + 4095);
    write_file(OUT_PATH, before);
    leave_free("/dev/block", 4 * block_length);
}

// The `number`-th call fails.
static std::function<void()> fail(const char *call, int number) {
    return [=] { platform.failing[call] = number; };
}

// The file system's answer for a block of the map file.
static std::function<void()> place(size_t index, int block, int error = 0) {
    return [=] { platform.fibmap[index] = {block, error}; };
}

// The RAM, and the bytes that are left for the map file or the dump.
static std::function<void()> room(uint64_t bytes, const char *ram = "4.5") {
    return [=] {
        set_property("ro.boot.ddrsize", ram);
        leave_free("/data", bytes);
    };
}

static std::function<void()> poke(const char *path, uint64_t offset, const std::string &bytes) {
    return [=] { write_file_at(path, offset, bytes); };
}

static std::function<void()> property(const char *name, const char *value) {
    return [=] { set_property(name, value); };
}

// Each call is interrupted once, each transfer comes in pieces, and OUT_PATH is a new file.
static void interrupt() {
    must(unlink(OUT_PATH) == 0, OUT_PATH);
    umask(0);
    platform.calls = 0;
    platform.interrupts = true;
}

// No file gets more: misc has its anchor below, OUT_PATH is as large at the most, the dump's second
// file, which the C library writes in pieces of 4096 bytes, is larger.
static void limit_files() {
    const struct rlimit limit = {4090, 4090};
    must(signal(SIGXFSZ, SIG_IGN) != SIG_ERR && setrlimit(RLIMIT_FSIZE, &limit) == 0, "a limit");
}

#define WALK "-t " MAP_PATH
#define COPY "-r " OUT_PATH " " MAP_PATH
#define BUILD "-i 87654321 -a 20479 "
#define NEW "/data/new"
#define EXTRACT "-s " MAP_PATH
#define FIRST_HEADER "I first block_header = {magic=0x6e684342, next_block=0x6, crc32=0x36ba5b6c}\n"
#define OPENED "I Opened " OUT_PATH " for writing\n"
#define NOT_CREATED "E create_file failed\n"
#define REFUSED(size) "requested size: " #size "\n" NOT_CREATED

TEST(driver, runs_that_meet_something) {
    const std::vector<std::string> contents = block_contents();
    const std::string cleared(24, '\0');
    const std::string extracted = anchor_bytes(5, 4, seed, 1);
    const std::string gone = "(cannot be read)";
    const std::string whole = android::base::Join(contents, "");
    const std::string rebuilt = anchor_bytes(5, 4, 0x87654321, 1);
    const struct {
        const char *name;
        const char *arguments;
        std::function<void()> disturb;
        int status;
        testing::Matcher<std::string> log;
        std::string out = before;  // OUT_PATH afterwards
        std::string anchor = {};   // afterwards; empty: as before
        const char *written = "";  // numbers of the headers that a build leaves on the device
        mode_t mode = 0100644;     // OUT_PATH's afterwards; 0: it is not there
        int calls = 0;             // that go through, where each is interrupted
        int open_flags = 0;        // of the block device then
    } rows[] = {
        {"walk, interrupted", WALK, interrupt, 0,
         EndsWith(FIRST_HEADER "I Read 4 blocks successfully\n"), gone, "", "", 0, 3,
         O_RDONLY | O_SYNC},
        {"copy, interrupted", COPY, interrupt, 0, EndsWith("I Success\n"), whole, "", "", 0100666,
         10, O_RDONLY | O_SYNC},
        {"build, interrupted", BUILD OUT_PATH, interrupt, 0, EndsWith("I Success\n"),
         std::string(20479, '\xFF'), rebuilt, "0123", 0100660, 11, O_WRONLY},
        {"extraction, interrupted", EXTRACT, interrupt, 0, EndsWith("I Success\n"), file_data,
         extracted, "", 0100666, 10, O_RDONLY | O_SYNC},
        // The second damage goes unreported.
        {"walk, two CRCs", WALK,
         [] {
             write_file_at(DEVICE_PATH, 6 * block_length + 8, "1234");
             write_file_at(DEVICE_PATH, 3 * block_length + 8, "1234");
         },
         0,
         EndsWith(FIRST_HEADER "E CRC32 mismatch at block 6, got 34333231, expecting 33656626\n"
                               "I Read 4 blocks successfully\n"
                               "W Integrity of chain not verified due to CRC mismatch\n")},
        {"walk, a bad magic", WALK, poke(DEVICE_PATH, 9 * block_length, "gone"), -ENOENT,
         EndsWith(FIRST_HEADER "E Bad magic at block 9, got 656e6f67\n")},
        {"walk, no place for the first block", WALK, place(0, 7, EPERM), 0,
         HasSubstr("E Failed to get block 0 for file " MAP_PATH ": Operation not permitted\n")},
        {"walk, no anchor", WALK, poke(MISC_PATH, 3184, cleared), 0,
         AllOf(HasSubstr("I initial_block_header.magic        = 0\n"),
               EndsWith(" for reading\nI Read 0 blocks successfully\n"))},
        // By the anchor that the run found, which is not on the disk any more.
        {"walk, a new map", "-t " BUILD NEW, room(20480), 0,
         EndsWith(FIRST_HEADER "I Read 4 blocks successfully\n"), before, cleared},
        {"walk, no map", WALK, fail("open", 1), -1,
         EndsWith("E failed to open " MAP_PATH " for reading: Input/output error\n")},
        {"walk, no device", WALK, fail("open", 2), -1,
         EndsWith("E failed to open blk_dev:" DEVICE_PATH " for reading: Input/output error\n")},
        {"walk, a seek fails", WALK, fail("lseek", 2), -1,
         EndsWith(FIRST_HEADER "E error seeking to block 00000006: Input/output error\n")},
        {"walk, a read fails", WALK, fail("read", 2), -1,
         EndsWith(FIRST_HEADER "E error reading: Input/output error\n")},
        {"copy before extraction, by a link", "-s -r " OUT_PATH " /vendor/link",
         [] { must(symlink(MAP_PATH, "/vendor/link") == 0, "/vendor/link"); }, 0,
         EndsWith(")\nP debug.qor.tarnix=reversing\nI Opened " DEVICE_PATH
                  " for reading\nI raw_read_blocks: 4 avail, 4 blocks needed\n" OPENED
                  "I Success\n"),
         whole},
        {"copy, more room than the map has blocks", COPY,
         [] { leave_free("/dev/block", 5 * block_length); }, -ESRCH,
         EndsWith("E raw_read_blocks: Not enough space available to write ramdump 5 avail, "
                  "need 4 blocks\n")},
        {"copy, no map", COPY, fail("open", 1), -1,
         EndsWith("E failed to open infile:" MAP_PATH " for reading: Input/output error\n")},
        {"copy, no device", COPY, fail("open", 2), -1,
         EndsWith("E failed to open blk_dev:" DEVICE_PATH " for reading: Input/output error\n")},
        {"copy, no place for the file", COPY, fail("open", 3), -1,
         EndsWith("E failed to open outfile:" OUT_PATH " for writing: Input/output error\n")},
        {"copy, a hole", COPY, place(1, 0), 0, EndsWith(OPENED "I Success\n"),
         contents[0] + std::string(block_length, 'd') + contents[2] + contents[3]},
        {"copy, no place for a block", COPY, place(1, 7, EIO), -1,
         EndsWith(OPENED "E failed to find block 1\n"), contents[0]},
        {"copy, a seek fails", COPY, fail("lseek", 2), -1,
         EndsWith(OPENED "E error seeking to block 00000006: Input/output error\n"), contents[0]},
        {"copy, a write fails", COPY, fail("write", 2), -1,
         EndsWith(OPENED "E error writing: Input/output error\n"), contents[0]},
        {"build, no right to create", BUILD NEW, fail("open", 1), -1,
         EndsWith("E failed to open file:" NEW " for writing: Input/output error\n" NOT_CREATED)},
        {"build, no map", BUILD NEW, fail("open", 2), -1,
         EndsWith("E failed to open fd for reading: Input/output error\n"), before, cleared},
        {"build, no device", BUILD NEW, fail("open", 3), -1,
         EndsWith("I  file size: 20479 bytes, 4 full blocks available\n"
                  "E failed to open blk_dev for writing: Input/output error\n"),
         before, cleared},
        {"build, a hole", BUILD NEW, place(2, 0), -1,
         EndsWith("}<no line end>\nE refusing to write to block 0\n"), before, cleared, "0"},
        {"build, no place for a block", BUILD NEW, place(2, 7, EIO), -1,
         EndsWith("E failed to find block 2\n"), before, cleared, "0"},
        {"build, no place, and block 0", BUILD NEW, place(2, 0, EIO), -1,
         EndsWith("E refusing to write to block 0\n"), before, cleared, "0"},
        {"build, no place for the first block", BUILD NEW, place(0, 7, EIO), -1,
         EndsWith("E failed to find block 0\n"), before, cleared},
        {"build, the first block is a hole", BUILD NEW, place(0, 0), -1,
         EndsWith("for writing\nE refusing to write to block 0\n"), before, cleared},
        {"build, the last seek fails", BUILD NEW, fail("lseek", 4), 0,
         HasSubstr("E error seeking to block 00000003: Input/output error\n"), before, rebuilt,
         "012"},
        // The first write fills the map file.
        {"build, a header's write fails", BUILD NEW, fail("write", 3), 0,
         HasSubstr("E error writing: Input/output error\n"), before, rebuilt, "023"},
        {"gate, security on", "-x", property("ro.sf", "1"), 0,
         "I tarnix_v3 start!!\nI security on, exit\n"},
        {"gate, no radio flag", "-x", property("ro.boot.qorramdump", ""), 0,
         EndsWith("jobs\nE fail to get ro.boot.qorramdump, exit\n")},
        {"gate, another radio flag", "-x", property("ro.boot.qorramdump", "1 "), 0,
         EndsWith("jobs\nE ro.boot.qorramdump (radio flag) is not enabled, exit\n")},
        {"no path", "-p", [] { must(unlink(MAP_PATH) == 0, MAP_PATH); }, 1,
         EndsWith("I converting it.\nI input_path set to " MAP_PATH
                  "\nE failed to convert " MAP_PATH
                  " to absolute path: No such file or directory<no line end>\n")},
        {"no hardware", MAP_PATH, property("ro.hardware", ""), 1,
         EndsWith("E failed to get ro.hardware\nE failed to get ro.hardware\n")},
        {"second fstab, an encrypted disk", MAP_PATH,
         [] {
             set_property("ro.crypto.state", "encrypted");
             write_file("/fstab.virt", "dev\n");
             write_file("/vendor/etc/fstab.virt", DEVICE_PATH " /data ext4 ro encryptable=x\n");
         },
         0,
         HasSubstr("E [libfs_mgr]Error parsing mount_point\n"
                   "E [libfs_mgr]fs_mgr_read_fstab(): failed to load fstab from : '/fstab.virt'\n"
                   "E failed to read /fstab.virt\nI   block dev: " DEVICE_PATH
                   "\nI encryptable: yes\nI   encrypted: yes\n")},
        // Wherever the file goes, the space is the data partition's.
        {"map, all the space", "-a 1048576 -p /vendor/map", room(1048576), 1,
         EndsWith("I Creating reserved area 1048576 bytes\nI 0/16\nI 16/16\n"
                  "E start to clear init header!!\nP persist.vendor.tarnix.map=invalid\n"
                  "E clear init header ok!!\nE failed to find block device for /vendor/map"
                  "<no line end>\n"),
         before, cleared},
        {"map, a byte too many", "-a 1048577 /vendor/map", room(1048576), -1,
         EndsWith("E create_file: Not enough space available to create ramdump file: /vendor/map, "
                  "avail space: 1048576, " REFUSED(1048577))},
        {"map, no size", "-a /size " OUT_PATH, poke(MISC_PATH, 3184, cleared), -1,
         EndsWith("E auto create is not supported yet!!\n" NOT_CREATED), ""},
        {"map, half a GiB", "-s /none", room(4096, "4.5"), -1, EndsWith(REFUSED(5905580032))},
        {"map, one digit", "-s /none", room(4096, "12"), -1, EndsWith(REFUSED(2147483648))},
        {"map, no RAM size", "-p -s /none", room(4096, ""), -1, EndsWith(REFUSED(1073741823))},
        {"map, no digit", "-s /none", room(4096, "\xff"), -1, EndsWith(REFUSED(223338299392))},
        {"map, -c before", "-c 9000000000 -s /none", room(4096), -1, EndsWith(REFUSED(5905580032))},
        {"map, -a behind", "-s -a 0009000000001k /none", room(4096), -1,
         EndsWith(REFUSED(9000000001))},
        {"map, the rest fails", "-a 65537 " OUT_PATH,
         [] {
             must(unlink(OUT_PATH) == 0, OUT_PATH);
             platform.failing["write"] = 2;
         },
         -1, EndsWith("E error writing: Input/output error\n" NOT_CREATED),
         std::string(65536, '\xFF'), "", "", 0100640},
        {"flags that are no dump", EXTRACT, poke(MISC_PATH, 3204, "\xfd\xff\xff\xff"), 0,
         EndsWith(")\nE main: No ramdump for reading (flag = 0xfffffffd)\nI Success\n")},
        // The RAM and 256 MiB.
        {"extraction, just the space", EXTRACT, room(0x130000000), 0,
         HasSubstr("E full path: /data/vendor/ramdump/apq/00/../../../../out\n"
                   "E Found file 'nnnnnnnnnnnnnnnnnnnnssssssssrrrrrrrr', size 8319119876378817395\n"
                   "E full path: /data/vendor/ramdump/apq/00/nnnnnnnnnnnnnnnnnnnnssssssssrrrrrrr\n"
                   "E main: grant permission"),
         file_data, extracted},
        {"extraction, a read fails", EXTRACT, fail("read", 1), -1,
         EndsWith("E error reading: Input/output error\nE main: parsing error\n")},
        {"build, misc cannot be read, a dump pending", BUILD MAP_PATH,
         [] { must(truncate(MISC_PATH, 3184) == 0, MISC_PATH); }, 0,
         HasSubstr("E no valid map file is found (magic: 0x0): " MAP_PATH), before, rebuilt,
         "0123"},
        {"extraction, no room before a file's end", EXTRACT, limit_files, 0,
         HasSubstr("I Could not write 4084 bytes<no line end>\nE main: grant permission"),
         file_data, extracted},
        {"extraction, a block less", EXTRACT, room(0x130000000 - block_length), -1,
         EndsWith("requested size: 5100273664\nE main: parsing error\n")},
    };
    const std::vector<std::string> headers = chain_headers(0x87654321, blocks);
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&] {
            prepare_device();
            row.disturb();
            std::string device = read_file(DEVICE_PATH);
            std::string misc = read_file(MISC_PATH);
            EXPECT_EQ(row.status, run(row.arguments));
            EXPECT_THAT(take_log(), row.log);
            EXPECT_TRUE(read_file(OUT_PATH) == row.out);
            struct stat made = {};
            (void)stat(OUT_PATH, &made);
            EXPECT_EQ(row.mode, made.st_mode);
            EXPECT_TRUE(read_file(MISC_PATH) == misc.replace(3184, row.anchor.size(), row.anchor));
            for (const char number : std::string(row.written)) {
                const auto i = static_cast<size_t>(number - '0');
                device.replace(blocks[i] * block_length, headers[i].size(), headers[i]);
            }
            EXPECT_TRUE(read_file(DEVICE_PATH) == device);
            if (platform.interrupts) {
                EXPECT_EQ(row.calls, platform.calls);
                EXPECT_EQ(row.open_flags, platform.open_flags[DEVICE_PATH]);
            }
        });
    }
}

DEVICE_TEST(driver, numbers_of_blocks_beyond_31_bits) {
    prepare_device();
    const std::string device = read_file(DEVICE_PATH);
    make_map_file(block_length << 32);
    EXPECT_EQ(-1, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_TRUE(read_file(DEVICE_PATH) == device);
    // Negative in 32 bits: a chain of one block.
    make_map_file(block_length << 31);
    chain_crc = seed;
    EXPECT_EQ(0, raw_write_blocks(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ(chain_headers(seed, {5})[0], read_file(DEVICE_PATH).substr(5 * block_length, 12));
}

// Scripts match these lines.
DEVICE_TEST(driver, usage) {
    set_property("ro.boot.qorramdump", "1");
    EXPECT_EQ(2, run("-r"));
    EXPECT_THAT(take_log(), EndsWith(R"(
I usage: tarnix [-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] <block file>
I     -r <out file> read from raw block of <block file> to <out file>
I     -c <size>     also create <block file> of size and convert

I     -t            test block chain integrity
I     -a <in file>  parsing maps to ramdump files
I     -p            print progress
I     -i <crc>      specify initial hex crc value
I Convert between raw blocks and files.  If only <block file> parameter
I is supplied, then just re-write <block file> as raw data.  <block file> must
I exist, otherwise, use the -c option to create the file before
I converting it.
)"));
}
