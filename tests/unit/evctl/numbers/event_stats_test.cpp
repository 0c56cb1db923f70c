#include "evctl/numbers/event_stats.h"

#include "../../evlog/log_damage.h"
#include "../run.h"

#include "temp_directory.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <deque>

using evctl::EventStats;
using testing::HasSubstr;

namespace {

constexpr U32_t T0 = 1'164'117'600; // 2006-11-21T14:00:00Z

/** Events that live as long as this. */
class Events {
  public:
    void addOf(size_t log, EventStats& stats, U32_t time) {
        headers_.push_back({});
        headers_.back().evTime = time;
        stats.add({&headers_.back(), {}}, log);
    }
    void add(EventStats& stats, U32_t time, U8_t source = 28, U8_t type = 1, U16_t id = 300,
             size_t body = 40, U8_t version = 0) {
        EmpEvLogHeader_t header{};
        header.evTime = time;
        header.evSource = source;
        header.evType = type;
        header.evId = id;
        header.evIdVersion = version;
        headers_.push_back(header);
        bodies_.emplace_back(body);
        stats.add({&headers_.back(), bodies_.back()});
    }

  private:
    std::deque<EmpEvLogHeader_t> headers_;
    std::deque<std::vector<U8_t>> bodies_;
};

} // namespace

TEST(EventStats, RateSaysHowManyHoursALogHolds) {
    EventStats stats({.wholeLog = true});
    Events events;
    for (U32_t minute = 0; minute <= 60; minute++) {
        events.add(stats, T0 + minute * 60);
    }
    stats.endSource(true);
    EXPECT_DOUBLE_EQ(stats.rate(), 60);
    EXPECT_DOUBLE_EQ(stats.hoursHeld(), 1'600'000.0 / 200 / 60);
    EXPECT_THAT(evctl::statsLines(stats, 80),
                HasSubstr("61 events, 12200 bytes in a log, which is 0.8% full\n"
                          "from 2006-11-21T14:00:00Z to 2006-11-21T15:00:00Z\n"
                          "60.0 events an hour; at this rate a log holds 133.3 hours\n"));
}

TEST(EventStats, ARateOfSecondsNamesThem) {
    EventStats stats({.wholeLog = true});
    Events events;
    for (U32_t second = 0; second < 60; second += 59) {
        events.add(stats, T0 + second);
    }
    stats.endSource(true);
    EXPECT_THAT(
        evctl::statsLines(stats, 80),
        HasSubstr("\n61.0 events an hour, by what came in 59 s; at this rate a log holds "));
    events.add(stats, T0 + 60);
    stats.endSource(true);
    EXPECT_THAT(evctl::statsLines(stats, 80), HasSubstr(" events an hour; at this rate"));
}

TEST(EventStats, SourcesThatComeInTurnKeepTheirOwnClocks) {
    EventStats stats;
    Events events;
    for (U32_t minute = 0; minute <= 60; minute++) {
        events.addOf(0, stats, T0 + minute * 60);
        events.addOf(1, stats, T0 + 30 * 60 + minute * 60);
    }
    stats.endSource(true, 0);
    stats.endSource(true, 1);
    EXPECT_EQ(stats.leftOut(), 0U);
}

TEST(EventStats, ClocksThatJumpAreLeftOutOfTheRateAndSaid) {
    constexpr U32_t year2106 = UINT32_MAX - 1000;
    EventStats stats({.wholeLog = true});
    Events events;
    events.add(stats, 5); // before the clock was set
    for (U32_t minute = 0; minute <= 60; minute++) {
        events.add(stats, T0 + minute * 60);
        if (minute == 30) {
            events.add(stats, year2106);
            events.add(stats, 7);
        }
    }
    stats.endSource(true);
    EXPECT_DOUBLE_EQ(stats.rate(), 60);
    EXPECT_EQ(stats.leftOut(), 2U);
    EXPECT_EQ(stats.jumps(), 1U);
    EXPECT_THAT(
        evctl::statsLines(stats, 80),
        HasSubstr("clock jumps: 2 events and 1 step of more than a year are left out of the "
                  "rate\n"));
    U32_t seconds = 0;
    std::vector<evctl::Share> times = stats.times(&seconds);
    EXPECT_EQ(seconds, 3600U);
    ASSERT_EQ(times.size(), 4U); // 1970, two hours, 2106
    EXPECT_EQ(times[0].amount.events, 2U);
    EXPECT_EQ(times[1].name, "2006-11-21T14:00:00Z");
}

TEST(EventStats, OfSeveralSourcesTheRateIsThatOfAllAndNoHoursAreTold) {
    EventStats stats;
    Events events;
    for (U32_t start : {T0 + 30, T0}) {
        for (U32_t minute = 0; minute <= 60; minute++) {
            events.add(stats, start + minute * 60);
        }
        stats.endSource(true);
    }
    EXPECT_DOUBLE_EQ(stats.rate(), 120);
    EXPECT_EQ(stats.leftOut(), 0U);
    EXPECT_EQ(stats.hoursHeld(), 0);
    EXPECT_EQ(evctl::statsJson(stats)["hoursHeld"], nullptr);
}

