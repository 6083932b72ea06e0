// The boot side over partitions in memory: refusals, the order of its transfers, failing transfers,
// and every size of working buffer.
#include "bootside/bootside.h"

#include <gtest/gtest.h>
#include <string.h>
#include <zlib.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "bootside/chain_walk.h"
#include "chain/block_header.h"
#include "chain/initial_block_header.h"
#include "tools/dump_stream.h"

static const uint32_t block_length = 512;
static const uint64_t payload = block_length - 12;

struct device {
    std::vector<unsigned char> misc = std::vector<unsigned char>(4096);
    std::vector<unsigned char> data;
    std::vector<unsigned char> buffer;
    std::string log;      // one letter a write: P payload, S flag set, C flag cleared, F flush
    int calls_left = -1;  // writes and flushes until one fails; -1: none does
    size_t unreadable = SIZE_MAX;  // a byte of data
    size_t reads = 0;
    bootside_port port = {};
};

static int fails(device *d) {
    return d->calls_left >= 0 && d->calls_left-- == 0 ? 77 : 0;
}

static int read_misc(void *user, uint64_t offset, void *buffer, size_t length) {
    memcpy(buffer, static_cast<device *>(user)->misc.data() + offset, length);
    return 0;
}

static int read_data(void *user, uint64_t offset, void *buffer, size_t length) {
    auto *d = static_cast<device *>(user);
    ++d->reads;
    if (d->unreadable >= offset && d->unreadable < offset + length) {
        return 78;
    }
    EXPECT_LE(offset + length, d->data.size());
    memcpy(buffer, d->data.data() + offset, length);
    return 0;
}

static int write_misc(void *user, uint64_t offset, const void *data, size_t length) {
    auto *d = static_cast<device *>(user);
    const int failed = fails(d);
    if (failed == 0) {
        memcpy(d->misc.data() + offset, data, length);
        d->log += (*static_cast<const unsigned char *>(data) & 2) != 0 ? 'S' : 'C';
    }
    return failed;
}

static int write_data(void *user, uint64_t offset, const void *data, size_t length) {
    auto *d = static_cast<device *>(user);
    const int failed = fails(d);
    if (failed == 0) {
        memcpy(d->data.data() + offset, data, length);
        d->log += 'P';
    }
    return failed;
}

static int flush(void *user) {
    auto *d = static_cast<device *>(user);
    const int failed = fails(d);
    if (failed == 0) {
        d->log += 'F';
    }
    return failed;
}

static uint32_t crc(void *, uint32_t start, const void *data, size_t length) {
    return static_cast<uint32_t>(
        crc32(start, static_cast<const Bytef *>(data), static_cast<uInt>(length)));
}

// A device with a chain of these blocks and a working buffer of so many blocks.
static void make_device(device *d, const std::vector<uint32_t> &blocks, size_t buffer_blocks) {
    d->data.resize((*std::max_element(blocks.begin(), blocks.end()) + size_t{1}) * block_length);
    d->buffer.resize(buffer_blocks * block_length);
    d->port = {d,     read_misc, write_misc,     read_data,        write_data,
               flush, crc,       d->data.size(), d->buffer.data(), d->buffer.size()};
    const auto n = static_cast<uint32_t>(blocks.size());
    const initial_block_header anchor = {
        initial_block_header_magic, blocks[0], block_length, n, 0x12345678, 1};
    memcpy(d->misc.data() + initial_block_header_misc_offset, &anchor, sizeof(anchor));
    uint32_t running = anchor.crc32;
    for (size_t i = 0; i < n; ++i) {
        const uint32_t next = i + 1 < n ? blocks[i + 1] : 0;
        running = chain_walk_crc(&d->port, running, blocks[i], next);
        const block_header header = {block_header_magic, next, running};
        memcpy(d->data.data() + size_t{blocks[i]} * block_length, &header, sizeof(header));
    }
}

static std::vector<uint32_t> straight_chain(uint32_t n) {
    std::vector<uint32_t> blocks(n);
    std::iota(blocks.begin(), blocks.end(), 1);
    return blocks;
}

// Runs of 1, 2, 3, ... blocks, the later ones at lower numbers.
static std::vector<uint32_t> scattered_chain(uint32_t runs) {
    std::vector<uint32_t> blocks;
    uint32_t first = runs * (runs + 3) / 2;
    for (uint32_t run = 1; run <= runs; ++run) {
        first -= run + 1;
        blocks.resize(blocks.size() + run);
        std::iota(blocks.end() - run, blocks.end(), first + 1);
    }
    return blocks;
}

static std::string pattern(size_t size) {
    std::string text(size, 0);
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    return text;
}

