/** What is damage and what is not: offset, bytes and reason of every finding. */
#include "log_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using test::LogImage;
using test::RING;
using test::walk;
using test::Walked;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

EvlogFinding_t finding(U64_t offset, U64_t bytes, EVLOG_REASON_e reason) {
    return {.offset = offset, .bytes = bytes, .reason = reason};
}

LogImage closedLog(U32_t firstId, U32_t count) {
    LogImage log;
    log.events(firstId, count);
    log.dummy();
    log.zerosTo();
    return log;
}

} // namespace

TEST(Findings, UnwrappedLogHasNone) {
    EXPECT_THAT(walk(closedLog(0, 10).bytes).findings, IsEmpty());
}

TEST(Findings, WrapGapIsNone) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(77, 'g'));
    log.events(500, 3);
    log.dummy();
    log.zerosTo();
    Walked walked = walk(log.bytes);
    EXPECT_THAT(walked.findings, IsEmpty());
    ASSERT_EQ(walked.records.size(), 5U);
    EXPECT_EQ(walked.records[1].role, EVLOG_E_ROLE_NEWEST);
    EXPECT_EQ(walked.records[2].role, EVLOG_E_ROLE_OLDEST);
    EXPECT_EQ(walked.records[2].offset, 477U);
    EXPECT_EQ(walked.records[4].role, EVLOG_E_ROLE_OLDEST);
    ASSERT_EQ(walked.dummies.size(), 1U);
    EXPECT_EQ(walked.dummies[0].offset, 1077U);
    EXPECT_FALSE(walked.dummies[0].taken);
}

TEST(Findings, GapThatReachesTheBottomDummyIsNone) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(77, 'g'));
    log.dummy();
    log.zerosTo();
    EXPECT_THAT(walk(log.bytes).findings, IsEmpty());
}

TEST(Findings, GapBeforeTheDummyOfANeverWrappedLogIsDamage) {
    LogImage log;
    log.firstEntry();
    log.event(1);
    size_t damaged = log.event(2);
    log.dummy();
    log.zerosTo();
    log.damage(damaged + 100);
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(damaged, 200, EVLOG_E_REASON_CHECKSUM)));
}

TEST(Findings, DamageInTheHeaderTextAndInTheBodyIsAChecksum) {
    LogImage log = closedLog(0, 10);
    log.damage(3 * 200 + 8);
    log.damage(7 * 200 + 199);
    EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(600, 200, EVLOG_E_REASON_CHECKSUM),
                                                      finding(1400, 200, EVLOG_E_REASON_CHECKSUM)));
}

TEST(Findings, ReservedByteIsOutsideTheChecksum) {
    LogImage log = closedLog(0, 4);
    log.damage(203);
    EXPECT_THAT(walk(log.bytes).findings, IsEmpty());
}

TEST(Findings, EachDamagedHeaderFieldHasItsReason) {
    struct Case {
        size_t field;
        char value;
        EVLOG_REASON_e reason;
    };
    for (const Case& damage :
         {Case{0, 0x36, EVLOG_E_REASON_NO_HEADER}, Case{1, 0x0F, EVLOG_E_REASON_NO_HEADER},
          Case{2, 2, EVLOG_E_REASON_VERSION}, Case{4, 0x55, EVLOG_E_REASON_CHECKSUM},
          Case{152, 0x7F, EVLOG_E_REASON_LENGTH}, Case{154, 35, EVLOG_E_REASON_BAD_SOURCE}}) {
        LogImage log = closedLog(0, 5);
        log.bytes[400 + damage.field] = damage.value;
        EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(400, 200, damage.reason)))
            << damage.field;
    }
}

TEST(Findings, SourceAbove34OfAnUnknownTypeIsNoBugcheck) {
    LogImage log = closedLog(0, 5);
    log.bytes[400 + 154] = 35;
    log.bytes[400 + 155] = 4;
    EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(400, 200, EVLOG_E_REASON_SOURCE)));
}

TEST(Findings, BadSourceInsideTheWrapGapIsDamage) {
    LogImage log;
    log.events(1000, 2);
    log.raw("gap" + test::record({.id = 1, .source = 99, .type = 3}, ""));
    log.events(500, 1);
    log.dummy();
    log.zerosTo();
    Walked walked = walk(log.bytes);
    EXPECT_THAT(walked.findings, ElementsAre(finding(400, 163, EVLOG_E_REASON_BAD_SOURCE)));
    EXPECT_EQ(walked.records.size(), 3U);
    EXPECT_FALSE(walked.records[2].taken);
}

TEST(Findings, WalkGoesOnBehindTheSecondGap) {
    LogImage log = closedLog(0, 10);
    log.damage(3 * 200 + 20);
    log.damage(7 * 200 + 20);
    Walked walked = walk(log.bytes);
    EXPECT_EQ(walked.state.verdict, EVLOG_E_VERDICT_REBUILT);
    ASSERT_EQ(walked.records.size(), 8U);
    EXPECT_TRUE(walked.records[5].taken);
    EXPECT_EQ(walked.records[6].offset, 1600U);
    EXPECT_FALSE(walked.records[6].taken);
}

