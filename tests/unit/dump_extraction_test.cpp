#include <gtest/gtest.h>
#include <string.h>

#include "chain/format/block_header.h"
#include "chain/format/dump_file_header.h"
#include "extract/dump_directory.h"
#include "extract/map_to_bin_files.h"
#include "tests/support/chain_image.h"
#include "tests/support/files.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

// tests/device and the fuzzer dump_stream have the files of a dump, its ends and its damages.
DEVICE_TEST(dump_extraction, space_for_the_memory) {
    const std::string data = std::string(2000, 'a') + std::string(3000, 'b');
    const struct dump_file_header file = {dump_file_header_magic, "a", data.size(), 0};
    const std::string stream = bytes_of(file) + data;
    const size_t cut = block_length - sizeof(struct block_header);
    const std::string header = bytes_of(block_header{block_header_magic, 0, 0});
    write_file_at(DEVICE_PATH, 5 * block_length,
                  header + stream.substr(cut) + std::string(cut, '\0'));
    write_file_at(DEVICE_PATH, 6 * block_length, header + stream.substr(0, cut));
    platform.fibmap = {{6}, {5}};
    // The RAM and 256 MiB.
    const uint64_t required = 0x130000000;
    set_property("ro.boot.ddrsize", "4.5");
    mount_tmpfs("/data", "size=5G");
    make_map_file(2 * block_length);
    strcpy(ramdump_path, "/data/");
    leave_free("/data", required - block_length);
    EXPECT_EQ(-1, map_to_bin_files(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ("(cannot be read)", read_file("/data/a"));
    leave_free("/data", required);
    EXPECT_EQ(0, map_to_bin_files(MAP_PATH, DEVICE_PATH));
    EXPECT_EQ(data, read_file("/data/a"));
}
