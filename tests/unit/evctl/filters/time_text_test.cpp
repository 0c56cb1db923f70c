#include "common/time_text.h"

#include "../../evlog/log_image.h"
#include "../run.h"
#include "temp_directory.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

using tools::isoTimeOfFile;
using tools::parseTime;
using tools::Zone;
using tools::zonedTime;

namespace {

constexpr U32_t NOW = 1'164'117'600; // 2006-11-21T14:00:00Z

} // namespace

TEST(TimeText, DatesAndTimesAreUtc) {
    EXPECT_EQ(parseTime("2006-11-21", NOW), NOW - 14 * 3600);
    EXPECT_EQ(parseTime("2006-11-21T14:00", NOW), NOW);
    EXPECT_EQ(parseTime("2006-11-21 14:00:05", NOW), NOW + 5);
    EXPECT_EQ(parseTime("2006-11-21T14:00:00Z", NOW), NOW);
    EXPECT_EQ(parseTime("1970-01-01", NOW), 0U);
    EXPECT_EQ(parseTime("2106-02-07T06:28:15Z", NOW), 0xFFFFFFFFU);
    EXPECT_EQ(parseTime("2000-02-29", NOW), 951'782'400U);
}

TEST(TimeText, AnOffsetNamesTheZone) {
    EXPECT_EQ(parseTime("2006-11-21T15:00:00+01:00", NOW), NOW);
    EXPECT_EQ(parseTime("2006-11-21T08:30-05:30", NOW), NOW);
    EXPECT_EQ(parseTime("2006-11-22T00:30+10:30", NOW), NOW);
    EXPECT_EQ(parseTime("2106-02-07T07:28:15+01:00", NOW), 0xFFFFFFFFU);
}

TEST(TimeText, TimesOfTheDayAreOfToday) {
    EXPECT_EQ(parseTime("14:00", NOW), NOW);
    EXPECT_EQ(parseTime("00:00:01", NOW), NOW - 14 * 3600 + 1);
    EXPECT_EQ(parseTime("15:00", NOW), NOW + 3600);
}

TEST(TimeText, SecondsSince1970) {
    EXPECT_EQ(parseTime("@0", NOW), 0U);
    EXPECT_EQ(parseTime("@4294967295", NOW), 0xFFFFFFFFU);
}

TEST(TimeText, FractionsOfSecondsAreTaken) {
    EXPECT_EQ(parseTime("2006-11-21T14:00:05.750Z", NOW), parseTime("2006-11-21T14:00:05Z", NOW));
    EXPECT_EQ(parseTime("2006-11-21T14:00:05.7+01:00", NOW),
              parseTime("2006-11-21T13:00:05Z", NOW));
}

