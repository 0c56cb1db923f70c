#include "lib_test_support.h"
#include "mpu_gbl.h"
#include "other_time_zone.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

// The names under which the C library offers its clock with 64 bits.
#if __SIZEOF_POINTER__ == 4
#define CLOCK_CALL(prefix, name, name32) prefix##name32
#else
#define CLOCK_CALL(prefix, name, name32) prefix##name
#endif
#define REAL_GETTIMEOFDAY CLOCK_CALL(__real_, gettimeofday, __gettimeofday64)
#define WRAP_GETTIMEOFDAY CLOCK_CALL(__wrap_, gettimeofday, __gettimeofday64)
#define WRAP_TIME CLOCK_CALL(__wrap_, time, __time64)
#define REAL_LOCALTIME_R CLOCK_CALL(__real_, localtime_r, __localtime64_r)
#define WRAP_LOCALTIME_R CLOCK_CALL(__wrap_, localtime_r, __localtime64_r)

namespace {

struct Time_t {
    S64_t seconds;
    S64_t microseconds;
};

S64_t now;
Time_t wallClock; ///< seconds 0: the real time
bool isClockFailing;
bool isBreakdownFailing;
/** Target of /etc/localtime; NULL: it is no link. */
const char* linkTarget;
size_t askedLength;

constexpr S64_t YEAR_2040 = 2208988800; // 2040-01-01 00:00:00 UTC

std::string timestampAt(S64_t second) {
    char text[64] = "";
    now = second;
    get_timestamp(text);
    return text;
}

} // namespace

extern "C" {

int REAL_GETTIMEOFDAY(Time_t* result, void* zone);
int WRAP_GETTIMEOFDAY(Time_t* result, void* zone) {
    if (isClockFailing) {
        errno = EFAULT;
        return -1;
    }
    if (wallClock.seconds == 0) {
        return REAL_GETTIMEOFDAY(result, zone);
    }
    *result = wallClock;
    return 0;
}

S64_t WRAP_TIME(S64_t* result) {
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

struct tm* REAL_LOCALTIME_R(const S64_t* second, struct tm* result);
struct tm* WRAP_LOCALTIME_R(const S64_t* second, struct tm* result) {
    return isBreakdownFailing ? nullptr : REAL_LOCALTIME_R(second, result);
}

/** Like the real one: no NUL behind the text. */
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
    askedLength = size;
    if (linkTarget == nullptr || strcmp(path, "/etc/localtime") != 0) {
        errno = EINVAL;
        return -1;
    }
    size_t length = std::min(strlen(linkTarget), size);
    std::copy_n(linkTarget, length, buffer);
    return static_cast<ssize_t>(length);
}
}

TEST(Timestamp, DayIsRightAlignedInTwoPlaces) {
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(timestampAt(1144401350), "Apr  7 09:15:50");
    EXPECT_EQ(timestampAt(0), "Jan  1 00:00:00");
    EXPECT_EQ(timestampAt(1735689599), "Dec 31 23:59:59");
}

TEST(Timestamp, EveryMonthHasItsName) {
    setenv("TZ", "UTC0", 1);
    const char* const names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (int month = 0; month < 12; month++) {
        struct tm day = {};
        day.tm_year = 106;
        day.tm_mon = month;
        day.tm_mday = 15;
        EXPECT_EQ(timestampAt(timegm(&day)), std::string(names[month]) + " 15 00:00:00");
    }
}

TEST(Timestamp, IsLocalTime) {
    setenv("TZ", "XYZ-3", 1);
    EXPECT_EQ(timestampAt(0), "Jan  1 03:00:00");
}

TEST(Timestamp, IsRightAfter2038AndToTheEndOf32UnsignedBits) {
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(timestampAt(0x7FFFFFFF), "Jan 19 03:14:07");
    EXPECT_EQ(timestampAt(0x80000000), "Jan 19 03:14:08");
    EXPECT_EQ(timestampAt(YEAR_2040), "Jan  1 00:00:00");
    EXPECT_EQ(timestampAt(0xFFFFFFFF), "Feb  7 06:28:15");
}

TEST(Timestamp, FollowsAChangedTimeZone) {
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(timestampAt(0), "Jan  1 00:00:00");
    setenv("TZ", "XYZ-3", 1);
    EXPECT_EQ(timestampAt(0), "Jan  1 03:00:00");
}

TEST(Timestamp, NullBufferDoesNothing) {
    get_timestamp(nullptr);
}