TEST(EventStats, AnyOrderOfTimesHasARate) {
    std::minstd_rand random(4);
    for (int round = 0; round < 50; round++) {
        EventStats stats({.wholeLog = true});
        Events events;
        for (U32_t count = 0; count < 100; count++) {
            events.add(stats, round % 2 == 0 ? static_cast<U32_t>(random() * 2 + random() % 2)
                                             : UINT32_MAX - count);
        }
        stats.endSource(true);
        EXPECT_GE(stats.rate(), 0);
        EXPECT_LT(stats.leftOut(), 100U);
    }
}

TEST(EventStats, OneEventHasNoRate) {
    EventStats stats({.wholeLog = true});
    Events events;
    events.add(stats, T0);
    stats.endSource(true);
    EXPECT_EQ(stats.rate(), 0);
    EXPECT_EQ(stats.hoursHeld(), 0);
    EXPECT_EQ(evctl::statsJson(stats)["hoursHeld"], nullptr);
}

TEST(EventStats, NoEventIsSaid) {
    EXPECT_EQ(evctl::statsLines(EventStats(), 80), "0 events, 0 bytes in a log\n");
    EXPECT_EQ(evctl::statsJson(EventStats())["times"].size(), 0U);
    EXPECT_THAT(evctl::statsPicture(EventStats(), "none"), testing::EndsWith("</svg>\n"));
}

TEST(EventStats, TalkersAreSortedByTheirBytes) {
    EventStats stats;
    Events events;
    for (int count = 0; count < 3; count++) {
        events.add(stats, T0, 28, 1, 300, 0);
    }
    events.add(stats, T0, 18, 3, 4, 840);
    std::vector<evctl::Share> talkers = stats.talkers(10);
    ASSERT_EQ(talkers.size(), 2U);
    EXPECT_EQ(talkers[0].name, "startup signal(4)");
    EXPECT_EQ(talkers[0].amount.bytes, 1000U);
    EXPECT_EQ(talkers[1].name, "snmp 300");
    EXPECT_EQ(talkers[1].amount.events, 3U);
    EXPECT_EQ(stats.talkers(1).size(), 1U);
    events.add(stats, T0, 30, 1, 7, 2000);
    std::vector<evctl::Share> sources = stats.sources(); // the largest last in number, first here
    ASSERT_EQ(sources.size(), 3U);
    EXPECT_EQ(sources[0].name, "smi_ind");
    EXPECT_EQ(sources[2].name, "snmp");
}

TEST(EventStats, TalkersAreToldApartByTheVersionsOfTheirIds) {
    support::TempDirectory directory;
    support::writeFile(directory.file("site.json"), R"({"source": "volmgr", "events": [
        {"id": 70, "idVersion": 1, "name": "moved", "text": "t"},
        {"id": 70, "idVersion": 2, "name": "gone", "text": "t"}]})");
    setenv("EVENT_MANAGER_CATALOG", directory.path().c_str(), 1);
    EventStats stats;
    Events events;
    events.add(stats, T0, 20, 1, 70, 400, 1);
    events.add(stats, T0, 20, 1, 70, 300, 2);
    events.add(stats, T0, 20, 1, 71, 200, 1);
    events.add(stats, T0, 20, 1, 71, 100, 2);
    events.add(stats, T0, 20, 1, 71, 100, 2);
    const std::vector<evctl::Share> talkers = stats.talkers(10);
    ASSERT_EQ(talkers.size(), 4U);
    EXPECT_EQ(talkers[0].name, "volmgr moved(70)");
    EXPECT_EQ(talkers[1].name, "volmgr 71 version 2");
    EXPECT_EQ(talkers[1].amount.events, 2U);
    EXPECT_EQ(talkers[2].name, "volmgr gone(70)");
    EXPECT_EQ(talkers[3].name, "volmgr 71 version 1");
}

TEST(EventStats, LinesHaveAColumnForEachNumberAndABar) {
    EventStats stats;
    Events events;
    for (int count = 0; count < 3; count++) {
        events.add(stats, T0, 28, 1, 300, 0);
    }
    events.add(stats, T0, 18, 3, 4, 840);
    std::string lines = evctl::statsLines(stats, 80);
    EXPECT_THAT(lines, HasSubstr("startup signal(4)                        1       1000  67.6% "
                                 "###################\n"));
}

TEST(EventStats, PictureHasAColumnForEachNumber) {
    EventStats stats;
    Events events;
    events.add(stats, T0, 28, 1, 300, 840);
    std::string picture = evctl::statsPicture(stats, "log");
    for (const char* number : {"1</text>", "1000</text>", "100.0%</text>"}) {
        EXPECT_THAT(picture, HasSubstr(std::string("text-anchor=\"end\">") + number));
    }
    EXPECT_THAT(picture, HasSubstr("font-weight=\"bold\" text-anchor=\"start\">by source</text>"));
}

