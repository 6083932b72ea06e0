// Disks damaged at random, from a seed, through every command of tarnix-chain and through whole
// runs of the tool: none crashes, hangs, or writes where it must not.
//
// Environment: TARNIX_DAMAGE_SEED (1), TARNIX_DAMAGE_FIRST (number of the first disk, 0) and
// TARNIX_DAMAGE_COUNT (200). A failure names seed and disk, which make that disk again.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zlib.h>

#include <random>
#include <set>

#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"
#include "tools/commands.h"

// The driver's main.
int tarnix_main(int argc, char *argv[]);

static const char disk_path[] = "/disk.img";
static const uint32_t crc_seed = 0x12345678;
static const size_t misc_start = 20480, misc_size = 12288, data_start = 32768, data_size = 262144;
static const size_t anchor_at = misc_start + initial_block_header_misc_offset;
static const std::vector<uint32_t> chain = {9,  10, 11, 12, 40, 39, 38, 20, 5,  50, 51, 52,
                                            53, 54, 55, 3,  2,  1,  30, 33, 36, 61, 62, 63};

struct damaged_disk {
    std::string bytes;
    std::string name;
    std::mt19937_64 random;
};

static size_t below(struct damaged_disk *disk, size_t n) {
    return disk->random() % n;
}

// Where one of the chain's blocks begins.
static size_t any_block(struct damaged_disk *disk) {
    return data_start + chain[below(disk, chain.size())] * block_length;
}

static std::string number(struct damaged_disk *disk) {
    const uint32_t edges[] = {0, 1, 63, 64, 0x7fffffff, 0x80000000, 0xffffffff};
    const auto block = static_cast<uint32_t>(below(disk, 64));
    return bytes_of(below(disk, 2) == 0 ? edges[below(disk, 7)] : block);
}

static std::string noise(struct damaged_disk *disk, size_t length) {
    std::string bytes(1 + below(disk, length), '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(disk->random());
    }
    return bytes;
}

static void put(struct damaged_disk *disk, size_t at, const std::string &bytes) {
    if (at + bytes.size() <= disk->bytes.size()) {  // it may have been cut before
        disk->bytes.replace(at, bytes.size(), bytes);
    }
}

static void put_link_with_its_crc(struct damaged_disk *disk) {
    const size_t position = below(disk, chain.size());
    std::vector<uint32_t> blocks(&chain[0], &chain[position] + 1);
    blocks.push_back(chain[below(disk, chain.size())]);
    put(disk, data_start + chain[position] * block_length,
        chain_headers(crc_seed, blocks)[position]);
}

static void put_file_header(struct damaged_disk *disk) {
    const size_t at = disk->bytes.find("F1Le", data_start + below(disk, data_size));
    if (at != std::string::npos) {
        const size_t field = std::vector<size_t>{0, 4, 24, 28}[below(disk, 4)];
        put(disk, at + field, field == 4 ? noise(disk, 20) : number(disk));
    }
}

static std::string crc_of(const struct damaged_disk *disk, size_t at, size_t length) {
    const std::string bytes = disk->bytes.substr(at, length);
    return bytes_of(static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef *>(bytes.data()), static_cast<uInt>(bytes.size()))));
}

// The first or last sector of a partition, with the CRCs of the entries and of the table's header.
static void put_entry_with_crcs(struct damaged_disk *disk) {
    put(disk, 1024 + 128 * below(disk, 2) + 32 + 8 * below(disk, 2), number(disk));
    if (disk->bytes.size() > misc_start) {
        put(disk, 512 + 88, crc_of(disk, 1024, 16384));
        put(disk, 512 + 16, std::string(4, '\0'));
        put(disk, 512 + 16, crc_of(disk, 512, 92));
    }
}

static const struct {
    const char *name;
    void (*damage)(struct damaged_disk *disk);
} kinds[] = {
    {"anchor", [](auto *d) { put(d, anchor_at + 4 * below(d, 6), number(d)); }},
    {"block header", [](auto *d) { put(d, any_block(d) + 4 * below(d, 3), number(d)); }},
    {"link with its CRC", put_link_with_its_crc},
    {"block over another",
     [](auto *d) {
         put(d, any_block(d),
             d->bytes.substr(std::min(any_block(d), d->bytes.size()), block_length));
     }},
    {"file header", put_file_header},
    {"noise", [](auto *d) { put(d, below(d, d->bytes.size()), noise(d, 3000)); }},
    {"zeros",
     [](auto *d) { put(d, below(d, d->bytes.size()), std::string(below(d, 70000), '\0')); }},
    {"cut short", [](auto *d) { d->bytes.resize(1 + below(d, d->bytes.size())); }},
    {"partition table", [](auto *d) { put(d, 512 + below(d, 900), noise(d, 8)); }},
    {"both partition tables",
     [](auto *d) {
         put(d, 512, noise(d, 400));
         put(d, d->bytes.size() - std::min(d->bytes.size(), below(d, 17000)), noise(d, 8));
     }},
    {"partition entry with its CRCs", put_entry_with_crcs},
};
static const size_t kind_count = sizeof(kinds) / sizeof(kinds[0]);

