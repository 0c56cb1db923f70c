#include "evctl/send/progress.h"

#include <gtest/gtest.h>

TEST(Progress, BarFillsUp) {
    EXPECT_EQ(evctl::progressBar(0, 7), "[" + std::string(40, ' ') + "] 0/7");
    EXPECT_EQ(evctl::progressBar(500, 1000),
              "[" + std::string(20, '#') + std::string(20, ' ') + "] 500/1000");
    EXPECT_EQ(evctl::progressBar(0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF),
              "[" + std::string(40, '#') + "] 18446744073709551615/18446744073709551615");
}

TEST(Progress, SaysNothingWithoutATerminal) {
    testing::internal::CaptureStderr();
    {
        evctl::Progress progress(10);
        progress.show(10);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