TEST(TimeText, TimesRelativeToNow) {
    EXPECT_EQ(parseTime("now", NOW), NOW);
    EXPECT_EQ(parseTime("-90s", NOW), NOW - 90);
    EXPECT_EQ(parseTime("-30m", NOW), NOW - 1800);
    EXPECT_EQ(parseTime("-2h", NOW), NOW - 7200);
    EXPECT_EQ(parseTime("-3d", NOW), NOW - 259'200);
    EXPECT_EQ(parseTime("-1w", NOW), NOW - 604'800);
    EXPECT_EQ(parseTime("-1d2h30m", NOW), NOW - 95'400);
    EXPECT_EQ(parseTime("+90s", NOW), NOW + 90);
    EXPECT_EQ(parseTime("tomorrow", NOW), NOW + 10 * 3600);
    EXPECT_EQ(parseTime("today", NOW), NOW - 14 * 3600);
    EXPECT_EQ(parseTime("yesterday", NOW), NOW - 38 * 3600);
}

TEST(TimeText, AnythingElseIsRefused) {
    for (const char* text : {"",
                             "-",
                             "-h",
                             "2h",
                             "-2x",
                             "-2",
                             "--2h",
                             "@",
                             "@-1",
                             "2006",
                             "2006-11",
                             "2006-13-01",
                             "2006-02-29",
                             "2006-11-21T",
                             "2006-11-21T24:00",
                             "2006-11-21T14:60",
                             "2006-11-21T14:00:60",
                             "2006-11-21T14:00:00+01",
                             "2006-11-21T14:00:00+24:00",
                             "2006-11-21T14:00:00+01:60",
                             "2006-11-21T14:00:00+01:00Z",
                             "24:00",
                             "14:0",
                             "2006-11-21x",
                             "-1h30",
                             "-1hh",
                             "+",
                             "2006-11-21T14:00:00.",
                             "2006-11-21T14:00.5",
                             "next week"}) {
        EXPECT_EQ(parseTime(text, NOW), std::nullopt) << text;
    }
}

TEST(TimeText, ATimeOutOfRangeIsSaidToBe) {
    for (const char* text :
         {"1969-12-31", "1970-01-01T00:30:00+01:00", "2106-02-07T06:28:16Z", "2107-01-01", "-3000w",
          "-99999999w", "-99999999999h", "+6000w", "@4294967296"}) {
        EXPECT_THROW(parseTime(text, NOW), std::out_of_range) << text;
    }
    EXPECT_EQ(test::run({"file", "list", "no", "--since=2107-01-01"}).errors,
              "evctl: -S,--since: '2107-01-01' is outside 1970-01-01T00:00:00Z to "
              "2106-02-07T06:28:15Z\nTry 'evctl file list --help'.\n");
    std::string far = "-";
    for (int step = 0; step < 4000; step++) {
        far += "4294967295w"; // in all, beyond 64 bits
    }
    EXPECT_THROW(parseTime(far, NOW), std::out_of_range);
}

TEST(TimeText, LocalTimesAreThoseOfTheZone) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    constexpr Zone local = Zone::LOCAL;
    EXPECT_EQ(parseTime("2006-11-21T15:00:00", NOW, local), NOW);
    EXPECT_EQ(parseTime("2006-11-21T14:00:00Z", NOW, local), NOW);
    EXPECT_EQ(parseTime("2006-11-21T14:00:00-00:00", NOW, local), NOW);
    EXPECT_EQ(parseTime("15:00", NOW, local), NOW);
    EXPECT_EQ(parseTime(zonedTime(NOW, local), NOW, Zone::UTC),
              NOW); // what is shown may be asked for
    EXPECT_EQ(parseTime("2006-07-01T02:00", NOW, local), 1'151'712'000U); // summer time
    EXPECT_EQ(parseTime("today", NOW, local), NOW - 15 * 3600);
    EXPECT_EQ(parseTime("yesterday", NOW, local), NOW - 39 * 3600);
    EXPECT_THROW(parseTime("1970-01-01", NOW, local), std::out_of_range); // it was 1969 in UTC
    EXPECT_EQ(zonedTime(NOW, local), "2006-11-21T15:00:00+01:00");
    EXPECT_EQ(zonedTime(0xFFFFFFFF, local), "2106-02-07T07:28:15+01:00");
    EXPECT_EQ(zonedTime(NOW, Zone::UTC), "2006-11-21T14:00:00Z");
}

TEST(TimeText, TimesOfFilesAreOfAnyYear) {
    EXPECT_EQ(isoTimeOfFile(NOW), "2006-11-21T14:00:00Z");
    EXPECT_EQ(isoTimeOfFile(-1), "1969-12-31T23:59:59Z");
    EXPECT_EQ(isoTimeOfFile(-315'619'200), "1960-01-01T00:00:00Z");
    EXPECT_EQ(isoTimeOfFile(4'294'967'296), "2106-02-07T06:28:16Z");
    EXPECT_EQ(isoTimeOfFile(253'402'300'799), "9999-12-31T23:59:59Z");
    EXPECT_EQ(isoTimeOfFile(253'402'300'800), "@253402300800");
    EXPECT_EQ(isoTimeOfFile(-62'167'219'200), "0000-01-01T00:00:00Z");
    EXPECT_EQ(isoTimeOfFile(INT64_MIN), "@-9223372036854775808");
}

TEST(TimeText, AlternateFilesOfOtherCenturiesAreListedWithTheirTimes) {
    support::TempDirectory directory;
    auto put = [&directory](const std::string& name, time_t modified) {
        std::string path = directory.file("kelta_alteventlog" + name);
        support::writeFile(path, test::record({.instance = 0}, "event"));
        const struct timespec times[] = {{modified, 0}, {modified, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    };
    put("1", -315'619'200);
    std::string listed = test::run({"ael", "list", "--dir", directory.path()}).output;
    EXPECT_THAT(listed, testing::HasSubstr(" 1960-01-01T00:00:00Z ")) << listed;
    listed = test::run({"ael", "list", "--dir", directory.path(), "--json", "--local"}).output;
    EXPECT_THAT(listed, testing::HasSubstr(
                            R"("modified":"1960-01-01T00:00:00Z","modifiedSeconds":-315619200)"));
}
