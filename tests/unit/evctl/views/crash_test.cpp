#include "evctl/views/crash.h"

#include "crash_records.h"

#include <gtest/gtest.h>

using evctl::Crash;
using test::CrashLog;

namespace {

/** One letter for each record from id 11 on: its fill, '.' when it is missing. */
std::vector<std::string> grouped(const CrashLog& log) {
    std::vector<std::string> texts;
    for (const Crash& crash : evctl::findCrashes(log.records())) {
        std::string text;
        for (const EvlogRecord_t* record : crash.records) {
            text += record == nullptr ? '.' : static_cast<char>(record->body[0]);
        }
        texts.push_back(text);
    }
    return texts;
}

std::string times(size_t count, char letter) {
    return std::string(count, letter);
}

using Texts = std::vector<std::string>;

} // namespace

TEST(Crash, NoRecordsNoCrash) {
    CrashLog log;
    log.add(3, 100, std::vector<U8_t>(50));
    EXPECT_EQ(grouped(log), Texts{});
}

TEST(Crash, TwentyFourRecordsAreOne) {
    CrashLog log;
    log.addRange(11, 34, 100, 'a');
    EXPECT_EQ(grouped(log), Texts{times(24, 'a')});
}

TEST(Crash, RecordsOfOneSecondComeInAnyOrder) {
    CrashLog log;
    for (U32_t id = 34; id >= 11; id -= 1) {
        log.add(id, 100, 'a');
    }
    EXPECT_EQ(grouped(log), Texts{times(24, 'a')});
}

TEST(Crash, RecordOfTheNextSecondMayComeBetweenThoseOfTheFirst) {
    CrashLog log;
    log.addRange(11, 15, 100, 'a');
    log.add(20, 101, 'a');
    log.addRange(16, 19, 100, 'a');
    log.addRange(21, 34, 101, 'a');
    EXPECT_EQ(grouped(log), Texts{times(24, 'a')});
}

TEST(Crash, OtherEventsBetweenAreNoPart) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    log.add(11, 100, std::vector<U8_t>(196, 'x'), 18);
    log.add(35, 100, std::vector<U8_t>(2000, 'x'));
    log.add(12, 100, std::vector<U8_t>(459, 'x')); // not the length of a control block
    log.addRange(21, 34, 101, 'a');
    EXPECT_EQ(grouped(log), Texts{times(24, 'a')});
}

TEST(Crash, MissingRecordsStayMissing) {
    CrashLog log;
    log.add(11, 100, 'a');
    log.addRange(14, 33, 100, 'a');
    EXPECT_EQ(grouped(log), Texts{"a.." + times(20, 'a') + "."});
}

TEST(Crash, OneRecordIsEnough) {
    CrashLog log;
    log.add(34, 100, 'a');
    EXPECT_EQ(grouped(log), Texts{times(23, '.') + "a"});
}

TEST(Crash, TwoBehindEachOther) {
    CrashLog log;
    log.addRange(11, 34, 100, 'a');
    log.addRange(11, 34, 105, 'b');
    EXPECT_EQ(grouped(log), (Texts{times(24, 'a'), times(24, 'b')}));
}

TEST(Crash, TwoOfOneSecondInTurns) {
    CrashLog log;
    for (U32_t id = 11; id <= 34; id++) {
        log.add(id, 100, 'a');
        log.add(id, 100, 'b');
    }
    EXPECT_EQ(grouped(log), (Texts{times(24, 'a'), times(24, 'b')}));
}

TEST(Crash, TailOfTheFirstInTheSecondOfTheNext) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    log.addRange(11, 15, 101, 'b'); // what comes first in the directory comes first in the log
    log.addRange(21, 34, 101, 'a');
    log.addRange(16, 34, 102, 'b');
    EXPECT_EQ(grouped(log), (Texts{times(24, 'a'), times(24, 'b')}));
}

TEST(Crash, OneWithoutItsTailDoesNotRobTheNext) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    log.addRange(11, 34, 102, 'b');
    EXPECT_EQ(grouped(log), (Texts{times(10, 'a') + times(14, '.'), times(24, 'b')}));
}

TEST(Crash, PartsFarApartAreTwo) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    log.addRange(21, 34, 111, 'b');
    EXPECT_EQ(grouped(log),
              (Texts{times(10, 'a') + times(14, '.'), times(10, '.') + times(14, 'b')}));
}

TEST(Crash, ClockSetBackBetweenTwo) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    log.addRange(21, 34, 99, 'b');
    EXPECT_EQ(grouped(log).size(), 2U);
}

namespace {

/** As grouped(), in capitals what waits. */
std::vector<std::string> groupedWith(const CrashLog& log, const CrashLog& waiting) {
    std::vector<std::string> texts;
    for (const Crash& crash : evctl::findCrashes(log.records(), waiting.records())) {
        std::string text;
        for (size_t place = 0; place < evctl::CRASH_RECORDS; place++) {
            const EvlogRecord_t* record = crash.records.at(place);
            int letter = record == nullptr ? '.' : record->body[0];
            text += static_cast<char>(crash.waiting[place] ? toupper(letter) : letter);
        }
        texts.push_back(text);
    }
    return texts;
}

} // namespace

TEST(Crash, WhatWaitsForTheNextStartIsTheNewest) {
    CrashLog log;
    log.addRange(11, 34, 100, 'a');
    CrashLog waiting;
    waiting.addRange(11, 34, 500, 'b');
    EXPECT_EQ(groupedWith(log, waiting), (Texts{times(24, 'a'), times(24, 'B')}));
    EXPECT_EQ(groupedWith({}, waiting), (Texts{times(24, 'B')}));
}

TEST(Crash, WhatWaitsAndIsInTheLogTooIsOne) {
    CrashLog log;
    log.addRange(11, 34, 100, 'a');
    CrashLog waiting;
    waiting.add(300, 99, std::vector<U8_t>(50)); // so that no sequence ids are the same
    waiting.addRange(11, 34, 100, 'a');
    EXPECT_EQ(groupedWith(log, waiting), (Texts{times(24, 'a')}));
}

TEST(Crash, AReplayThatEndedHalfWayLeavesOneOfBothAndNoneOfWhatIsInBoth) {
    CrashLog log;
    log.addRange(11, 20, 100, 'a');
    CrashLog waiting;
    waiting.addRange(20, 34, 100, 'a');
    EXPECT_EQ(groupedWith(log, waiting), (Texts{times(10, 'a') + times(14, 'A')}));
}

TEST(Crash, TwoOfOneSecondThatDifferInOneRecordOnlyAreTwo) {
    CrashLog log;
    log.addRange(11, 34, 100, 'a');
    CrashLog waiting;
    waiting.add(12, 100, 'b');
    waiting.addRange(13, 34, 100, 'a');
    waiting.add(11, 100, 'a');
    EXPECT_EQ(groupedWith(log, waiting), (Texts{times(24, 'a'), "AB" + times(22, 'A')}));
}
