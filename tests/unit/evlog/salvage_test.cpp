/**
 * What is put together from damaged logs, and that the event manager works with it: its own scan
 * and appends run on each result.
 */
#include "evlog/salvage.h"

#include "event_manager_run.h"
#include "evlog/predict.h"
#include "log_damage.h"

#include <gtest/gtest.h>

#include <set>

using test::LogImage;
using test::record;

namespace {

const std::string BODY(40, 'e');

std::span<const U8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const U8_t*>(text.data()), text.size()};
}

std::string textOf(std::span<const U8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

EvlogSalvage_t salvage(const std::vector<std::string>& logs, bool renumber = false,
                       const std::vector<std::string>& waiting = {}) {
    std::vector<EvlogSource_t> sources;
    for (const std::string& log : logs) {
        sources.push_back({.bytes = bytesOf(log)});
    }
    for (const std::string& file : waiting) {
        sources.push_back({.bytes = bytesOf(file), .waiting = true});
    }
    return evlogSalvage(sources, {.renumber = renumber});
}

/** The mark that stands for a lost event. */
std::string mark(uint32_t id, const test::RecordFields& like = {}) {
    return record({.enclosure = "CHASSIS-1",
                   .slot = 2,
                   .instance = like.instance,
                   .id = id,
                   .time = like.time,
                   .source = 27,
                   .type = 2,
                   .category = 2,
                   .idVersion = 2,
                   .eventId = 4},
                  "");
}

/** All a new log holds: its records, then the dummy entry and zeros. */
std::string whole(std::string records, uint32_t instance = 7, uint32_t time = 1'164'117'600) {
    records += record({.instance = instance,
                       .time = time,
                       .length = 65'535,
                       .source = 27,
                       .type = 1,
                       .category = 2,
                       .eventId = 1,
                       .headerCrc = true},
                      "");
    records.resize(test::RING, '\0');
    return records;
}

std::string event(uint32_t id, uint32_t time = 1'164'117'600) {
    return record({.id = id, .time = time}, BODY);
}

std::set<std::string> eventsIn(const std::string& bytes) {
    test::Walked walked = test::walk(bytes);
    std::set<std::string> events;
    for (const EvlogRecord_t& found : walked.records) {
        if (found.header->evStructLength <= 3848) {
            events.insert(bytes.substr(found.offset, 160 + found.body.size()));
        }
    }
    return events;
}

/** Without 1.6 MB in the message. */
void expectLog(const EvlogSalvage_t& result, const std::string& expected) {
    std::string bytes = textOf(result.bytes);
    auto differ = std::ranges::mismatch(bytes, expected);
    EXPECT_TRUE(bytes == expected) << "from offset " << differ.in1 - bytes.begin() << " on";
}

/** Nothing readable is missing in the result, or not told of. */
void expectAllThere(const std::string& damaged, const EvlogSalvage_t& result) {
    std::set<std::string> left;
    for (const EvlogLeft_t& one : result.left) {
        uint32_t length = static_cast<unsigned char>(damaged[one.offset + 152]) * 256U +
                          static_cast<unsigned char>(damaged[one.offset + 153]);
        left.insert(damaged.substr(one.offset, 160 + length));
    }
    std::set<std::string> saved = eventsIn(textOf(result.bytes));
    for (const std::string& one : eventsIn(damaged)) {
        EXPECT_NE(saved.contains(one), left.contains(one));
    }
}

void expectSound(const EvlogSalvage_t& result) {
    std::string bytes = textOf(result.bytes);
    EXPECT_EQ(bytes.size(), test::RING);
    EXPECT_TRUE(test::walk(bytes).findings.empty());
    EvlogPrediction_t prediction = evlogPredict(test::imageOf(bytes), &result.identity, {3848});
    EXPECT_EQ(prediction.state.verdict, EVLOG_E_VERDICT_UNWRAPPED);
    EXPECT_EQ(prediction.taken, result.saved + result.marks);
    EXPECT_EQ(prediction.lost, 0U);
    EXPECT_FALSE(prediction.bugcheck);
    EXPECT_EQ(test::storedBy(bytes, 3848), test::EVENTS_MAX);
}

void expectSaved(const std::string& damaged, const std::string& what) {
    SCOPED_TRACE(what);
    EvlogSalvage_t result = salvage({damaged});
    if (result.bytes.empty()) {
        EXPECT_TRUE(eventsIn(damaged).empty());
        return;
    }
    expectAllThere(damaged, result);
    expectSound(result);
}

std::vector<EVLOG_LEFT_e> reasonsOf(const EvlogSalvage_t& result) {
    std::vector<EVLOG_LEFT_e> reasons;
    for (const EvlogLeft_t& left : result.left) {
        reasons.push_back(left.reason);
    }
    return reasons;
}

} // namespace

