#include <gtest/gtest.h>

#include "chain/chain_crc.h"
#include "chain/initial_block_header.h"
#include "tests/support/captured_log.h"
#include "tests/support/platform.h"

// The values that a boot side checks its own CRC against.
DEVICE_TEST(chain_records, crc_of_the_worked_chains) {
    chain_crc = 0x12345678;
    EXPECT_EQ(0x80b7952aU, advance_chain_crc(0x8000, 0x8001));
    EXPECT_EQ(0x22381805U, advance_chain_crc(0x8001, 0x9f00));
    EXPECT_EQ(0x08c9cddeU, advance_chain_crc(0x9f00, 0));
    EXPECT_EQ(0x08c9cddeU, chain_crc);

    chain_crc = 0x12345678;
    EXPECT_EQ(0xc40b7f46U, advance_chain_crc(0x8000, 0));
}

DEVICE_TEST(chain_records, anchor_printout) {
    const struct initial_block_header anchor = {initial_block_header_magic, 0x8000, 4096, 3, 0, 3};
    const std::string fields =
        "I initial_block_header.magic        = 0x72644842\n"
        "I initial_block_header.first_block  = 0x8000\n"
        "I initial_block_header.block_length = 0x1000\n"
        "I initial_block_header.n_blocks     = 0x3\n"
        "I initial_block_header.crc32        = 0\n"
        "I initial_block_header.flags        = 0x3\n";
    print_initial_block_header("/dev/block/sda1", &anchor);
    EXPECT_EQ("I block device: /dev/block/sda1\n" + fields, take_log());
    print_initial_block_header(nullptr, &anchor);
    EXPECT_EQ(fields, take_log());
}
