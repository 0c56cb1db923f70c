#include "diag/hex_dump.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <numeric>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

/** What a dump of the bytes 0, 1, 2, ... prints. */
std::string dumpOf(S32_t length) {
    std::vector<U8_t> bytes(static_cast<size_t>(length));
    std::iota(bytes.begin(), bytes.end(), U8_t{0});
    testing::internal::CaptureStdout();
    empHexDump(bytes.data(), length);
    return testing::internal::GetCapturedStdout();
}

const char LINE_1[] = "00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E1F";
const char LINE_2[] = "20212223 24252627 28292A2B 2C2D2E2F 30313233 34353637 38393A3B 3C3D3E3F";

TEST(HexDump, NothingPrintsTheLineFeed) {
    EXPECT_EQ(dumpOf(0), "\n");
}

TEST(HexDump, NegativeLengthPrintsTheLineFeedAndReadsNothing) {
    for (S32_t length : {-1, -152, INT32_MIN}) {
        testing::internal::CaptureStdout();
        empHexDump(nullptr, length);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
    }
}

TEST(HexDump, BlankFollowsEveryGroupOfFour) {
    EXPECT_EQ(dumpOf(1), "00\n");
    EXPECT_EQ(dumpOf(3), "000102\n");
    EXPECT_EQ(dumpOf(4), "00010203 \n");
    EXPECT_EQ(dumpOf(5), "00010203 04\n");
}

TEST(HexDump, ThirtyThirdByteStandsOnTheNextLine) {
    EXPECT_EQ(dumpOf(31),
              "00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E\n");
    EXPECT_EQ(dumpOf(32), std::string(LINE_1) + "\n\n");
    EXPECT_EQ(dumpOf(33), std::string(LINE_1) + "\n20\n");
}

TEST(HexDump, SixtyFourBytesEndInThreeLineFeeds) {
    EXPECT_EQ(dumpOf(63), std::string(LINE_1) + "\n" +
                              "20212223 24252627 28292A2B 2C2D2E2F 30313233 34353637 38393A3B "
                              "3C3D3E\n");
    EXPECT_EQ(dumpOf(64), std::string(LINE_1) + "\n" + LINE_2 + "\n\n\n");
}

TEST(HexDump, EmptyLineFollowsEverySecondLine) {
    EXPECT_EQ(dumpOf(97), std::string(LINE_1) + "\n" + LINE_2 + "\n\n" +
                              "40414243 44454647 48494A4B 4C4D4E4F 50515253 54555657 58595A5B "
                              "5C5D5E5F\n60\n");
    std::string whole = dumpOf(256);
    EXPECT_EQ(whole.size(), 8U * 71 + 8 + 4 + 1);
    EXPECT_EQ(whole.substr(whole.size() - 12), " FCFDFEFF\n\n\n");
}

TEST(HexDump, BytesFrom128OnShowTwoDigits) {
    U8_t bytes[] = {0x80, 0xB6, 0xFF};
    testing::internal::CaptureStdout();
    empHexDump(bytes, 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "80B6FF\n");
}

TEST(HexDump, ReturnsTheCharactersOfTheLastPrint) {
    U8_t bytes[40] = {};
    testing::internal::CaptureStdout();
    int of40 = empHexDump(bytes, 40);
    int ofNothing = empHexDump(bytes, -1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(of40, 1);
    EXPECT_EQ(ofNothing, 1);
}

TEST(HexDump, FailedPrintReturnsMinusOneAndKeepsErrno) {
    ASSERT_NE(freopen("/dev/full", "w", stdout), nullptr);
    setvbuf(stdout, nullptr, _IONBF, 0);
    U8_t bytes[40] = {};
    errno = EDOM;
    EXPECT_EQ(empHexDump(bytes, 40), -1);
    EXPECT_EQ(errno, EDOM);
}

} // namespace