static bootside_result write_file(bootside *boot, const char *name, const std::string &text,
                                  size_t piece) {
    bootside_result result = bootside_begin_file(boot, name, text.size());
    for (size_t at = 0; at < text.size() && result == bootside_ok; at += piece) {
        result = bootside_write(boot, text.data() + at, std::min(piece, text.size() - at));
    }
    return result;
}

// The dump as the reading side of tarnix-chain finds it: "name:data" of each file.
static std::vector<std::string> read_back(device *d) {
    std::vector<std::string> found;
    bootside_walk walk;
    EXPECT_EQ(bootside_ok, chain_walk_start(&walk, &d->port));
    const dump_sink sink = {[&](const dump_file &file) { found.push_back(file.name + ":"); },
                            [&](const unsigned char *data, size_t length) {
                                found.back().append(reinterpret_cast<const char *>(data), length);
                            },
                            nullptr};
    EXPECT_TRUE(dump_is_whole(read_dump_stream(&walk, sink)));
    return found;
}

// With one block there is no run table, with two it holds 64 runs and the other blocks are read
// back, with 40 it holds all of them.
TEST(bootside, every_buffer_and_piece_gives_the_same_dump) {
    for (const size_t buffer_blocks : {1U, 2U, 3U, 40U, 4000U}) {
        for (const size_t piece : {7U, 500U, 100000U}) {
            device d;
            make_device(&d, scattered_chain(80), buffer_blocks);
            bootside boot;
            ASSERT_EQ(bootside_ok, bootside_open(&boot, &d.port));
            EXPECT_EQ(80U, boot.runs);
            const uint64_t sizes[] = {3000, payload * 3000};
            const std::string big = pattern(sizes[1]);
            EXPECT_EQ(3000U + 40 + 40 + sizes[1], bootside_need(&boot, sizes, 2));
            ASSERT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
            ASSERT_EQ(bootside_ok, write_file(&boot, "a", pattern(3000), piece));
            ASSERT_EQ(bootside_ok, write_file(&boot, "b", big, piece));
            ASSERT_EQ(bootside_ok, bootside_finish(&boot));
            EXPECT_EQ((std::vector<std::string>{"a:" + pattern(3000), "b:" + big}), read_back(&d));
            EXPECT_EQ(bootside_ok, bootside_open(&boot, &d.port));
        }
    }
}

TEST(bootside, neighbouring_blocks_share_transfers) {
    device d;
    make_device(&d, straight_chain(3000), 320);
    bootside boot;
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &d.port));
    EXPECT_LE(d.reads, 20U);
    d.reads = 0;
    ASSERT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    ASSERT_EQ(bootside_ok, write_file(&boot, "a", pattern(3000 * payload - 40), 4096));
    ASSERT_EQ(bootside_ok, bootside_finish(&boot));
    EXPECT_EQ("PPPPPPPPPPFSF", d.log);  // 300 blocks each: a sixteenth of the buffer is the table
    EXPECT_EQ(0U, d.reads);
}

TEST(bootside, refusals_write_nothing_and_leave_the_dump_usable) {
    device d;
    make_device(&d, straight_chain(10), 16);
    bootside boot;
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &d.port));
    EXPECT_EQ(10U * payload, bootside_capacity(&boot));
    for (const uint64_t first : {uint64_t{1}, uint64_t{INT64_MAX} - 40}) {
        const uint64_t huge[] = {first, UINT64_MAX - 20};
        EXPECT_EQ(UINT64_MAX, bootside_need(&boot, huge, 2));
    }
    EXPECT_EQ(bootside_out_of_order, bootside_begin_file(&boot, "a", 1));
    EXPECT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    EXPECT_EQ(bootside_out_of_order, bootside_write(&boot, "x", 1));
    EXPECT_EQ(bootside_out_of_order, bootside_finish(&boot));
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
    EXPECT_EQ("", d.log);
    EXPECT_EQ(bootside_ok, bootside_write(&boot, "4", 1));
    EXPECT_EQ(bootside_ok, bootside_finish(&boot));
    EXPECT_EQ((std::vector<std::string>{"1234567890123456789:1234"}), read_back(&d));
    EXPECT_EQ(bootside_dump_pending, bootside_begin_dump(&boot, 0));
    EXPECT_EQ("PFSF", d.log);
}

