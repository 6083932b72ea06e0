// The boot side over partitions in memory: what it writes, in which order, what it refuses, and
// calls of its port that fail. tests/fuzz/chain_walk.cpp has the opening walk.
#include "bootside/bootside.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "tests/bootside/memory_device.h"

static const uint64_t payload = 512 - sizeof(struct block_header);
static struct bootside boot;

static std::string pattern(size_t size) {
    std::string text(size, 0);
    std::iota(text.begin(), text.end(), 0);
    return text;
}

static enum bootside_result write_dump(const named_files &files, size_t piece) {
    enum bootside_result result = bootside_begin_dump(&boot, 1);
    for (const auto &[name, data] : files) {
        if (result == bootside_ok) {
            result = bootside_begin_file(&boot, name.c_str(), data.size());
        }
        for (size_t at = 0; at < data.size() && result == bootside_ok; at += piece) {
            result = bootside_write(&boot, &data[at], std::min(piece, data.size() - at));
        }
    }
    return result == bootside_ok ? bootside_finish(&boot) : result;
}

// A buffer of one block has no run table, with two the table holds 64 of the 80 runs and the other
// blocks are read back, with 40 it holds all of them.
TEST(bootside, a_dump_comes_back_whatever_the_sizes_the_buffer_and_the_pieces) {
    const std::vector<uint64_t> dumps[] = {
        {1},
        {payload - 40, 5},         // the first block exactly full
        {payload - 79, 5},         // 39 bytes left in it: padding
        {payload - 80, 5},         // 40 bytes left: a header, its data in the next block
        {payload - 81, 5},         // 41 bytes left: a header and one byte
        {3 * payload - 79},        // 39 bytes left for the end mark
        {3 * payload - 80},        // 40 bytes left for it
        {100, 80 * payload + 17},  // many blocks
        {10, 160 * payload - 90},  // the chain full to its last byte
        {160 * payload - 79},      // full up to padding
    };
    // With a header in each block, of which none may come to light again.
    const named_files older(160, {"older", pattern(payload - 40)});
    for (const std::vector<uint64_t> &sizes : dumps) {
        named_files files;
        for (const uint64_t size : sizes) {
            files.emplace_back("file of " + std::to_string(size), pattern(size));
        }
        for (const size_t buffer_blocks : {1U, 2U, 40U, 400U}) {
            for (const size_t piece : {7U, 500U, 100000U}) {
                make_chain(80, 2, buffer_blocks);
                ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
                EXPECT_LE(bootside_need(&boot, sizes.data(), sizes.size()),
                          bootside_capacity(&boot));
                ASSERT_EQ(bootside_ok, write_dump(older, 500));
                ASSERT_EQ(bootside_ok, write_dump(files, piece));
                EXPECT_EQ(files, read_dump());
                EXPECT_EQ(bootside_ok, bootside_open(&boot, &device.port));
                EXPECT_EQ(160U, device.blocks.size());
                EXPECT_EQ(0x80000003, device.anchor.flags);
            }
        }
    }
}

TEST(bootside, refusals_write_nothing_and_leave_the_dump_usable) {
    make_chain(1, 10, 16);
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.calls.clear();
    const uint64_t sizes[] = {payload - 79, 5, UINT64_MAX - 20};
    EXPECT_EQ(payload + 45, bootside_need(&boot, sizes, 2));
    EXPECT_EQ(UINT64_MAX, bootside_need(&boot, sizes, 3));
    EXPECT_EQ(bootside_out_of_order, bootside_begin_file(&boot, "a", 1));
    EXPECT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    EXPECT_EQ(bootside_no_file, bootside_write(&boot, "x", 1));
    EXPECT_EQ(bootside_no_file, bootside_finish(&boot));
    EXPECT_EQ(bootside_name_empty, bootside_begin_file(&boot, "", 1));
    EXPECT_EQ(bootside_name_too_long, bootside_begin_file(&boot, "12345678901234567890", 1));
    EXPECT_EQ(bootside_name_not_plain, bootside_begin_file(&boot, "a/b", 1));
    EXPECT_EQ(bootside_name_not_plain, bootside_begin_file(&boot, "..", 1));
    EXPECT_EQ(bootside_size_zero, bootside_begin_file(&boot, "a", 0));
    EXPECT_EQ(bootside_does_not_fit, bootside_begin_file(&boot, "a", 10 * payload - 39));
    EXPECT_EQ(bootside_does_not_fit, bootside_begin_file(&boot, "a", UINT64_MAX));
    EXPECT_EQ(bootside_ok, bootside_begin_file(&boot, "1234567890123456789", 4));
    EXPECT_EQ(bootside_data_excess, bootside_write(&boot, "12345", 5));
    EXPECT_EQ(bootside_ok, bootside_write(&boot, "123", 3));
    EXPECT_EQ(bootside_data_missing, bootside_begin_file(&boot, "b", 1));
    EXPECT_EQ(bootside_data_missing, bootside_finish(&boot));
    EXPECT_EQ("", device.calls);
    EXPECT_EQ(bootside_ok, bootside_write(&boot, "4", 1));
    EXPECT_EQ(bootside_ok, bootside_finish(&boot));
    EXPECT_EQ((named_files{{"1234567890123456789", "1234"}}), read_dump());
    EXPECT_EQ(bootside_dump_pending, bootside_begin_dump(&boot, 0));
}

