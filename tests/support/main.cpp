#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>

#include "tests/support/captured_log.h"
#include "tests/support/platform.h"

// Status that ctest reports as skipped, and never as passed.
static const int skipped = 77;

int main(int argc, char *argv[]) {
    testing::InitGoogleTest(&argc, argv);
    const std::string reason = enter_private_root();
    if (!reason.empty()) {
        printf(
            "SKIPPED: all %d tests of %s, for want of a mount namespace (%s). unit-arm64 runs the "
            "unit tests on the emulated device.\n",
            testing::UnitTest::GetInstance()->total_test_count(), argv[0], reason.c_str());
        return skipped;
    }
    umask(022);
    capture_log();
    return RUN_ALL_TESTS();
}
