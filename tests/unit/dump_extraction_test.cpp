#include <android-base/stringprintf.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include "chain/block_header.h"
#include "extract/dump_directory.h"
#include "extract/dump_file_header.h"
#include "extract/dump_stream.h"
#include "extract/map_to_bin_files.h"
#include "tests/support/captured_log.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

#define DUMP "/data/vendor/ramdump/apq/07/"

static const size_t payload_size = block_length - sizeof(struct block_header);

static std::string file_header(const std::string &name, uint64_t size) {
    struct dump_file_header header = {dump_file_header_magic, {}, size, 0};
    memcpy(header.name, name.data(), name.size());
    return bytes_of(header);
}

// A header and that many bytes of data, no two pieces of it alike.
static std::string data_of(size_t size) {
    std::string data;
    for (uint32_t i = 0; data.size() < size; i++) {
        data += bytes_of(i * 2654435761U);
    }
    return data.substr(0, size);
}

static std::string file_in_dump(const std::string &name, size_t size) {
    return file_header(name, size) + data_of(size);
}

static const int no_block = -1;

// Puts the stream on the device, block by block in the order 1, 2, 3... of the map file; what the
// stream leaves of the last block is zeros.  `spoiled` is the block of the file whose magic is
// not the chain's.
static void make_dump(const std::string &stream, int spoiled) {
    size_t n = (stream.size() + payload_size - 1) / payload_size;
    make_map_file(n * block_length);
    for (size_t i = 0; i < n; i++) {
        const struct block_header header = {
            static_cast<int>(i) == spoiled ? 0xdeadbeef : block_header_magic, 0, 0};
        std::string block = bytes_of(header) + stream.substr(i * payload_size, payload_size);
        // Backwards, so that the order of the device is not that of the file.
        size_t place = 2 * n - i;
        block.resize(block_length);
        write_file_at(DEVICE_PATH, place * block_length, block);
        platform.fibmap.push_back({static_cast<int>(place)});
    }
    make_directories(DUMP);
    strcpy(ramdump_path, DUMP);
}

static std::string found_lines(const std::string &name, const std::string &size) {
    return "E Found file '" + name + "', size " + size + "\nE full path: " DUMP + name + "\n";
}

static const char end_lines[] =
    "E Found file '', size 0\nI * bad magic, got 00000000, expecting 654c3146\n";
static const char opening_lines[] =
    "I Opened " DEVICE_PATH
    " for reading\n"
    "E get_directory_available_space: available_space: 1073741824\n";
static const uint64_t free_bytes = 0x40000000;
static const std::string zeros(200, '\0');

DEVICE_TEST(dump_extraction, placement_of_files) {
    // Sizes of a first file `a` of one block that leave so many bytes of its payload.
    const size_t all = payload_size - sizeof(struct dump_file_header);
    const struct {
        const char *name;
        size_t first_size;
        size_t padding;  // bytes between the data of `a` and the header of `b`
        size_t second_size;
    } rows[] = {
        {"40 bytes left", all - 40, 0, 5000},
        {"39 bytes left", all - 39, 39, 5000},
        {"exactly full", all, 0, 1},
        {"over many blocks", 5 * payload_size + 17, 0, 3 * payload_size},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            make_dump(file_in_dump("a", row.first_size) + std::string(row.padding, '#') +
                          file_in_dump("b", row.second_size) + zeros,
                      no_block);
            leave_free("/data", free_bytes);
            EXPECT_EQ(0, map_to_bin_files(MAP_PATH, DEVICE_PATH));
            EXPECT_EQ(opening_lines + found_lines("a", std::to_string(row.first_size)) +
                          found_lines("b", std::to_string(row.second_size)) + end_lines,
                      take_log());
            EXPECT_TRUE(read_file(DUMP "a") == data_of(row.first_size));
            EXPECT_TRUE(read_file(DUMP "b") == data_of(row.second_size));
        });
    }
}