// Replacing a dump, with each call of the port in turn failing. Neighbouring blocks are written
// together: 15 of them, as a sixteenth of the buffer is the run table.
TEST(bootside, a_flag_never_stands_over_a_torn_dump) {
    const std::string calls = "CFPPPFSF";
    for (unsigned failing = 1; failing <= calls.size(); ++failing) {
        make_chain(1, 60, 16);
        ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
        ASSERT_EQ(bootside_ok, write_dump({{"old", pattern(50 * payload)}}, 999));
        device.calls.clear();
        device.calls_left = failing;
        const enum bootside_result result = write_dump({{"new", pattern(40 * payload)}}, 999);
        EXPECT_EQ(calls.substr(0, failing), device.calls);
        const char failed = calls[failing - 1];
        EXPECT_EQ(failed == 'F' ? bootside_flush_failed : bootside_write_failed, result);
        EXPECT_EQ(77U, boot.walk.fault.found);
        EXPECT_EQ(bootside_out_of_order, bootside_begin_dump(&boot, 1));
    }
}

// The flag is cleared in the device's cache only; without a flush before it, the next dump's first
// block may reach the medium earlier.
TEST(bootside, a_flag_whose_clearing_was_not_flushed_is_flushed_before_the_next_dump) {
    make_chain(1, 60, 16);
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    ASSERT_EQ(bootside_ok, write_dump({{"old", pattern(50 * payload)}}, 999));
    device.calls.clear();
    device.calls_left = 2;
    EXPECT_EQ(bootside_flush_failed, write_dump({{"new", pattern(40 * payload)}}, 999));
    ASSERT_EQ("CF", device.calls);
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.calls.clear();
    EXPECT_EQ(bootside_ok, write_dump({{"new", pattern(40 * payload)}}, 999));
    EXPECT_EQ("FPPPFSF", device.calls);
}

// A longer read that fails may have reached for a block that is not the chain's.
TEST(bootside, only_the_chains_own_blocks_have_to_be_readable) {
    make_chain(1, 40, 16);
    device.calls_left = 3;  // the anchor; block 1; blocks 2 and 3, a guess that they follow
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.calls_left = 2;
    EXPECT_EQ(bootside_read_failed, bootside_open(&boot, &device.port));
    EXPECT_EQ(1U, boot.walk.fault.block);
}

// Every CRC right, as an attacker can have it. Where the walk would meet the announced end, after
// thousands of millions of blocks, is what it says after a few.
TEST(bootside, a_chain_that_goes_round_for_ever_is_told_soon) {
    for (uint32_t tail = 0; tail < 9; ++tail) {
        for (uint32_t lap = 1; lap < 9; ++lap) {
            for (const uint32_t announced : {tail + lap, tail + lap + 5, 1000U, 2147483646U}) {
                make_chain(1, tail + lap, 1);
                device.port.crc32 = [](void *, uint32_t crc, const void *, size_t) { return crc; };
                device.port.data_size = UINT64_MAX;
                device.anchor.n_blocks = announced;
                for (auto &[number, bytes] : device.blocks) {
                    const auto block = static_cast<uint32_t>(number);
                    const uint32_t next = block < tail + lap ? block + 1 : tail + 1;
                    bytes = bytes_of(block_header{block_header_magic, next, device.anchor.crc32});
                }
                ASSERT_EQ(bootside_block_twice, bootside_open(&boot, &device.port));
                const uint32_t first = tail + (announced - tail) % lap;
                EXPECT_EQ(announced, boot.walk.fault.position);
                EXPECT_EQ(announced, boot.walk.fault.expected);
                EXPECT_EQ(first, boot.walk.fault.found);
                EXPECT_EQ(first + 1, boot.walk.fault.block);
                EXPECT_GE(6 * (tail + lap), device.calls.size());
            }
        }
    }
}

// Without a table the blocks are read back before they are written, and must still be the verified.
TEST(bootside, a_chain_that_changes_after_it_was_opened_is_not_written_on) {
    make_chain(1, 20, 1);
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.blocks[4][0] = 0;
    device.calls.clear();
    EXPECT_EQ(bootside_bad_block_magic, write_dump({{"a", pattern(5000)}}, 100));
    EXPECT_EQ("RFPRPRPR", device.calls);
}

TEST(bootside, a_stream_of_nothing_but_headers_is_bounded) {
    make_chain(1, 6000, 8);
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    ASSERT_EQ(bootside_ok, write_dump(named_files(70000, {"a", "x"}), 1));
    EXPECT_EQ(most_files, read_dump().size());
}