TEST(EventStats, HoursWithoutEventsAreLinesToo) {
    EventStats stats;
    Events events;
    events.add(stats, T0 + 10);
    events.add(stats, T0 + 3 * 3600);
    U32_t seconds = 0;
    std::vector<evctl::Share> times = stats.times(&seconds);
    EXPECT_EQ(seconds, 3600U);
    ASSERT_EQ(times.size(), 4U);
    EXPECT_EQ(times[0].name, "2006-11-21T14:00:00Z");
    EXPECT_EQ(times[0].amount.events, 1U);
    EXPECT_EQ(times[2].name, "2006-11-21T16:00:00Z");
    EXPECT_EQ(times[2].amount.events, 0U);
}

TEST(EventStats, AChartOf48HoursHasALineAnHour) {
    EventStats stats;
    Events events;
    events.add(stats, T0);
    events.add(stats, T0 + 47 * 3600);
    U32_t seconds = 0;
    EXPECT_EQ(stats.times(&seconds).size(), 48U);
    EXPECT_EQ(seconds, 3600U);
    events.add(stats, T0 + 48 * 3600);
    EXPECT_EQ(stats.times(&seconds).size(), 17U);
    EXPECT_EQ(seconds, 3U * 3600);
}

TEST(EventStats, AnyTimesGiveFewLines) {
    for (U32_t last : {T0 + 47 * 3600, T0 + 48 * 3600, T0 + 40 * 86'400, UINT32_MAX}) {
        EventStats stats;
        Events events;
        events.add(stats, last == UINT32_MAX ? 0 : T0);
        events.add(stats, last);
        U32_t seconds = 0;
        EXPECT_LE(stats.times(&seconds).size(), 48U);
        EXPECT_EQ(seconds == 3600, last == T0 + 47 * 3600 || last == UINT32_MAX);
    }
}

TEST(EventStats, CommandCountsSeveralFiles) {
    support::TempDirectory directory;
    test::LogImage log;
    log.events(0, 10);
    log.dummy();
    log.zerosTo();
    support::writeFile(directory.file("one"), log.bytes);
    test::LogImage other;
    for (uint32_t id = 0; id < 10; id++) {
        other.raw(test::record({.slot = 3, .id = id}, std::string(40, 'e')));
    }
    other.dummy();
    other.zerosTo();
    support::writeFile(directory.file("two"), other.bytes);
    support::writeFile(directory.file("copy"), log.bytes);
    std::vector<std::string> command = {"stats", directory.file("one"), directory.file("two")};
    test::Said said = test::run(command);
    EXPECT_EQ(said.status, 0);
    EXPECT_THAT(said.output, HasSubstr("20 events, 4000 bytes in a log\n"));
    command.push_back(directory.file("copy")); // what it has has been counted
    EXPECT_THAT(test::run(command).output, HasSubstr("20 events, 4000 bytes in a log\n"));
    command.insert(command.end(), {"--seq", "3", "-o", "json"});
    EXPECT_THAT(test::run(command).output, HasSubstr(R"({"events":2,"bytes":400,)"));
    EXPECT_THAT(test::run(command).output, HasSubstr(R"("hoursHeld":null,"full":null,)"));
    command = {"stats", directory.file("one")};
    EXPECT_THAT(test::run(command).output, HasSubstr("10 events, 2000 bytes in a log, which is "));
    command.insert(command.end(), {"--since", "@0"});
    EXPECT_THAT(test::run(command).output, HasSubstr("10 events, 2000 bytes in a log\n"));
    command.insert(command.end(), {"--blade", "BLADE-B"});
    EXPECT_THAT(test::run(command).output, HasSubstr("0 events, "));
    EXPECT_THAT(test::run({"stats", directory.file("one"), "--local", "-o", "json"}).output,
                HasSubstr("\"firstTime\":\"2006-11-21T14:00:00Z\""));
    EXPECT_THAT(test::run({"stats", directory.file("one"), "-o", "svg"}).output,
                HasSubstr("startup: 10 events"));
    test::Said none = test::run({"stats", directory.file("missing")});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.output, "");
    test::Said rest = test::run({"stats", directory.file("missing"), directory.file("one")});
    EXPECT_EQ(rest.status, 1);
    EXPECT_THAT(rest.output, HasSubstr("10 events, 2000 bytes in a log, which is 0.1% full\n"));
    EXPECT_THAT(rest.errors, HasSubstr("missing: No such file or directory\n"));
}

TEST(EventStats, AnyFileIsCountedOrRefused) {
    support::TempDirectory directory;
    std::minstd_rand random(20061122);
    for (int round = 0; round < 20; round++) {
        std::string bytes = (round % 2 == 0 ? test::unwrapped() : test::wrapped(300)).bytes;
        for (int acts = 0; acts < 3 && bytes.size() > 400; acts++) {
            test::damage(bytes, random);
        }
        support::writeFile(directory.file("log"), bytes);
        for (const char* form : {"text", "svg"}) {
            EXPECT_LE(test::run({"stats", directory.file("log"), "-o", form}).status, 2);
        }
    }
}