TEST(Findings, SecondGapBehindTheWrapGapIsDamage) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(77, 'g'));
    log.events(500, 3);
    log.dummy();
    log.zerosTo();
    log.damage(477 + 200 + 9);
    EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(677, 200, EVLOG_E_REASON_CHECKSUM)));
}

TEST(Findings, DamagedDummyIsFoundByWhatItLeaves) {
    LogImage log = closedLog(0, 2);
    log.damage(400 + 149);
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(400, RING - 400, EVLOG_E_REASON_CHECKSUM)));
}

TEST(Findings, ZerosWithoutADummyAreAMissingDummy) {
    LogImage log;
    log.events(0, 2);
    log.zerosTo();
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(400, RING - 400, EVLOG_E_REASON_NO_DUMMY)));
}

TEST(Findings, ZerosTooFewForADummyAreNone) {
    LogImage log;
    log.events(0, 7999);
    log.event(7999, 41); // 159 bytes would be left with a body of 41 bytes less
    log.bytes.resize(7999 * 200);
    log.event(7999, 0);
    log.zerosTo();
    EXPECT_THAT(walk(log.bytes).findings, IsEmpty());
}

TEST(Findings, ExactlyFullLogHasNone) {
    LogImage log;
    log.events(0, 8000);
    EXPECT_THAT(walk(log.bytes).findings, IsEmpty());
}

TEST(Findings, BytesBehindTheDummyAreDamage) {
    LogImage log = closedLog(0, 2);
    log.bytes[1000] = 1;
    log.bytes[2000] = 1;
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(1000, 1001, EVLOG_E_REASON_BEHIND_DUMMY)));
}

TEST(Findings, LastByteBehindTheDummyCounts) {
    LogImage log = closedLog(0, 2);
    log.bytes[RING - 1] = 1;
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(RING - 1, 1, EVLOG_E_REASON_BEHIND_DUMMY)));
}

TEST(Findings, TruncatedRecordAndShortFileAreTwo) {
    LogImage log;
    log.events(0, 3);
    EXPECT_THAT(walk(log.bytes.substr(0, 580)).findings,
                ElementsAre(finding(400, 180, EVLOG_E_REASON_CUT),
                            finding(580, RING - 580, EVLOG_E_REASON_SHORT_FILE)));
    EXPECT_THAT(walk(log.bytes.substr(0, 450)).findings,
                ElementsAre(finding(400, 50, EVLOG_E_REASON_CUT),
                            finding(450, RING - 450, EVLOG_E_REASON_SHORT_FILE)));
}

TEST(Findings, EmptyFileIsOnlyShort) {
    EXPECT_THAT(walk("").findings, ElementsAre(finding(0, RING, EVLOG_E_REASON_SHORT_FILE)));
}

TEST(Findings, GarbageIsOneStretch) {
    EXPECT_THAT(walk(std::string(RING, 'z')).findings,
                ElementsAre(finding(0, RING, EVLOG_E_REASON_NO_RECORD)));
}

TEST(Findings, SurplusIsReportedInFull) {
    LogImage log = closedLog(0, 2);
    log.zerosTo(RING + 3'000'000);
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(RING, 3'000'000, EVLOG_E_REASON_LONG_FILE)));
}

TEST(Findings, RecordAcrossTheEndOfTheRing) {
    LogImage log;
    log.events(0, 7999);
    log.event(7999, 100);
    EXPECT_THAT(walk(log.bytes).findings,
                ElementsAre(finding(RING - 200, 260, EVLOG_E_REASON_CROSSES_END),
                            finding(RING, 60, EVLOG_E_REASON_LONG_FILE)));
}

TEST(Findings, ForwardJumpWithoutDamageIsReported) {
    LogImage log;
    log.events(0, 2);
    log.events(5, 2);
    log.dummy();
    log.zerosTo();
    EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(400, 200, EVLOG_E_REASON_SEQUENCE)));
}

TEST(Findings, SecondFallOfTheSequenceIdIsReported) {
    LogImage log;
    log.events(1000, 2);
    log.events(500, 2);
    log.events(100, 2);
    log.dummy();
    log.zerosTo();
    EXPECT_THAT(walk(log.bytes).findings, ElementsAre(finding(800, 200, EVLOG_E_REASON_SEQUENCE)));
}

TEST(Findings, EveryReasonAndVerdictHasAText) {
    for (int reason = 0; reason < EVLOG_E_REASONS; reason++) {
        EXPECT_THAT(evlogReasonText(static_cast<EVLOG_REASON_e>(reason)),
                    testing::ResultOf(strlen, testing::Gt(5U)));
    }
    for (int verdict = 0; verdict < EVLOG_E_VERDICTS; verdict++) {
        EXPECT_THAT(evlogVerdictText(static_cast<EVLOG_VERDICT_e>(verdict)),
                    testing::ResultOf(strlen, testing::Gt(5U)));
        EXPECT_THAT(evlogVerdictName(static_cast<EVLOG_VERDICT_e>(verdict)),
                    testing::ResultOf(strlen, testing::Gt(4U)));
    }
}