TEST(Salvage, SoundLogStaysAsItIs) {
    LogImage log;
    log.firstEntry();
    log.events(1, 10);
    log.dummy();
    log.zerosTo();
    EvlogSalvage_t result = salvage({log.bytes});
    expectLog(result, log.bytes);
    EXPECT_EQ(result.saved, 11U);
    EXPECT_EQ(result.marks, 0U);
}

TEST(Salvage, IdOfALostEventIsTakenByAMark) {
    EvlogSalvage_t result = salvage({event(5, 100) + std::string(50, 'x') + event(7, 200)});
    expectLog(result, whole(event(5, 100) + mark(6, {.time = 100}) + event(7, 200), 7, 200));
}

TEST(Salvage, WrappedLogIsUnrolled) {
    EvlogSalvage_t result = salvage({event(1000) + event(1001) + "gap" + event(999)});
    expectLog(result, whole(event(999) + event(1000) + event(1001)));
}

TEST(Salvage, EventsBehindAStaleDummyAreThere) {
    LogImage log;
    log.event(11);
    log.dummy(0);
    log.event(10);
    expectLog(salvage({log.bytes}), whole(event(10) + event(11)));
}

TEST(Salvage, EventsOfSeveralFilesAreMerged) {
    EvlogSalvage_t result =
        salvage({event(5) + event(6) + event(8), event(6) + event(7) + event(8)});
    expectLog(result, whole(event(5) + event(6) + event(7) + event(8)));
    EXPECT_EQ(result.repeated, 2U);
    EXPECT_TRUE(result.left.empty());
}

TEST(Salvage, OtherBytesUnderAnIdOfTheSameLogGiveWayToTheFirstFile) {
    std::string other = record({.id = 6}, "other");
    EvlogSalvage_t result = salvage({event(5) + event(6), event(5) + other});
    expectLog(result, whole(event(5) + event(6)));
    ASSERT_EQ(result.left.size(), 1U);
    EXPECT_EQ(result.left[0].reason, EVLOG_E_LEFT_CONFLICT);
    EXPECT_EQ(result.left[0].source, 1U);
    EXPECT_EQ(result.left[0].offset, 200U);
    EXPECT_EQ(result.left[0].sequenceId, 6U);
}

TEST(Salvage, LogThatBeganItsIdsAnewIsAnother) {
    std::string rebuilt = event(0, 900) + event(1, 901);
    std::string aside = event(40, 100) + event(41, 101);
    EvlogSalvage_t result = salvage({rebuilt, aside});
    expectLog(result, whole(rebuilt, 7, 901));
    EXPECT_EQ(reasonsOf(result), std::vector(2, EVLOG_E_LEFT_GENERATION));
    result = salvage({aside, record({.id = 40}, "other")});
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_GENERATION)) << "no event in common";
}

