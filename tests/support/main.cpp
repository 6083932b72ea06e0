#include <gtest/gtest.h>
#include <stdio.h>

#include "tests/support/captured_log.h"
#include "tests/support/platform.h"
#include "tests/support/private_root.h"

// Status that ctest reports as skipped, and never as passed.
static const int skipped = 77;

struct device_starter : testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo & /* test */) override {
        start_fresh_device();
    }
};

int main(int argc, char *argv[]) {
    testing::InitGoogleTest(&argc, argv);
    std::string reason = enter_private_root();
    if (!reason.empty()) {
        printf("SKIPPED: all %d unit tests, for want of a private root (%s)\n",
               testing::UnitTest::GetInstance()->total_test_count(), reason.c_str());
        return skipped;
    }
    capture_log();
    testing::UnitTest::GetInstance()->listeners().Append(new device_starter);
    return RUN_ALL_TESTS();
}
