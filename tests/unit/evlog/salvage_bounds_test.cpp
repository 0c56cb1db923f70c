/** What is put together from damaged logs at the borders of its rules: the last byte of room, the
 * order of what gets new ids, times and ids that are just far enough apart. */
#include "evlog/predict.h"
#include "evlog/salvage.h"
#include "log_image.h"

#include <gtest/gtest.h>

using test::LogImage;
using test::record;

namespace {

class SalvageBounds : public testing::Test {
  protected:
    static EvlogSource_t sourceOf(const std::string& text, bool waiting = false) {
        return {.bytes = {reinterpret_cast<const U8_t*>(text.data()), text.size()},
                .waiting = waiting};
    }
    static EvlogSalvage_t of(const std::vector<std::string>& logs, bool renumber = false,
                             const std::vector<std::string>& waiting = {}) {
        std::vector<EvlogSource_t> sources;
        for (const std::string& log : logs) {
            sources.push_back(sourceOf(log));
        }
        for (const std::string& file : waiting) {
            sources.push_back(sourceOf(file, true));
        }
        return evlogSalvage(sources, {.renumber = renumber});
    }
    static std::string event(uint32_t id, const std::string& body, uint32_t time = 1000,
                             uint32_t slot = 2) {
        return record({.slot = slot, .id = id, .time = time}, body);
    }
    /** The data of the events that were saved, in their order; "-" stands for a mark. */
    static std::string dataOf(const EvlogSalvage_t& result) {
        std::string all;
        const test::Walked walked = test::walk({result.bytes.begin(), result.bytes.end()});
        for (const EvlogRecord_t& found : walked.records) {
            all += found.body.empty() ? "-" : std::string(found.body.begin(), found.body.end());
        }
        return all;
    }
    static size_t left(const EvlogSalvage_t& result, EVLOG_LEFT_e reason) {
        return static_cast<size_t>(std::ranges::count(result.left, reason, &EvlogLeft_t::reason));
    }
    /** Its file is whole, and a start takes all that it says. */
    static void expectSound(const EvlogSalvage_t& result) {
        ASSERT_EQ(result.bytes.size(), test::RING);
        const EvlogPrediction_t prediction =
            evlogPredict(evlogImageOf(result.bytes), &result.identity, {3848});
        EXPECT_EQ(prediction.state.verdict, EVLOG_E_VERDICT_UNWRAPPED);
        EXPECT_EQ(prediction.taken, result.saved + result.marks);
        EXPECT_EQ(prediction.lost, 0U);
        EXPECT_FALSE(prediction.bugcheck);
    }
    /** Events of 200 bytes from an id on, behind one of other data. */
    static std::string manyBehind(const std::string& first, uint32_t firstId, uint32_t count) {
        LogImage log;
        log.raw(first);
        log.events(firstId, count);
        return log.bytes;
    }
};

} // namespace

TEST_F(SalvageBounds, MarksTakeRoomThatTheOldestEventsGiveWayFor) {
    LogImage log;
    log.events(1, 5000);
    log.events(5101, 2950); // behind a hundred that are lost
    const EvlogSalvage_t result = of({log.bytes});
    // 1,599,840 bytes hold 2,950 events, 100 marks of 160 bytes and 4,969 more.
    EXPECT_EQ(result.saved, 2950U + 4969U);
    EXPECT_EQ(result.marks, 100U);
    EXPECT_EQ(result.firstId, 32U);
    EXPECT_EQ(left(result, EVLOG_E_LEFT_OLDEST), 31U);
    expectSound(result);
}

TEST_F(SalvageBounds, ALogThatTakesTheLastByteOfRoomIsWhole) {
    // 240 bytes and 7,998 events of 200 leave room for the dummy entry.
    const EvlogSalvage_t whole = of({manyBehind(event(1, std::string(80, 'f')), 2, 7998)});
    EXPECT_EQ(whole.saved, 7999U);
    EXPECT_TRUE(whole.left.empty());
    expectSound(whole);
    const EvlogSalvage_t over = of({manyBehind(event(1, std::string(81, 'f')), 2, 7998)});
    EXPECT_EQ(over.saved, 7998U);
    EXPECT_EQ(left(over, EVLOG_E_LEFT_OLDEST), 1U);
    expectSound(over);
}

// The mark that would have to stand before it has its room or has not.
TEST_F(SalvageBounds, AReplayedEventOfAnotherSlotThatIsTheOldestNeedsRoomForAMark) {
    const EvlogSalvage_t fits = of({manyBehind(event(5, std::string(120, 'f'), 9, 3), 6, 7997)});
    EXPECT_EQ(fits.saved, 7998U);
    EXPECT_EQ(fits.marks, 1U);
    EXPECT_EQ(fits.firstId, 4U);
    expectSound(fits);
    const EvlogSalvage_t over = of({manyBehind(event(5, std::string(121, 'f'), 9, 3), 6, 7997)});
    EXPECT_EQ(over.saved, 7997U);
    EXPECT_EQ(over.marks, 0U);
    EXPECT_EQ(left(over, EVLOG_E_LEFT_FOREIGN), 1U);
    expectSound(over);
}

TEST_F(SalvageBounds, NoMarkStandsBeforeTheFirstIdOfAnInstance) {
    const std::string foreign = record({.slot = 3, .instance = 8, .id = 0}, "f");
    const std::string own =
        record({.instance = 8, .id = 1}, "a") + record({.instance = 8, .id = 2}, "b");
    const EvlogSalvage_t result = of({foreign + own});
    EXPECT_EQ(dataOf(result), "ab");
    EXPECT_EQ(left(result, EVLOG_E_LEFT_FOREIGN), 1U);
}