TEST(Salvage, LaterGenerationsGetNewIdsIfWished) {
    std::string rebuilt = event(0, 900) + event(1, 901);
    std::string aside = event(40, 100) + event(41, 101);
    EvlogSalvage_t result = salvage({rebuilt, aside}, true);
    expectLog(result, whole(aside + event(42, 900) + event(43, 901), 7, 901));
    EXPECT_EQ(result.renumbered, 2U);
    EXPECT_TRUE(result.left.empty());
}

TEST(Salvage, AlternateEventsGetIdsBehindTheNewest) {
    auto waiting = [](uint32_t instance, uint32_t id, const std::string& body) {
        return record({.slot = 3, .instance = instance, .id = id}, body);
    };
    EvlogSalvage_t result =
        salvage({event(5)}, false, {waiting(0, 0, "one"), "no record", waiting(0, 77, "two")});
    expectLog(result, whole(event(5) + waiting(7, 6, "one") + waiting(7, 7, "two")));
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_DAMAGED));
}

TEST(Salvage, AlternateEventsAloneMakeALog) {
    std::string waiting = record({.instance = 0, .id = 0}, "one");
    EvlogSalvage_t result = salvage({}, false, {waiting});
    expectLog(result, whole(record({.instance = 0, .id = 1}, "one"), 0));
    expectSound(result);
}

TEST(Salvage, AlternateEventsAreTakenAsTheNextStartTakesThem) {
    std::string newer = record({.version = 2, .instance = 0, .id = 0}, "one");
    std::string tooLong = record({.instance = 0, .eventId = 1}, std::string(3849, 'x'));
    EvlogSalvage_t result = salvage({}, false, {newer, tooLong});
    expectLog(result, whole(record({.instance = 0, .id = 1}, "one"), 0));
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_DAMAGED));
    expectSound(result);
}

TEST(Salvage, EventOfUnusedSpaceIsLeftOut) {
    std::string dummy = record({.source = 27, .eventId = 1, .headerCrc = true}, "");
    EXPECT_EQ(reasonsOf(salvage({}, false, {dummy})), std::vector(1, EVLOG_E_LEFT_MARKER));
}

TEST(Salvage, LogOfAnotherSlotIsLeftOut) {
    std::string foreign = record({.slot = 3, .id = 9}, BODY) + record({.slot = 3, .id = 10}, BODY);
    EvlogSalvage_t result = salvage({event(5), foreign});
    expectLog(result, whole(event(5)));
    EXPECT_EQ(reasonsOf(result), std::vector(2, EVLOG_E_LEFT_FOREIGN));
}

TEST(Salvage, OwnerMayBeNamed) {
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = 4};
    memcpy(identity.enclosureId, "CHASSIS-1", 10);
    std::string log = event(5);
    EvlogSource_t source = {.bytes = bytesOf(log)};
    EvlogSalvage_t result = evlogSalvage({&source, 1}, {.identity = &identity});
    EXPECT_TRUE(result.bytes.empty());
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_FOREIGN));
}

TEST(Salvage, ReplayedEventOfAnotherSlotIsNeverTheFirstRecord) {
    std::string foreign = record({.slot = 3, .id = 9}, BODY);
    EvlogSalvage_t result = salvage({foreign + event(10) + event(11)});
    expectLog(result, whole(mark(8) + foreign + event(10) + event(11)));
    expectSound(result);
    std::string atZero = record({.slot = 3, .id = 0}, BODY);
    result = salvage({atZero + event(1) + event(2)});
    expectLog(result, whole(event(1) + event(2))); // no id is left below
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_FOREIGN));
}

TEST(Salvage, EventLongerThanAnyMessageIsLeftOut) {
    std::string tooLong = record({.id = 6, .source = 27, .eventId = 9}, std::string(3849, 'l'));
    EvlogSalvage_t result = salvage({event(5) + tooLong + event(7)});
    expectLog(result, whole(event(5) + mark(6) + event(7)));
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_LONG));
}