// Replacing a dump, with each write or flush in turn failing: the flag is never over a mixture.
TEST(bootside, a_flag_never_stands_over_a_torn_dump) {
    for (int failing = 0; failing <= 10; ++failing) {
        device d;
        make_device(&d, straight_chain(60), 16);
        bootside boot;
        ASSERT_EQ(bootside_ok, bootside_open(&boot, &d.port));
        bootside_begin_dump(&boot, 0);
        write_file(&boot, "old", pattern(50 * payload), 999);
        ASSERT_EQ(bootside_ok, bootside_finish(&boot));
        d.log.clear();
        d.calls_left = failing;
        ASSERT_EQ(bootside_ok, bootside_begin_dump(&boot, 1));
        bootside_result result = write_file(&boot, "new", pattern(40 * payload), 999);
        if (result == bootside_ok) {
            result = bootside_finish(&boot);
        }
        const std::string all = "CFPPPFSF";
        const auto done = std::min(static_cast<size_t>(failing), all.size());
        EXPECT_EQ(all.substr(0, done), d.log);
        if (done == all.size()) {
            EXPECT_EQ(bootside_ok, result);
            continue;
        }
        EXPECT_EQ(all[done] == 'F' ? bootside_flush_failed : bootside_write_failed, result);
        EXPECT_EQ(77U, boot.walk.fault.found);
        if (all[done] == 'P') {
            EXPECT_EQ((done - 2) * 15, boot.walk.fault.position);
            EXPECT_EQ((done - 2) * 15 + 1, boot.walk.fault.block);
        }
        EXPECT_NE(bootside_ok, bootside_write(&boot, "x", 1));
        EXPECT_NE(bootside_ok, bootside_finish(&boot));
        EXPECT_EQ(all.substr(0, done), d.log);
    }
}

TEST(bootside, a_block_that_cannot_be_read_is_named_and_its_neighbours_do_not_matter) {
    std::vector<uint32_t> blocks = straight_chain(40);
    blocks.erase(blocks.begin() + 30);  // block 31 is not in the chain
    device d;
    make_device(&d, blocks, 64);
    bootside boot;
    d.unreadable = 31UL * block_length;
    EXPECT_EQ(bootside_ok, bootside_open(&boot, &d.port));
    d.unreadable = 35UL * block_length;
    EXPECT_EQ(bootside_read_failed, bootside_open(&boot, &d.port));
    EXPECT_EQ(33U, boot.walk.fault.position);
    EXPECT_EQ(35U, boot.walk.fault.block);
    EXPECT_EQ(78U, boot.walk.fault.found);
    EXPECT_EQ(bootside_out_of_order, bootside_begin_dump(&boot, 1));
    d.port.buffer_size = block_length - 1;
    EXPECT_EQ(bootside_buffer_too_small, bootside_open(&boot, &d.port));
    EXPECT_EQ("", d.log);
}

// Without a table the blocks are read back before they are written, and must still be the verified.
TEST(bootside, a_chain_that_changes_after_it_was_opened_is_not_written_on) {
    device d;
    make_device(&d, straight_chain(20), 1);
    bootside boot;
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &d.port));
    d.data[4UL * block_length] ^= 1;
    ASSERT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    EXPECT_EQ(bootside_bad_block_magic, write_file(&boot, "a", pattern(5000), 100));
    EXPECT_EQ("PPP", d.log);
    EXPECT_EQ(bootside_out_of_order, bootside_finish(&boot));
}

// With a CRC that is always right, the links alone must show that a chain comes back.
TEST(bootside, an_endless_chain_with_right_crcs_is_found) {
    device d;
    make_device(&d, straight_chain(40), 8);
    d.port.crc32 = [](void *, uint32_t, const void *, size_t) { return 7U; };
    for (uint32_t block = 1; block <= 40; ++block) {
        const block_header header = {block_header_magic, block == 40 ? 11 : block + 1, 7};
        memcpy(d.data.data() + size_t{block} * block_length, &header, sizeof(header));
    }
    bootside boot;
    EXPECT_EQ(bootside_block_twice, bootside_open(&boot, &d.port));
    EXPECT_EQ(40U, boot.walk.fault.position);
    EXPECT_EQ(11U, boot.walk.fault.block);
    EXPECT_EQ(10U, boot.walk.fault.found);
}

TEST(bootside, a_stream_of_nothing_but_headers_is_bounded) {
    device d;
    make_device(&d, straight_chain(6000), 8);
    bootside boot;
    ASSERT_EQ(bootside_ok, bootside_open(&boot, &d.port));
    ASSERT_EQ(bootside_ok, bootside_begin_dump(&boot, 0));
    for (int i = 0; i < 70000; ++i) {
        ASSERT_EQ(bootside_ok, write_file(&boot, "a", "x", 1));
    }
    ASSERT_EQ(bootside_ok, bootside_finish(&boot));
    bootside_walk walk;
    ASSERT_EQ(bootside_ok, chain_walk_start(&walk, &d.port));
    const dump_reading reading = read_dump_stream(&walk, {});
    EXPECT_TRUE(reading.too_many);
    EXPECT_EQ(most_files, reading.files);
}
