// The boot side over partitions in memory: what it writes, in which order, what it refuses, and
// calls of its port that fail. tests/fuzz/chain_walk.cpp has the opening walk.
#include "bootside/bootside.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "tests/bootside/memory_device.h"

static const uint64_t payload = 512 - sizeof(struct block_header);
static struct bootside boot;

// The numbers of a fault record.
using place = std::vector<uint64_t>;

static place place_of_fault() {
    const struct bootside_fault &fault = boot.walk.fault;
    return {fault.position, fault.block, fault.offset, fault.in_misc, fault.expected, fault.found};
}

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
        {payload - 40, 5},                 // the first block exactly full
        {payload - 79, 2 * payload - 79},  // 39 bytes left in it, and for the end mark: padding
        {payload - 80, 2 * payload - 40},  // 40 bytes left: a header, or the mark
        {10, 160 * payload - 90},          // the chain full to its last byte
        {160 * payload - 79},              // full up to padding
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
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.calls.clear();
    const uint64_t sizes[] = {payload - 79, 5, UINT64_MAX - 20};
    EXPECT_EQ(payload + 45, bootside_need(&boot, sizes, 2));
    EXPECT_EQ(UINT64_MAX, bootside_need(&boot, sizes, 3));
    EXPECT_EQ(bootside_out_of_order, bootside_begin_file(&boot, "a", 1));
    EXPECT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    EXPECT_EQ(bootside_no_file, bootside_write(&boot, "x", 1));
    EXPECT_EQ(bootside_no_file, bootside_finish(&boot));
    const std::tuple<const char *, uint64_t, enum bootside_result> files[] = {
        {"12345678901234567890", 1, bootside_name_too_long},
        {".", 1, bootside_name_not_plain},
        {"..", 1, bootside_name_not_plain},
        {"a", 10 * payload - 39, bootside_does_not_fit},
        {"...", 10 * payload - 40, bootside_ok},
    };
    for (const auto &[name, size, result] : files) {
        EXPECT_EQ(result, bootside_begin_file(&boot, name, size)) << name << ", " << size;
    }
    EXPECT_EQ(bootside_ok, bootside_write(&boot, "given up", 8));
    EXPECT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));  // starts over
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
// together: 15 of them, as a sixteenth of the buffer is the run table. Where there is no flag to
// clear, it may be clear in the device's cache only, left there by a flush that failed: so the
// flush before the first block is made in any case.
TEST(bootside, a_flag_never_stands_over_a_torn_dump) {
    const std::tuple<char, enum bootside_result, uint64_t, uint32_t> steps[] = {
        {'C', bootside_write_failed, 3204, 1},     {'F', bootside_flush_failed, 0, 0},
        {'P', bootside_write_failed, 1 * 512, 0},  {'P', bootside_write_failed, 16 * 512, 0},
        {'P', bootside_write_failed, 31 * 512, 0}, {'F', bootside_flush_failed, 0, 0},
        {'S', bootside_write_failed, 3204, 1},     {'F', bootside_flush_failed, 0, 0},
    };
    std::string calls;
    for (const auto &[call, result, offset, in_misc] : steps) {
        make_chain(1, 60, 16);
        ASSERT_EQ(bootside_ok, bootside_open(&boot, &device.port));
        device.calls.clear();
        ASSERT_EQ(bootside_ok, write_dump({{"old", pattern(50 * payload)}}, 999));
        EXPECT_EQ("FPPPPFSF", device.calls);
        device.calls.clear();
        calls += call;
        device.calls_left = static_cast<unsigned>(calls.size());
        EXPECT_EQ(result, write_dump({{"new", pattern(40 * payload)}}, 999));
        EXPECT_EQ(calls, device.calls);
        const uint64_t block = call == 'P' ? offset / 512 : boot.walk.fault.block;
        const uint64_t position = call == 'P' ? block - 1 : boot.walk.fault.position;
        EXPECT_EQ((place{position, block, offset, in_misc, 0, 77}), place_of_fault());
        EXPECT_EQ(bootside_out_of_order, bootside_finish(&boot));
        EXPECT_EQ(bootside_out_of_order, bootside_begin_dump(&boot, 1));
    }
}