TEST(Timestamp, TimeThatCannotBeBrokenDownLeavesTheBuffer) {
    isBreakdownFailing = true;
    EXPECT_EQ(timestampAt(0), "");
}

TEST(TimeZone, NameFollowsThePrefix) {
    linkTarget = "/usr/share/zoneinfo/UTC";
    ASSERT_NE(get_tz(), nullptr);
    EXPECT_STREQ(get_tz(), "UTC");
}

TEST(TimeZone, OnlyThePrefixLengthCounts) {
    linkTarget = "/etc/zoneinfo/America/New_York";
    ASSERT_NE(get_tz(), nullptr);
    EXPECT_STREQ(get_tz(), "a/New_York");
}

TEST(TimeZone, NoLinkGivesNull) {
    linkTarget = nullptr;
    EXPECT_EQ(get_tz(), nullptr);
}

TEST(TimeZone, TargetOf19CharactersGivesNull) {
    linkTarget = "/usr/share/zoneinfo";
    EXPECT_EQ(get_tz(), nullptr);
}

TEST(TimeZone, TargetOf20CharactersGivesAnEmptyName) {
    linkTarget = "/usr/share/zoneinfo/";
    ASSERT_NE(get_tz(), nullptr);
    EXPECT_STREQ(get_tz(), "");
}

TEST(TimeZone, NameOf32CharactersIsAccepted) {
    std::string target = "/usr/share/zoneinfo/" + std::string(32, 'z');
    linkTarget = target.c_str();
    ASSERT_NE(get_tz(), nullptr);
    EXPECT_EQ(get_tz(), std::string(32, 'z'));
}

TEST(TimeZone, NameOf33CharactersGivesNull) {
    std::string target = "/usr/share/zoneinfo/" + std::string(33, 'z');
    linkTarget = target.c_str();
    EXPECT_EQ(get_tz(), nullptr);
}

TEST(TimeZone, LongerEarlierResultDoesNotShowThrough) {
    linkTarget = "/usr/share/zoneinfo/America/New_York";
    get_tz();
    linkTarget = "/usr/share/zoneinfo/UTC";
    EXPECT_STREQ(get_tz(), "UTC");
}

TEST(TimeZone, RoomForTheTerminatorIsLeft) {
    std::string target(5000, 'z');
    linkTarget = target.c_str();
    EXPECT_EQ(get_tz(), nullptr);
    EXPECT_EQ(askedLength, 4094U);
}

TEST(TimeZone, EveryModuleHasABufferOfItsOwn) {
    linkTarget = "/usr/share/zoneinfo/UTC";
    char* ours = get_tz();
    linkTarget = "/usr/share/zoneinfo/GMT";
    char* theirs = otherTimeZone();
    EXPECT_STREQ(ours, "UTC");
    EXPECT_STREQ(theirs, "GMT");
}

TEST(WallClock, ReadsSecondsAndMicroseconds) {
    struct timespec before;
    struct timeval read = {0, -1};
    clock_gettime(CLOCK_REALTIME, &before);
    EXPECT_EQ(mpuGetTime(&read), 0);
    EXPECT_GE(read.tv_sec, before.tv_sec);
    EXPECT_LE(read.tv_sec, before.tv_sec + 60);
    EXPECT_GE(read.tv_usec, 0);
    EXPECT_LT(read.tv_usec, 1000000);
}

TEST(WallClock, LowBitsOfTheSecondsAreRightAfter2038) {
    wallClock = {YEAR_2040, 5};
    struct timeval read = {};
    EXPECT_EQ(mpuGetTime(&read), 0);
    EXPECT_EQ(static_cast<U32_t>(read.tv_sec), 0x83AA7E80U);
    EXPECT_EQ(read.tv_usec, 5);
}

TEST(WallClock, IsReadWith64Bits) {
    wallClock = {0x1'0000'0001, 999'999};
    S64_t seconds = 0;
    S32_t microseconds = 0;
    EXPECT_EQ(mpuGetTime64(&seconds, &microseconds), 0);
    EXPECT_EQ(seconds, 0x1'0000'0001);
    EXPECT_EQ(microseconds, 999'999);
    now = YEAR_2040;
    EXPECT_EQ(mpuGetSecond(), YEAR_2040);
}

TEST(WallClock, FailureIsPassedOnAndLeavesTheResult) {
    isClockFailing = true;
    struct timeval read = {7, 8};
    EXPECT_EQ(mpuGetTime(&read), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(read.tv_sec, 7);
    EXPECT_EQ(read.tv_usec, 8);
}