static size_t from_environment(const char *name, size_t otherwise) {
    const char *text = getenv(name);
    return text != nullptr ? strtoul(text, nullptr, 10) : otherwise;
}

// Runs a command of tarnix-chain over the disk as it lies there; its words go nowhere.
static int run_command(bool writable, const std::function<int(struct disk_image *)> &command) {
    static FILE *nowhere = fopen("/dev/null", "w");
    FILE *standard[] = {stdout, stderr};
    stdout = stderr = nowhere;
    std::string error;
    const auto image = open_disk_image({disk_path, "", "", "userdata"}, writable, &error);
    const int status = image == nullptr ? exit_unreadable : command(image.get());
    stdout = standard[0];
    stderr = standard[1];
    return status;
}

// A whole disk with a pending dump of four files.
static std::string sound_disk() {
    write_file(disk_path, std::string(data_start + data_size + 32768, '\0'));
    write_file("/table",
               "label: gpt\nfirst-lba: 34\nstart=40, size=24, name=misc\n"
               "start=64, size=512, name=userdata\n");
    EXPECT_EQ(0, system("/usr/sbin/sfdisk --quiet /disk.img </table"));
    const std::vector<std::string> headers = chain_headers(crc_seed, chain);
    write_file_at(disk_path, anchor_at, anchor_bytes(chain[0], 24, crc_seed, 1));
    for (size_t i = 0; i < chain.size(); ++i) {
        write_file_at(disk_path, data_start + chain[i] * block_length, headers[i]);
    }
    write_file("/small", std::string(5000, 's'));
    write_file("/large", std::string(40000, 'l'));
    EXPECT_EQ(0, run_command(true, [](auto *image) {
                  return write_command(image, {"A=/small", "B=/large", "C=/small"}, false);
              }));
    EXPECT_EQ(0, run_command(false, [](auto *image) { return verify_command(image, false); }));
    return read_file(disk_path);
}

// Calls `body` with each damaged disk, in a process of its own that is not to hang.
static void for_each_disk(size_t count,
                          const std::function<void(const struct damaged_disk &)> &body) {
    const std::string sound = sound_disk();
    const size_t seed = from_environment("TARNIX_DAMAGE_SEED", 1);
    const size_t first = from_environment("TARNIX_DAMAGE_FIRST", 0);
    for (size_t i = first; i < first + count; ++i) {
        struct damaged_disk disk = {sound, "", std::mt19937_64(seed * 1000000 + i)};
        disk.name = "seed " + std::to_string(seed) + ", disk " + std::to_string(i) + ":";
        size_t kind = i % kind_count;
        for (size_t more = 1 + below(&disk, 3); more > 0; --more) {
            disk.name += std::string(" ") + kinds[kind].name;
            kinds[kind].damage(&disk);
            kind = below(&disk, kind_count);
        }
        in_own_process(disk.name, [&] {
            alarm(60);
            body(disk);
        });
    }
}

struct range {
    size_t offset, length;
};

// Whether nothing but the given bytes differs.
static bool differs_only_in(std::string before, const std::string &after,
                            const std::vector<struct range> &allowed) {
    for (const struct range &bytes : allowed) {
        before.replace(bytes.offset, bytes.length, after, bytes.offset, bytes.length);
    }
    return before == after;
}

