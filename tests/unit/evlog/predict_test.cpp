/**
 * What is predicted of the events behind a start, against the event manager's own scan and appends:
 * the same number of events is stored before a bug-check, or none comes.
 */
#include "event_manager_run.h"
#include "evlog/predict.h"
#include "log_damage.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>

using test::EVENTS_MAX;
using test::LogImage;
using test::storedBy;

namespace {

/** Compares for the largest events; smaller ones take too many to go round, unless the log is full.
 */
void expectAgreement(const LogImage& log, const std::string& what,
                     const EvlogIdentity_t& blade = test::identityOf("CHASSIS-1", 2),
                     U32_t dataLength = 3848) {
    SCOPED_TRACE(what);
    EvlogPrediction_t prediction = evlogPredict(test::imageOf(log.bytes), &blade, {dataLength});
    std::optional<U32_t> stored = storedBy(log.bytes, dataLength, blade);
    EXPECT_EQ(stored.has_value(), !evlogIsFatal(prediction.state.verdict));
    if (!stored) {
        return;
    }
    EXPECT_EQ(*stored, prediction.bugcheck ? prediction.bugcheck->events : EVENTS_MAX)
        << (prediction.bugcheck ? prediction.bugcheck->message : "no bug-check");
}

LogImage unwrapped() {
    LogImage log;
    log.firstEntry();
    log.events(1, 10);
    log.dummy();
    log.zerosTo();
    return log;
}

LogImage wrapped(size_t gap) {
    LogImage log;
    log.events(1000, 20);
    log.raw(std::string(gap, 'g'));
    log.events(500, 30);
    log.dummy();
    log.zerosTo();
    return log;
}

/** A golden file: its size, then lines of an offset and the bytes from there on. */
LogImage goldenLog(const std::string& name) {
    std::ifstream file(std::string(GOLDEN_DIRECTORY) + "/" + name + ".log.txt");
    LogImage log;
    std::string word;
    std::string digits;
    while (file >> word >> digits) {
        if (word == "size") {
            log.bytes.resize(std::stoul(digits));
            continue;
        }
        for (size_t at = 0; at < digits.size(); at += 2) {
            log.bytes.at(std::stoul(word) + at / 2) =
                static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
        }
    }
    EXPECT_EQ(log.bytes.size(), test::RING);
    return log;
}

EvlogPrediction_t predict(const LogImage& log) {
    return evlogPredict(test::imageOf(log.bytes), nullptr);
}

} // namespace

TEST(Predict, AgreesOnSoundFiles) {
    expectAgreement(LogImage(), "empty");
    expectAgreement(unwrapped(), "unwrapped");
    expectAgreement(wrapped(0), "wrapped, no gap");
    expectAgreement(wrapped(77), "wrapped, small gap");
    expectAgreement(wrapped(5000), "wrapped, large gap");
}

TEST(Predict, AgreesOnFilesWithoutDummy) {
    LogImage cut;
    cut.firstEntry();
    cut.events(1, 10);
    expectAgreement(cut, "ends behind a record");
    cut.zerosTo();
    expectAgreement(cut, "zeros behind a record");
}

TEST(Predict, AgreesOnEachDamagedRecordOfAnUnwrappedLog) {
    for (size_t at : {0, 1, 3, 100}) {
        for (size_t record : {size_t{0}, size_t{200}, size_t{1000}, size_t{2000}, size_t{2200}}) {
            LogImage log = unwrapped();
            log.damage(record + at);
            expectAgreement(log, std::to_string(record + at));
        }
    }
}

TEST(Predict, AgreesOnDamagedRecordsOfAWrappedLog) {
    for (size_t gap : {0, 77}) {
        for (size_t record : {size_t{0}, size_t{3800}, size_t{4000} + gap, size_t{6000} + gap}) {
            LogImage log = wrapped(gap);
            log.damage(record + 100);
            expectAgreement(log, std::to_string(gap) + " " + std::to_string(record));
        }
    }
}