TEST_F(SalvageBounds, LaterGenerationsStandBeforeWhatWaits) {
    const std::string waiting = record({.instance = 0}, "w");
    const EvlogSalvage_t result =
        of({event(0, "c", 900) + event(1, "d", 901), event(40, "a", 100) + event(41, "b", 101)},
           true, {waiting});
    EXPECT_EQ(dataOf(result), "abcdw");
    EXPECT_EQ(result.renumbered, 3U);
}

// A clock that stood wrong at its beginning does not make a log the older one.
TEST_F(SalvageBounds, GenerationsAreOrderedByTheirNewestEvents) {
    const EvlogSalvage_t result =
        of({event(0, "c", 5) + event(1, "d", 901),
            event(40, "a", 100) + event(1, "b", 20) + event(41, "e", 101)},
           true);
    EXPECT_EQ(dataOf(result), std::string("b") + std::string(38, '-') + "aecd");
}

TEST_F(SalvageBounds, LogsWithoutAnIdInCommonAreOneUnlessTheirTimesContradict) {
    const std::string low = event(1, "a", 100) + event(2, "b", 200);
    auto isOne = [&low](uint32_t first, uint32_t last) {
        const EvlogSalvage_t result = of({low, event(3, "c", first) + event(4, "d", last)});
        EXPECT_EQ(dataOf(result), result.left.empty() ? "abcd" : "ab");
        return result.left.empty();
    };
    EXPECT_TRUE(isOne(200, 300));
    EXPECT_TRUE(isOne(200, 100)) << "no time before that of the lower ids' last";
    EXPECT_TRUE(isOne(199, 101)) << "beside them";
    EXPECT_FALSE(isOne(199, 100)) << "before all of them";
    EXPECT_FALSE(isOne(10, 20));
    const EvlogSalvage_t between = of({event(1, "a", 100) + event(3, "c", 300), event(2, "b", 1)});
    EXPECT_EQ(dataOf(between), "abc") << "ids among the others' are of the same log";
}

TEST_F(SalvageBounds, OfEquallyManyEventsTheNewerIdsAreKept) {
    const EvlogSalvage_t result =
        of({event(5, "a") + event(6, "b") + event(40'005, "c") + event(40'006, "d")});
    EXPECT_EQ(dataOf(result), "cd");
    EXPECT_EQ(left(result, EVLOG_E_LEFT_GENERATION), 2U);
}

TEST_F(SalvageBounds, IdsAreTooFarApartWhenMarksBetweenThemCouldNotFit) {
    // So many headers of 160 bytes have room.
    const EvlogSalvage_t together = of({event(5, "a") + event(5 + 9999, "b")});
    EXPECT_EQ(together.left.size(), 1U);
    EXPECT_EQ(left(together, EVLOG_E_LEFT_OLDEST), 1U) << "of one log, without room for the marks";
    const EvlogSalvage_t apart = of({event(5, "a") + event(5 + 10'000, "b")});
    EXPECT_EQ(left(apart, EVLOG_E_LEFT_GENERATION), 1U);
}

TEST_F(SalvageBounds, RecordThatBeginsWithinTheRingIsReadAndNoneBehind) {
    LogImage log;
    log.events(1, 7999);
    log.raw(std::string(200, 'g'));
    ASSERT_EQ(log.bytes.size(), test::RING);
    EXPECT_EQ(of({log.bytes + event(8000, "z")}).saved, 8000U - 1) << "the oldest gives way";
    EXPECT_EQ(of({log.bytes + event(8000, "z")}).lastId, 8000U);
    EXPECT_EQ(of({log.bytes + "g" + event(8000, "z")}).lastId, 7999U);
}

TEST_F(SalvageBounds, RecordBehindOneThatEndsWithTheRingIsRead) {
    LogImage log;
    log.events(1, 8000);
    EXPECT_EQ(of({log.bytes + event(8001, "z")}).lastId, 8001U);
}

TEST_F(SalvageBounds, AMarkSaysTheTimeOfTheEventBeforeIt) {
    const EvlogSalvage_t result =
        of({event(1, "a", 100) + event(2, "b", 200) + event(4, "d", 400)});
    const test::Walked walked = test::walk({result.bytes.begin(), result.bytes.end()});
    ASSERT_EQ(walked.records.size(), 4U);
    EXPECT_EQ(U32_t{walked.records[2].header->evTime}, 200U);
}

TEST_F(SalvageBounds, OfEventsOfOneIdInOneFileTheFirstCountsAndOthersAreConflicts) {
    const EvlogSalvage_t result =
        of({event(1, "a") + event(2, "b") + event(2, "b") + event(2, "x") + event(3, "c")});
    EXPECT_EQ(dataOf(result), "abc");
    EXPECT_EQ(left(result, EVLOG_E_LEFT_CONFLICT), 1U);
    EXPECT_EQ(result.left.size(), 1U);
}

TEST_F(SalvageBounds, ALogIsOfTheOwnerThatMostOfItsEventsName) {
    const std::string replayed = event(4, "f", 9, 3);
    const EvlogSalvage_t result =
        of({event(5, "a") + event(6, "b"), replayed + event(7, "c") + event(5, "a")});
    EXPECT_EQ(dataOf(result), "-fabc");
    EXPECT_TRUE(result.left.empty());
}