TEST(damaged_disks, are_safe_with_tarnix_chain) {
    static const struct pull_options keep = {"/data/out", false, false, false};
    static const struct pull_options replace = {"/data/out", true, true, true};
    static const struct {
        const char *name;
        bool writes;
        int (*run)(struct disk_image *image);
    } commands[] = {
        {"status", false, [](auto *image) { return status_command(image, false); }},
        {"status --json", false, [](auto *image) { return status_command(image, true); }},
        {"verify", false, [](auto *image) { return verify_command(image, false); }},
        {"map", false, [](auto *image) { return map_command(image, false); }},
        {"map --json", false, [](auto *image) { return map_command(image, true); }},
        {"pull", false, [](auto *image) { return pull_command(image, keep); }},
        {"pull --force --json", false, [](auto *image) { return pull_command(image, replace); }},
        {"write", true, [](auto *image) { return write_command(image, {"NEW=/small"}, false); }},
        {"write --replace", true,
         [](auto *image) { return write_command(image, {"NEW=/large"}, true); }},
    };
    // What a command that succeeds in writing may change: payloads and the flags.
    std::vector<struct range> payloads = {
        {anchor_at + offsetof(struct initial_block_header, flags), 4}};
    for (const uint32_t block : chain) {
        payloads.push_back({data_start + block * block_length + sizeof(struct block_header),
                            block_length - sizeof(struct block_header)});
    }
    const size_t count = from_environment("TARNIX_DAMAGE_COUNT", 200);
    for_each_disk(count, [&](const struct damaged_disk &disk) {
        write_file(disk_path, disk.bytes);
        for (const auto &command : commands) {
            const int status = run_command(command.writes, command.run);
            const bool wrote = command.writes && status == exit_good;
            EXPECT_NE(exit_usage, status) << command.name;
            EXPECT_TRUE(wrote ? differs_only_in(disk.bytes, read_file(disk_path), payloads)
                              : disk.bytes == read_file(disk_path))
                << command.name;
        }
    });
}

// Whether the walk by the links never ends: in a cycle, or for want of bytes at the device's end.
static bool is_endless(const std::string &misc, const std::string &data) {
    struct initial_block_header anchor;
    memcpy(&anchor, &misc[initial_block_header_misc_offset], sizeof(anchor));
    std::set<uint64_t> seen;
    struct block_header header = {block_header_magic, anchor.first_block, 0};
    while (header.magic == block_header_magic && header.next_block != 0) {
        const uint64_t at = header.next_block * block_length;
        if (!seen.insert(at).second || at >= data.size()) {
            return true;
        }
        memcpy(&header, &data[at], sizeof(header));
    }
    return false;
}

// One run of the tool. Reads stop after more of them than any walk that ends can need.
static void run_tool(std::vector<std::string> words, const std::string &misc,
                     const std::string &data) {
    std::vector<char *> argv(words.size() + 1);
    for (size_t i = 0; i < words.size(); ++i) {
        argv[i] = &words[i][0];
    }
    platform.reads.assign(200, as_usual);
    platform.reads.push_back({EIO});
    optind = 0;
    (void)tarnix_main(static_cast<int>(words.size()), argv.data());
    EXPECT_EQ(words[1] == "-t" && is_endless(misc, data), platform.reads.empty()) << words[1];

    std::vector<struct range> anchor, headers;
    if (words[1] == "-a") {
        anchor.push_back({initial_block_header_misc_offset, sizeof(struct initial_block_header)});
        for (const uint32_t block : chain) {
            headers.push_back({block * block_length, sizeof(struct block_header)});
        }
    }
    EXPECT_TRUE(differs_only_in(misc, read_file(MISC_PATH), anchor)) << words[1];
    EXPECT_TRUE(differs_only_in(data, read_file(DEVICE_PATH), headers)) << words[1];
}

static void run_modes(const struct damaged_disk &disk) {
    std::string whole = disk.bytes;
    whole.resize(data_start + data_size);  // partitions do not shrink
    const std::string misc = whole.substr(misc_start, misc_size);
    const std::string data = whole.substr(data_start);
    set_property("ro.boot.qorramdump", "1");
    set_property("ro.hardware", "virt");
    write_file("/fstab.virt", DEVICE_PATH " /data ext4 noatime wait,check\n");
    write_file(DEVICE_PATH, data);
    write_file(MISC_PATH, misc);
    make_map_file(chain.size() * block_length);
    for (const uint32_t block : chain) {
        platform.fibmap.push_back({static_cast<int>(block)});
    }
    leave_free("/dev/block", 0);
    run_tool({"tarnix", "-t", MAP_PATH}, misc, data);
    run_tool({"tarnix", "-r", "/data/out", MAP_PATH}, misc, data);
    run_tool({"tarnix", "-a", "98304", MAP_PATH}, misc, data);
}

// Fewer, and among them some that are damaged only where the tool does not look.
TEST(damaged_disks, are_safe_with_the_tool) {
    for_each_disk(from_environment("TARNIX_DAMAGE_COUNT", 200) / 5, run_modes);
}
