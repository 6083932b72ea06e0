#include "chain/block_look_ahead.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/support/platform.h"

static const int32_t block_size = 4096;

// Takes the place of libc's: the announcements come here.
static int announcement_result;
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
    announcements++;
    return announcement_result;
}

// `runs` runs of `length` blocks, each before the one above it on the device.
static std::vector<fibmap_answer> map_in_runs(int runs, int length) {
    std::vector<fibmap_answer> answers;
    for (int run = 0; run < runs; run++) {
        for (int i = 0; i < length; i++) {
            answers.push_back({1 + (runs - run) * (length + 1) + i});
        }
    }
    return answers;
}

TEST(block_look_ahead, order_and_announcements) {
    const std::vector<fibmap_answer> whole = map_in_runs(1, 2000);
    const fibmap_answer hole = {0};
    const fibmap_answer failure = {7, EIO};
    const struct {
        const char *name;
        std::vector<fibmap_answer> map;
        int32_t bad;           // index of a block without a place, -1: none
        fibmap_answer answer;  // of that block
        int announcements;
        int result;  // of each announcement
    } rows[] = {
        {"one run: one announcement a piece", whole, -1, hole, 63, 0},
        {"announcements that fail", whole, -1, hole, 63, EINVAL},
        {"a piece and a block", map_in_runs(1, 33), -1, hole, 2, 0},
        // 15 of the runs lie across the end of what is mapped at a time.
        {"runs of three blocks", map_in_runs(400, 3), -1, hole, 415, 0},
        {"hole at the start", whole, 0, hole, 0, 0},
        {"hole at the start of a piece", whole, 32, hole, 1, 0},
        {"hole at the end of the window", whole, 511, hole, 16, 0},
        {"hole behind the window", whole, 512, hole, 16, 0},
        {"no answer behind the window", whole, 513, failure, 17, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        platform = {};
        platform.fibmap = row.map;
        announcement_result = row.result;
        announcements = 0;
        announced.clear();
        int32_t end = static_cast<int32_t>(row.map.size());
        int32_t last = row.bad == -1 ? end - 1 : row.bad;
        if (row.bad != -1) {
            platform.fibmap[static_cast<size_t>(row.bad)] = row.answer;
        }

        struct block_look_ahead ahead;
        start_look_ahead(&ahead, 0, 0, block_size, end);
        for (int32_t i = 0; i <= last; i++) {
            struct mapped_block taken = take_block(&ahead, i);
            const fibmap_answer &answer = platform.fibmap[static_cast<size_t>(i)];
            ASSERT_EQ(answer.block, taken.block) << i;
            ASSERT_EQ(answer.error != 0, taken.result != 0) << i;
            ASSERT_LE(platform.fibmap_calls, i + look_ahead_window);
            // Each block before it is due, in the map's order, and none twice.
            ASSERT_TRUE(i == row.bad || announced.at(static_cast<size_t>(i)) == answer.block) << i;
        }
        // Nothing is asked for or announced behind the last.
        EXPECT_EQ(last + 1, platform.fibmap_calls);
        EXPECT_EQ(static_cast<size_t>(row.bad == -1 ? end : row.bad), announced.size());
        EXPECT_EQ(row.announcements, announcements);
    }
}
