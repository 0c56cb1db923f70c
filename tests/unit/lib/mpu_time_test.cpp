#include "lib_test_support.h"
#include "mpu_gbl.h"
#include "other_time_zone.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

time_t now;
bool isBreakdownFailing;
/** Target of /etc/localtime; NULL: it is no link. */
const char* linkTarget;
size_t askedLength;

std::string timestampAt(time_t second) {
    char text[64] = "";
    now = second;
    get_timestamp(text);
    return text;
}

} // namespace

extern "C" {

time_t __wrap_time(time_t* result) {
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

struct tm* __real_localtime_r(const time_t* second, struct tm* result);
struct tm* __wrap_localtime_r(const time_t* second, struct tm* result) {
    return isBreakdownFailing ? nullptr : __real_localtime_r(second, result);
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
    struct timeval before;
    struct timeval read = {0, -1};
    gettimeofday(&before, nullptr);
    EXPECT_EQ(mpuGetTime(&read), 0);
    EXPECT_GE(read.tv_sec, before.tv_sec);
    EXPECT_LE(read.tv_sec, before.tv_sec + 60);
    EXPECT_GE(read.tv_usec, 0);
    EXPECT_LT(read.tv_usec, 1000000);
}