TEST(Predict, AgreesOnAStaleDummyInTheGap) {
    LogImage log;
    log.events(1000, 20);
    log.dummy(500);
    log.raw(std::string(500, '\0'));
    log.events(500, 30);
    log.dummy();
    log.zerosTo();
    expectAgreement(log, "stale dummy");
}

// Behind the wrap the rest of the first event lies in the gap, and what it quotes is found there.
// Whether an event that just fits discards one decides on when the record behind it is met.
TEST(Predict, AgreesOnAnEventThatJustFitsIntoTheGap) {
    for (size_t gap : {4007, 4008, 4009}) {
        LogImage log;
        log.events(1000, 20);
        log.raw(std::string(gap, 'g'));
        log.event(500, 3848);
        log.event(777); // the ids go on elsewhere
        log.events(501, 20);
        log.dummy();
        log.zerosTo();
        expectAgreement(log, std::to_string(gap));
    }
}

// What it needs lies in the gap and in the record behind it, not in that record alone.
TEST(Predict, AgreesOnAnEventThatNeedsTheGapToo) {
    for (size_t gap : {2000, 2007, 2008, 2009, 3000}) {
        LogImage log;
        log.events(1000, 20);
        log.raw(std::string(gap, 'g'));
        log.event(500, 1840);
        log.dummy(100);
        log.zerosTo();
        expectAgreement(log, std::to_string(gap));
    }
}

TEST(Predict, AgreesOnADummyThatSaysLessThanItsSpace) {
    for (bool whole : {true, false}) {
        LogImage log;
        log.events(1000, 20);
        log.events(500, 30);
        log.dummy(100);
        if (whole) {
            log.zerosTo();
        }
        expectAgreement(log, whole ? "whole" : "short");
    }
}

// The index has holes, and the first record lies at 0, as an empty entry says too.
TEST(Predict, AgreesOnIdsThatJumpBehindTheFirstRecord) {
    LogImage log;
    log.event(5, 3848);
    for (uint32_t id = 9000; log.bytes.size() + 4008 <= test::RING - 4008; id++) {
        log.event(id, 3848);
    }
    log.dummy();
    log.zerosTo();
    expectAgreement(log, "jump");
}

TEST(Predict, AgreesOnAQuotedRecordInTheGapBehindTheWrap) {
    for (size_t before : {60, 100, 200, 300}) {
        for (uint32_t id : {1001, 7, 40}) {
            LogImage log;
            const uint8_t source = id == 40 ? 40 : 18; // no process has this one
            std::string quoted = test::record({.id = id, .source = source}, std::string(40, 'q'));
            std::string first = std::string(before, 'e') + quoted;
            log.raw(test::record({.id = 1000}, first + std::string(3848 - first.size(), 'e')));
            for (uint32_t more = 1001; log.bytes.size() + 4008 <= test::RING; more++) {
                log.event(more, 3848);
            }
            log.dummy();
            log.zerosTo();
            expectAgreement(log, std::to_string(before) + " " + std::to_string(id),
                            test::identityOf("CHASSIS-1", 2), 40);
        }
    }
}

TEST(Predict, AgreesOnTheGoldenFiles) {
    for (const char* name : {"fresh", "events", "cleared", "wrapped"}) {
        expectAgreement(goldenLog(name), name,
                        test::identityOf("ENCLOSURE-SERIAL-0123456789-ABC", 3));
        expectAgreement(goldenLog(name), std::string(name) + " of another blade");
    }
}

TEST(Predict, AgreesOnRandomDamage) {
    std::minstd_rand random(20061123);
    for (int round = 0; round < 10; round++) {
        LogImage log = round % 2 == 0 ? test::unwrapped() : test::wrapped(round % 4 == 1 ? 0 : 300);
        for (unsigned acts = 1 + static_cast<unsigned>(random() % 3); acts > 0; acts--) {
            test::damage(log.bytes, random);
            if (log.bytes.size() < 400) {
                break;
            }
        }
        expectAgreement(log, "round " + std::to_string(round));
    }
}