DEVICE_TEST(dump_extraction, ends_of_a_dump) {
    const std::string block_magic = "I * bad magic, got deadbeef, expecting 6e684342\n";
    const size_t in_first_block = payload_size - sizeof(struct dump_file_header);
    // Without a NUL the name runs on, through the size, to the end of the header at the latest; the
    // path is cut at 63 characters, 35 of them the name's.
    const std::string long_name(36, 'x');
    const std::string long_header = file_header("", 0).substr(0, 4) + long_name;
    const struct {
        const char *name;
        std::string stream;
        int spoiled;
        std::string log;
        std::string file;
        std::string content;
    } rows[] = {
        {"a foreign first block", file_in_dump("a", 5), 0, block_magic, "a", "(cannot be read)"},
        {"the end of the map, behind a file", file_in_dump("a", in_first_block), no_block,
         found_lines("a", std::to_string(in_first_block)), "a", data_of(in_first_block)},
        {"the end of the map, in a file", file_header("a", UINT64_MAX) + data_of(in_first_block),
         no_block, found_lines("a", "18446744073709551615"), "a", data_of(in_first_block)},
        {"no room", file_in_dump("full", 9000), no_block,
         found_lines("full", "9000") + "I Could not write 4084 bytes<no line end>\n", "full", ""},
        {"a name without end", long_header + data_of(in_first_block), no_block,
         "E Found file '" + long_name + "', size 8680820740569200760\nE full path: " DUMP +
             long_name.substr(1) + "\n",
         long_name.substr(1), data_of(in_first_block)},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            make_dump(row.stream, row.spoiled);
            symlink("/dev/full", DUMP "full");
            leave_free("/data", free_bytes);
            EXPECT_EQ(0, map_to_bin_files(MAP_PATH, DEVICE_PATH));
            EXPECT_EQ(opening_lines + row.log, take_log());
            sync_dump_files();
            EXPECT_TRUE(row.file == "full" || read_file(DUMP + row.file) == row.content);
        });
    }
}

DEVICE_TEST(dump_extraction, space_for_the_memory) {
    const struct {
        const char *ddr_size;
        uint64_t required;
    } rows[] = {
        {"", 0xfffffff},    {"4", 0x110000000}, {"6.5", 0x1b0000000},
        {"12", 0x50000000}, {"0.", 0x10000000}, {"\xff", 0x33d0000000},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.ddr_size, [&row] {
            set_property("ro.boot.ddrsize", row.ddr_size);
            make_dump("", no_block);
            write_file(DEVICE_PATH, "");
            mount_tmpfs("/data", "size=300G");
            make_map_file(0);
            uint64_t enough = (row.required + 4095) / 4096 * 4096;
            leave_free("/data", enough);
            EXPECT_EQ(0, map_to_bin_files(MAP_PATH, DEVICE_PATH));
            take_log();
            leave_free("/data", enough - 4096);
            EXPECT_EQ(-1, map_to_bin_files(MAP_PATH, DEVICE_PATH));
            EXPECT_EQ(android::base::StringPrintf(
                          "I Opened " DEVICE_PATH " for reading\n"
                          "E get_directory_available_space: available_space: %lu\n"
                          "E Not enough space available to create ramdump file: " MAP_PATH
                          ", avail space: %lu, requested size: %lu\n",
                          enough - 4096, enough - 4096, row.required),
                      take_log());
        });
    }
}

DEVICE_TEST(dump_extraction, failures_outside_the_dump) {
    const std::string found = found_lines("a", "9000");
    const std::vector<fibmap_answer> lost = {{6}, {5, EIO}};
    const std::vector<fibmap_answer> intact = {{6}, {5}, {4}};
    const struct {
        const char *name;
        std::vector<fibmap_answer> fibmap;
        call_script seeks;
        call_script reads;
        int result;
        std::string log;
    } rows[] = {
        {"interrupted", intact, interrupted_and_short, interrupted_and_short, 0, found + end_lines},
        {"no place for a block", lost, undisturbed, undisturbed, -1,
         found + "E failed to find block 1\n"},
        {"a seek fails", intact, second_fails, undisturbed, -1,
         found + "E error seeking to block 00000005: Input/output error\n"},
        {"a read fails", intact, undisturbed, second_fails, -1,
         found + "E error reading: Input/output error\n"},
    };
    for (const auto &row : rows) {
        on_fresh_device(row.name, [&row] {
            make_dump(file_in_dump("a", 9000) + zeros, no_block);
            leave_free("/data", free_bytes);
            platform.fibmap = row.fibmap;
            platform.seeks = row.seeks;
            platform.reads = row.reads;
            EXPECT_EQ(row.result, map_to_bin_files(MAP_PATH, DEVICE_PATH));
            EXPECT_EQ(opening_lines + row.log, take_log());
        });
    }
}