// The chain is the blocks 4, 5, 1 and 2 of a partition of seven.
TEST(bootside, a_chain_that_is_not_right_is_refused_with_the_place) {
    const struct {
        uint32_t block, word;          // what is damaged: a block's header, or the anchor (0)
        std::vector<uint32_t> values;  // from there on; a link has its right CRC behind it
        enum bootside_result result;
        place fault;
    } rows[] = {
        {0, 0, {5}, bootside_no_anchor, {0, 4, 3184, 1, initial_block_header_magic, 5}},
        {0, 1, {0}, bootside_block_outside, {0, 0, 3188, 1, 6, 0}},
        {0, 1, {7}, bootside_block_outside, {0, 7, 3188, 1, 6, 7}},
        {0, 2, {256}, bootside_bad_block_length, {0, 4, 3192, 1, 512, 256}},
        {0, 2, {768}, bootside_bad_block_length, {0, 4, 3192, 1, 512, 768}},
        {0, 1, {1, 1024, 1}, bootside_buffer_too_small, {0, 1, 3192, 1, 1024, 512}},
        {0, 2, {0x200000}, bootside_bad_block_length, {0, 4, 3192, 1, 512, 0x200000}},
        {0, 2, {0x100000}, bootside_bad_block_count, {0, 4, 3196, 1, 0, 4}},
        {0, 3, {0}, bootside_bad_block_count, {0, 4, 3196, 1, 6, 0}},
        {0, 3, {7}, bootside_bad_block_count, {0, 4, 3196, 1, 6, 7}},
        {0, 3, {3}, bootside_chain_too_long, {2, 1, 516, 0, 0, 2}},
        {5, 1, {0, 0xac26657d}, bootside_chain_too_short, {1, 5, 2564, 0, 4, 2}},
        {5, 1, {7, 0xa6e36c64}, bootside_block_outside, {1, 5, 2564, 0, 6, 7}},
        {5, 1, {4, 0x286c6b87}, bootside_block_twice, {2, 4, 2048, 0, 2, 0}},
        {2, 1, {5, 0xf7639d97}, bootside_block_twice, {4, 5, 2560, 0, 4, 1}},
        {1, 0, {5}, bootside_bad_block_magic, {2, 1, 512, 0, block_header_magic, 5}},
        {1, 2, {5}, bootside_bad_block_crc, {2, 1, 520, 0, 0x9a4e56c1, 5}},
    };
    for (const auto &row : rows) {
        make_chain(2, 2, 1);
        void *record = row.block == 0 ? static_cast<void *>(&device.anchor)
                                      : device.blocks.at(row.block).data();
        std::copy(row.values.begin(), row.values.end(), static_cast<uint32_t *>(record) + row.word);
        EXPECT_EQ(row.result, bootside_open(&boot, &device.port));
        EXPECT_EQ(row.fault, place_of_fault());
        EXPECT_EQ(0U, bootside_capacity(&boot));
    }
}

// Reads grow along a run. A longer read that fails may have reached for a block that is not the
// chain's.
TEST(bootside, only_the_chains_own_blocks_have_to_be_readable) {
    make_chain(1, 40, 16);
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    EXPECT_EQ("RRRRRRR", device.calls);  // the anchor; 1, 2, 4, 8, 15 and 10 blocks
    device.calls_left = 3;
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &device.port));
    device.calls_left = 2;
    EXPECT_EQ(bootside_read_failed, bootside_open(&boot, &device.port));
    EXPECT_EQ((place{0, 1, 512, 0, 0, 77}), place_of_fault());
    device.calls_left = 1;
    EXPECT_EQ(bootside_read_failed, bootside_open(&boot, &device.port));
    EXPECT_EQ((place{0, 0, 3184, 1, 0, 77}), place_of_fault());
}

// Every CRC right, as an attacker can have it. Where the walk would meet the announced end, after
// thousands of millions of blocks, is what it says after a few.
TEST(bootside, a_chain_that_goes_round_for_ever_is_told_soon) {
    for (uint32_t tail = 0; tail < 9; ++tail) {
        for (uint32_t lap = 1; lap < 9; ++lap) {
            for (const uint32_t announced : {tail + lap, tail + lap + 5, 1000U, 2147483646U}) {
                make_chain(1, tail + lap, 1);
                device.port.crc32 = [](void *, uint32_t, const void *, size_t) {
                    return boot.walk.stored_crc;
                };
                device.port.data_size = UINT64_MAX;
                device.anchor.n_blocks = announced;
                device.blocks[tail + lap].replace(4, 4, bytes_of(tail + 1));
                ASSERT_EQ(bootside_block_twice, bootside_open(&boot, &device.port));
                const uint64_t first = tail + (announced - tail) % lap;
                EXPECT_EQ((place{announced, first + 1, 512 * first + 512, 0, announced, first}),
                          place_of_fault());
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
