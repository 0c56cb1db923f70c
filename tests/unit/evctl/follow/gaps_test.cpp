#include "evctl/follow/gaps.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace evctl;

namespace {

EmpEvLogHeader_t headerOf(U32_t id, const char* blade = "BLADE-1") {
    EmpEvLogHeader_t header = {};
    memcpy(header.evBladeId, blade, strlen(blade));
    header.evSequenceId = id;
    return header;
}

std::string missing(const std::optional<Gap>& gap) {
    return gap ? gapLine(*gap) : "";
}

} // namespace

TEST(GapWatch, OneMissingIdIsAGap) {
    GapWatch watch;
    EXPECT_EQ(missing(watch.take(headerOf(5))), "");
    EXPECT_EQ(missing(watch.take(headerOf(6))), "");
    EXPECT_EQ(missing(watch.take(headerOf(8))), "gap: 7 to 7\n");
    EXPECT_EQ(missing(watch.take(headerOf(9))), "");
}

TEST(GapWatch, IdThatIsNotAboveTheLastOneSaysNothing) {
    GapWatch watch;
    watch.take(headerOf(50));
    EXPECT_EQ(missing(watch.take(headerOf(50))), "");
    EXPECT_EQ(missing(watch.take(headerOf(3))), "");
    EXPECT_EQ(missing(watch.take(headerOf(6))), "gap: 4 to 5\n");
}

TEST(GapWatch, LogsAreWatchedApart) {
    GapWatch watch;
    watch.take(headerOf(5));
    EXPECT_EQ(missing(watch.take(headerOf(90, "BLADE-2"))), "");
    EXPECT_EQ(missing(watch.take(headerOf(6))), "");
    EXPECT_EQ(missing(watch.take(headerOf(92, "BLADE-2"))), "gap: 91 to 91\n");
}

TEST(GapWatch, HighestIdEndsAGap) {
    GapWatch watch;
    watch.take(headerOf(0xFFFFFFFD));
    EXPECT_EQ(missing(watch.take(headerOf(0xFFFFFFFF))), "gap: 4294967294 to 4294967294\n");
}