TEST(Salvage, OldestGiveWayWhenTheRoomIsTooSmall) {
    LogImage first;
    first.events(1000, 5000);
    LogImage second;
    second.events(6000, 5000);
    EvlogSalvage_t result = salvage({first.bytes, second.bytes});
    // A dummy entry finds room behind 7999 events of 200 bytes.
    EXPECT_EQ(result.saved, 7999U);
    EXPECT_EQ(result.firstId, 3001U);
    EXPECT_EQ(result.lastId, 10'999U);
    EXPECT_EQ(reasonsOf(result), std::vector(2001, EVLOG_E_LEFT_OLDEST));
    expectSound(result);
}

TEST(Salvage, IdsTooFarFromTheOthersAreLeftOut) {
    EvlogSalvage_t result = salvage({event(5) + event(6) + event(4'000'000'000)});
    expectLog(result, whole(event(5) + event(6)));
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_GENERATION));
}

TEST(Salvage, IdsTooFarBeforeTheOthersAreLeftOut) {
    EvlogSalvage_t result = salvage({event(5) + event(40'000) + event(40'001)});
    expectLog(result, whole(event(40'000) + event(40'001)));
    EXPECT_EQ(reasonsOf(result), std::vector(1, EVLOG_E_LEFT_GENERATION));
}

TEST(Salvage, IdsGoOnWithANewInstancePastTheLast) {
    std::string last = record({.instance = 7, .id = 0xFFFFFFFF}, BODY);
    std::string first = record({.instance = 8, .id = 0}, BODY);
    EvlogSalvage_t result = salvage({first + last});
    expectLog(result, whole(last + first, 8));
    expectSound(result);
}

TEST(Salvage, NothingReadableGivesNothing) {
    EvlogSalvage_t result = salvage({"", std::string(test::RING, '\xB6'), "garbage"});
    EXPECT_TRUE(result.bytes.empty());
    EXPECT_EQ(result.saved, 0U);
}

TEST(Salvage, EventManagerWorksWithWhatIsLeftOfEachDamagedRecord) {
    for (size_t damaged = 0; damaged < 13; damaged++) {
        for (size_t field : {0, 154}) {
            LogImage log = test::unwrapped();
            log.damage(damaged * 200 + field);
            expectSaved(log.bytes, "unwrapped " + std::to_string(damaged * 200 + field));
        }
        LogImage ring = test::wrapped(77);
        ring.damage(damaged * 200 + 100);
        expectSaved(ring.bytes, "wrapped " + std::to_string(damaged * 200 + 100));
    }
}

TEST(Salvage, EventManagerWorksWithWhatIsLeftOfOddFiles) {
    LogImage log;
    log.events(0, 7999);
    LogImage little = log;
    little.event(7999, 0);
    little.zerosTo();
    expectSaved(little.bytes, "40 bytes left");
    LogImage crossing = log;
    crossing.event(7999, 100);
    expectSaved(crossing.bytes, "record across the end");
    LogImage full;
    full.events(3, 8000);
    expectSaved(full.bytes, "exactly full");
    LogImage gap;
    gap.event(0);
    gap.raw(std::string(77, '\0'));
    gap.event(1);
    expectSaved(gap.bytes, "foreign bytes between consecutive ids");
    LogImage bad;
    bad.event(0);
    bad.raw(record({.id = 1, .source = 40}, BODY));
    bad.event(2);
    expectSaved(bad.bytes, "bad source");
}

TEST(Salvage, EventManagerWorksWithWhatIsLeftOfRandomDamage) {
    std::minstd_rand random(20061122);
    for (int round = 0; round < 24; round++) {
        std::string bytes =
            (round % 3 == 0 ? test::unwrapped() : test::wrapped(round % 3 == 1 ? 0 : 300)).bytes;
        for (unsigned acts = 1 + static_cast<unsigned>(random() % 4); acts > 0; acts--) {
            test::damage(bytes, random);
            if (bytes.size() < 400) {
                break;
            }
        }
        expectSaved(bytes, "round " + std::to_string(round));
    }
}
