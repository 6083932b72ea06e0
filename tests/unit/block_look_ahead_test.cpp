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

// `runs` runs of `length` blocks, each before the one above it on the device.
static std::vector<struct fibmap_answer> map_in_runs(int runs, int length) {
    std::vector<struct fibmap_answer> answers;
    for (int run = 0; run < runs; ++run) {
        for (int i = 0; i < length; ++i) {
            answers.push_back({1 + (runs - run) * (length + 1) + i});
        }
    }
    return answers;
}

// One run of 2000 blocks, of which one gets another answer.
static std::vector<struct fibmap_answer> map_with(size_t index, struct fibmap_answer answer) {
    std::vector<struct fibmap_answer> answers = map_in_runs(1, 2000);
    answers[index] = answer;
    return answers;
}

DEVICE_TEST(block_look_ahead, order_and_announcements) {
    const struct {
        const char *name;
        std::vector<struct fibmap_answer> map;  // up to a block without a place, or to its end
        int announcements;
    } rows[] = {
        {"one run: one announcement a piece", map_in_runs(1, 2000), 63},
        {"a piece and a block", map_in_runs(1, 33), 2},
        // 15 of the runs lie across the end of what is mapped at a time.
        {"runs of three blocks", map_in_runs(400, 3), 415},
        {"hole at the start of a piece", map_with(32, {0}), 1},
        {"hole at the end of the window", map_with(511, {0}), 16},
        {"no answer behind the window", map_with(513, {7, EIO}), 17},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        platform = {};
        platform.fibmap = row.map;
        announcements = 0;
        announced.clear();
        struct block_look_ahead ahead;
        start_look_ahead(&ahead, 0, 0, block_size, static_cast<int32_t>(row.map.size()));
        int32_t count = 0;
        size_t placed = 0;
        for (const struct fibmap_answer &answer : row.map) {
            const struct mapped_block taken = take_block(&ahead, count);
            ASSERT_EQ(answer.block, taken.block) << count;
            ASSERT_EQ(answer.error != 0, taken.result != 0) << count;
            ASSERT_LE(platform.fibmap_calls, count + look_ahead_window);
            ++count;
            if (answer.error != 0 || answer.block == 0) {
                break;
            }
            // Each block before it is due, in the map's order, and none twice.
            ASSERT_EQ(answer.block, announced.at(placed++)) << count;
        }
        // Nothing is asked for or announced behind the last.
        EXPECT_EQ(count, platform.fibmap_calls);
        EXPECT_EQ(placed, announced.size());
        EXPECT_EQ(row.announcements, announcements);
    }
}
