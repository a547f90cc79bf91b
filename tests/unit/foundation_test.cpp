// The logging wrapper and checked arithmetic every other part relies on.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "TestUtil.h"
#include "common/CheckedMath.h"
#include "common/ZemLog.h"

using zem_test::countLogLines;
using zem_test::LogCapture;

TEST(FoundationTest, LogsGoToTheRealLiblogWithTagAndPriority) {
    LogCapture cap;
    ZEM_LOGI("%s: SPC registration succeeded", "cam");
    ZEM_LOGE("Error opening cache directory: %s", "/nope");
    const std::string& log = cap.text();
    EXPECT_EQ(1, countLogLines(log, 'I', "cam: SPC registration succeeded")) << log;
    EXPECT_EQ(1, countLogLines(log, 'E', "Error opening cache directory: /nope")) << log;
    // The priority is part of the line: an info message is not an error.
    EXPECT_EQ(0, countLogLines(log, 'E', "cam: SPC registration succeeded"));
}

TEST(FoundationTest, CheckedMathGoesUpToTheLimitWithoutComplaint) {
    EXPECT_EQ(std::numeric_limits<uint64_t>::max(),
              zem::checkedAdd<uint64_t>(std::numeric_limits<uint64_t>::max() - 5, 5, "sum"));
    uint32_t n = std::numeric_limits<uint32_t>::max() - 1;
    zem::checkedIncrement(n, "count");
    EXPECT_EQ(std::numeric_limits<uint32_t>::max(), n);
    EXPECT_EQ(std::numeric_limits<int64_t>::min(),
              zem::checkedSub<int64_t>(std::numeric_limits<int64_t>::min() + 1, 1, "diff"));
}

TEST(FoundationDeathTest, CheckedMathOverflowTerminatesInsteadOfWrapping) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zem::checkedAdd<uint64_t>(std::numeric_limits<uint64_t>::max(), 1, "Counter sum"),
                 "arithmetic overflow in Counter sum");
    EXPECT_DEATH(
            {
                uint32_t n = std::numeric_limits<uint32_t>::max();
                zem::checkedIncrement(n, "bin count");
            },
            "arithmetic overflow in bin count");
    EXPECT_DEATH(zem::checkedSub<int64_t>(std::numeric_limits<int64_t>::min(), 1, "elapsed"),
                 "arithmetic overflow in elapsed");
}