TEST(Predict, AgreesOnTheFirstInquiry) {
    std::map<std::string, LogImage> logs = {{"empty", LogImage()}, {"sound", unwrapped()}};
    logs["sound, wrapped"] = wrapped(77);
    logs["a dummy entry to the end"].dummy();
    logs["a dummy entry to the end"].zerosTo();
    logs["a short dummy entry"].dummy(500);
    logs["a short dummy entry"].zerosTo();
    logs["a dummy entry as long as an event may be"].dummy(3848);
    logs["a dummy entry as long as an event may be"].zerosTo();
    logs["a dummy entry that is longer"].dummy(3849);
    logs["a dummy entry that is longer"].zerosTo();
    logs["a dummy entry behind damage"].raw(std::string(300, 'x'));
    logs["a dummy entry behind damage"].dummy();
    logs["a dummy entry behind damage"].zerosTo();
    logs["damaged first record"] = unwrapped();
    logs["damaged first record"].damage(0);
    U32_t ended = 0;
    for (const auto& [what, log] : logs) {
        const EvlogIdentity_t blade = test::identityOf("CHASSIS-1", 2);
        const bool predicted =
            evlogPredict(test::imageOf(log.bytes), &blade, {}).inquiryBugcheck == nullptr;
        const bool outlived = test::outlives(EMP_E_INQUIRY_TYPE_FIRST, log.bytes) &&
                              test::outlives(EMP_E_INQUIRY_TYPE_LAST, log.bytes);
        EXPECT_EQ(predicted, outlived) << what;
        ended += outlived ? 0 : 1;
    }
    EXPECT_GE(ended, 2U);
}

TEST(Predict, SoundFileLosesNothing) {
    EvlogPrediction_t prediction = predict(unwrapped());
    EXPECT_EQ(prediction.taken, 11U);
    EXPECT_EQ(prediction.lost, 0U);
    EXPECT_EQ(prediction.damaged, 0U);
    EXPECT_FALSE(prediction.isFatal());
    EXPECT_FALSE(prediction.bugcheck);
}

TEST(Predict, DestroyedFirstSignatureEndsInABugCheckAtTheWrap) {
    LogImage log = unwrapped();
    log.damage(0);
    EvlogPrediction_t prediction = predict(log);
    EXPECT_EQ(prediction.damaged, 1U);
    EXPECT_FALSE(prediction.isFatal());
    ASSERT_TRUE(prediction.bugcheck);
    EXPECT_STREQ(prediction.bugcheck->message, "Incorrect Signature in Event Entry!");
    EXPECT_EQ(prediction.bugcheck->dataLength, 3848U);
    EXPECT_EQ(prediction.bugcheck->events, (1'600'000U - 2200) / 4008);
}

TEST(Predict, DamagedRecordInsideIsFatalAtTheFirstEvent) {
    LogImage log = unwrapped();
    log.damage(1100);
    EvlogPrediction_t prediction = predict(log);
    EXPECT_FALSE(evlogIsFatal(prediction.state.verdict));
    EXPECT_TRUE(prediction.isFatal());
}

TEST(Predict, SecondGapSetsTheEventsAside) {
    LogImage log = unwrapped();
    log.damage(500);
    log.damage(1300);
    EvlogPrediction_t prediction = predict(log);
    EXPECT_EQ(prediction.state.verdict, EVLOG_E_VERDICT_REBUILT);
    EXPECT_EQ(prediction.taken, 0U);
    EXPECT_EQ(prediction.lost, 9U);
    EXPECT_FALSE(prediction.isFatal());
}

TEST(Predict, AnythingMayBeInAFile) {
    for (int byte : {0x00, 0xB6, 0xFF}) {
        LogImage log;
        log.raw(std::string(test::RING, static_cast<char>(byte)));
        EXPECT_EQ(predict(log).taken, 0U);
    }
    LogImage crafted; // plausible headers everywhere, each with a long body and a wrong checksum
    while (crafted.bytes.size() < test::RING) {
        crafted.raw(std::string("\xB6\x8F\x01\x00", 4));
    }
    EXPECT_EQ(predict(crafted).taken, 0U);
}
