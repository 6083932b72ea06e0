#include "chain/block_look_ahead.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/support/platform.h"

static const int32_t block_size = 4096;

// Takes the place of libc's: the announcements come here.
static int announcements;
static std::vector<int> announced;  // device blocks, in the order of their announcements

int posix_fadvise(int /* fd */, off_t offset, off_t length, int advice) noexcept {
    EXPECT_EQ(POSIX_FADV_WILLNEED, advice);
    EXPECT_EQ(0, offset % block_size);
    // What a kernel of Android 9's time reads of one announcement.
    EXPECT_LE(length, 128 * 1024);
    for (off_t at = offset; at < offset + length; at += block_size) {
        announced.push_back(static_cast<int>(at / block_size));
    }
    ++announcements;
    return EINVAL;  // a failure changes nothing
}

DEVICE_TEST(block_look_ahead, order_and_announcements) {
    const struct {
        const char *name;
        int runs, length;  // each run before the one above it on the device
        int announcements;
        std::vector<struct fibmap_answer> stop;  // the answer behind them that ends it
    } rows[] = {
        {"one run: one announcement a piece", 1, 2000, 63, {}},
        {"a piece and a block", 1, 33, 2, {}},
        // 15 of the runs lie across the end of what is mapped at a time.
        {"runs of three blocks", 400, 3, 415, {}},
        {"hole at the start of a piece", 1, 32, 1, {{0}}},
        {"hole at the end of the window", 1, 511, 16, {{0}}},
        {"no answer behind the window", 1, 513, 17, {{7, EIO}}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        platform = {};
        const int placed = row.runs * row.length;
        for (int i = 0; i < placed; ++i) {
            const int run = row.runs - i / row.length;
            platform.fibmap.push_back({1 + run * (row.length + 1) + i % row.length});
        }
        platform.fibmap.insert(platform.fibmap.end(), row.stop.begin(), row.stop.end());
        announcements = 0;
        announced.clear();
        struct block_look_ahead ahead;
        start_look_ahead(&ahead, 0, 0, block_size, row.stop.empty() ? placed : 2000);
        int count = 0;
        for (const struct fibmap_answer &answer : platform.fibmap) {
            const struct mapped_block taken = take_block(&ahead, count);
            ASSERT_EQ(answer.block, taken.block) << count;
            ASSERT_EQ(answer.error != 0, taken.result != 0) << count;
            ASSERT_LE(platform.fibmap_calls, count + look_ahead_window);
            // Each block before it is due, in the map's order, and none twice.
            const auto at = static_cast<size_t>(count);
            ASSERT_TRUE(count == placed || answer.block == announced.at(at)) << count;
            ++count;
        }
        // Nothing is asked for or announced behind the last.
        EXPECT_EQ(count, platform.fibmap_calls);
        EXPECT_EQ(placed, static_cast<int>(announced.size()));
        EXPECT_EQ(row.announcements, announcements);
    }
}
