/** The positions that the event manager has after its walk, one test a kind of file. */
#include "log_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using test::LogImage;
using test::RING;
using test::walk;

namespace {

struct Expected {
    EVLOG_VERDICT_e verdict;
    EVLOG_END_e end;
    U32_t write;
    U32_t start;
    U32_t startId;
    U32_t nextId;
    bool gap;
    U32_t inFile;
};

void expectState(const EvlogState_t& state, const Expected& expected) {
    EXPECT_STREQ(evlogVerdictName(state.verdict), evlogVerdictName(expected.verdict));
    EXPECT_EQ(state.end, expected.end);
    EXPECT_EQ(state.empWrite, expected.write);
    EXPECT_EQ(state.empStart, expected.start);
    EXPECT_EQ(state.empStartSequenceId, expected.startId);
    EXPECT_EQ(state.empSequenceId, expected.nextId);
    EXPECT_EQ(state.wrapOver, expected.verdict == EVLOG_E_VERDICT_WRAPPED);
    EXPECT_EQ(state.foundGap, expected.gap);
    EXPECT_EQ(state.empEventInLogFile, expected.inFile);
}

constexpr Expected FRESH = {
    EVLOG_E_VERDICT_FRESH, EVLOG_E_END_NOT_FOUND, 200, RING, 0, 1, false, 1};

/** Newest records 1000..1001 (400 bytes), oldest 500..502 at 400 + gap, then the bottom dummy. */
LogImage wrappedLog(size_t gap) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(gap, 'g'));
    log.events(500, 3);
    log.dummy();
    log.zerosTo();
    return log;
}

EvlogIdentity_t identityOf(const char* enclosure, U32_t slot) {
    EvlogIdentity_t identity = {.enclosureId = {}, .slotId = slot};
    memcpy(identity.enclosureId, enclosure, strlen(enclosure));
    return identity;
}

} // namespace

TEST(Verdict, BuilderChecksumIsTheStandardOne) {
    EXPECT_EQ(test::storedCrc("123456789"), std::string("\x83\x92\x06\xE3", 4));
}

TEST(Verdict, EmptyFileIsFresh) {
    expectState(walk("").state, FRESH);
    EXPECT_EQ(walk("").state.empEventAddToLogFile, 1U);
}

TEST(Verdict, ShortFileIsFresh) {
    LogImage log;
    log.firstEntry();
    expectState(walk(log.bytes.substr(0, 159)).state, FRESH);
}

TEST(Verdict, ZerosAreFresh) {
    expectState(walk(std::string(RING, '\0')).state, FRESH);
}

TEST(Verdict, GarbageIsFresh) {
    expectState(walk(std::string(RING + 500'000, '\xB6')).state, FRESH);
}

TEST(Verdict, FirstEntryAndDummyAreAnUnwrappedLog) {
    LogImage log;
    log.firstEntry();
    log.dummy();
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    expectState(state, {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 200, RING, 0, 1, false, 1});
    EXPECT_EQ(state.empInstanceNumber, 7U);
    EXPECT_EQ(state.empEventAddToLogFile, 0U);
    EXPECT_EQ(state.dummyOffset, 200U);
    EXPECT_EQ(state.dummyLength, 65'535U);
}

TEST(Verdict, UnwrappedLogEndsAtItsDummy) {
    LogImage log;
    log.firstEntry();
    log.event(1, 0);
    log.event(2, 3848);
    log.dummy();
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 4368, RING, 0, 3, false, 3});
}

TEST(Verdict, MissingDummyLeavesStartAtWrite) {
    LogImage log;
    log.events(5, 4);
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    expectState(state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, 800, 800, 5, 9, false, 4});
    EXPECT_EQ(state.dummyOffset, 800U);
    EXPECT_EQ(state.dummyLength, 0xFFFFU);
}

TEST(Verdict, ClosingDummyLengthIsTakenModulo65536) {
    struct Case {
        U32_t end; // of the last record
        U32_t length;
    };
    // 1,599,840 - 26,876 = 24 * 65,536 + 100
    for (const Case& dummy : {Case{26'876, 100}, Case{26'876 - 3744, 3844},
                              Case{26'876 - 3745, 0xFFFF}, Case{26'976, 0}}) {
        LogImage log;
        for (U32_t id = 0; id < 5; id++) {
            log.event(id, 3848);
        }
        log.event(5, (dummy.end - log.bytes.size()) / 2 - 160);
        log.event(6, dummy.end - log.bytes.size() - 160);
        log.zerosTo();
        EvlogState_t state = walk(log.bytes).state;
        EXPECT_EQ(state.dummyOffset, dummy.end);
        EXPECT_EQ(state.dummyLength, dummy.length);
    }
}

TEST(Verdict, BodyCutByTheEndOfTheFileEndsTheSearch) {
    LogImage log;
    log.events(0, 2);
    std::string cut = test::record({.id = 2}, std::string(3000, 'c'));
    log.raw(cut.substr(0, 300));
    log.event(3);
    ASSERT_LT(log.bytes.size(), 400U + cut.size());
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, 400, 400, 0, 2, false, 2});
}

TEST(Verdict, ExactlyFullLogHasNothingBehind) {
    LogImage log;
    log.events(0, 8000);
    ASSERT_EQ(log.bytes.size(), RING);
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_FULL, RING, RING, 0, 8000, false, 8000});
}

TEST(Verdict, FewerThan160BytesLeftEndTheLog) {
    LogImage log;
    log.events(0, 7999);
    log.event(7999, 0);
    log.zerosTo();
    expectState(walk(log.bytes).state, {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, 1'599'960,
                                        1'599'960, 0, 8000, false, 8000});
}

TEST(Verdict, WrappedWithGap) {
    expectState(walk(wrappedLog(77).bytes).state,
                {EVLOG_E_VERDICT_WRAPPED, EVLOG_E_END_DUMMY, 400, 477, 500, 1002, true, 5});
}

TEST(Verdict, WrappedWithoutGap) {
    expectState(walk(wrappedLog(0).bytes).state,
                {EVLOG_E_VERDICT_WRAPPED, EVLOG_E_END_DUMMY, 400, 400, 500, 1002, false, 5});
}

TEST(Verdict, GapBeforeTheBottomDummyLooksUnwrapped) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(77, 'g'));
    log.dummy();
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 400, RING, 1000, 1002, true, 2});
}

TEST(Verdict, DamagedFirstRecordIsAGap) {
    LogImage log;
    log.firstEntry();
    log.events(1, 3);
    log.dummy();
    log.zerosTo();
    log.damage(20);
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 800, RING, 1, 4, true, 3});
}

TEST(Verdict, DamagedRecordInsideKeepsTheWritePositionBeforeIt) {
    LogImage log;
    log.events(0, 10);
    log.dummy();
    log.zerosTo();
    log.damage(5 * 200 + 170);
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 1000, RING, 0, 5, true, 9});
}

TEST(Verdict, InsertedBytesBeforeTheNextIdAreFatal) {
    LogImage log;
    log.events(0, 2);
    log.raw(std::string(77, 'x'));
    log.event(2);
    log.dummy();
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    expectState(state, {EVLOG_E_VERDICT_CONTINUOUS_WITH_GAP, EVLOG_E_END_BUGCHECK, 677, 677, 0, 3,
                        true, 2});
    EXPECT_EQ(state.stopOffset, 477U);
    EXPECT_TRUE(evlogIsFatal(state.verdict));
}

TEST(Verdict, RepeatedIdIsFatal) {
    LogImage log;
    log.events(0, 3);
    log.event(1);
    log.dummy();
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    expectState(state,
                {EVLOG_E_VERDICT_INVALID_SEQUENCE, EVLOG_E_END_BUGCHECK, 600, 600, 0, 3, false, 3});
    EXPECT_EQ(state.stopOffset, 600U);
}

TEST(Verdict, SecondGapRebuildsTheFile) {
    LogImage log = wrappedLog(77);
    log.damage(477 + 200 + 170);
    EvlogState_t state = walk(log.bytes).state;
    expectState(state, {EVLOG_E_VERDICT_REBUILT, EVLOG_E_END_CLEARED, 200, RING, 0, 1, false, 1});
    EXPECT_EQ(state.empInstanceNumber, 7U);
    EXPECT_EQ(state.empEventAddToLogFile, 1U);
    EXPECT_EQ(state.stopOffset, 877U);
}

TEST(Verdict, SourceAbove34InAGapIsFatal) {
    LogImage log;
    log.events(0, 2);
    log.raw(test::record({.id = 2, .source = 40, .type = 2}, "xx"));
    log.event(3);
    log.dummy();
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    expectState(state,
                {EVLOG_E_VERDICT_BAD_SOURCE, EVLOG_E_END_BUGCHECK, 400, 400, 0, 2, false, 2});
    EXPECT_EQ(state.badSource, 40U);
    EXPECT_EQ(state.stopOffset, 400U);
}

TEST(Verdict, SourceAbove34WithTypeAbove3IsSteppedOver) {
    LogImage log;
    log.events(0, 2);
    log.raw(test::record({.id = 2, .source = 40, .type = 4}, "xx"));
    log.event(3);
    log.dummy();
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 400, RING, 0, 2, true, 3});
}

TEST(Verdict, BadSourceBehindACutRecordIsNeverReached) {
    LogImage log;
    log.events(0, 2);
    log.raw(test::record({.id = 2, .length = 3000}, ""));
    log.raw(test::record({.id = 3, .source = 40}, ""));
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, 400, 400, 0, 2, false, 2});
}

TEST(Verdict, StaleDummyInTheGapHidesTheOldRecords) {
    LogImage log;
    log.events(1000, 2);
    log.raw(std::string(50, 'g'));
    log.dummy(300);
    log.raw(std::string(30, 'g'));
    log.events(500, 3);
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 400, RING, 1000, 1002, true, 2});
}

TEST(Verdict, DummyAtTheTopLeavesAnEmptyLog) {
    LogImage log;
    log.dummy();
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 0, RING, 0, 0, false, 0});
}

TEST(Verdict, ForeignLogIsClearedWithTheNextInstance) {
    LogImage log;
    log.events(30, 3);
    log.dummy();
    log.zerosTo();
    EvlogIdentity_t otherSlot = identityOf("CHASSIS-1", 3);
    EvlogState_t state = walk(log.bytes, &otherSlot).state;
    expectState(state, {EVLOG_E_VERDICT_FOREIGN, EVLOG_E_END_CLEARED, 200, RING, 0, 1, false, 1});
    EXPECT_EQ(state.empInstanceNumber, 8U);
    EvlogIdentity_t otherEnclosure = identityOf("CHASSIS-2", 2);
    EXPECT_EQ(walk(log.bytes, &otherEnclosure).state.verdict, EVLOG_E_VERDICT_FOREIGN);
    EvlogIdentity_t own = identityOf("CHASSIS-1", 2);
    EXPECT_EQ(walk(log.bytes, &own).state.verdict, EVLOG_E_VERDICT_UNWRAPPED);
}

TEST(Verdict, RecordAcrossTheEndIsTaken) {
    LogImage log;
    log.events(0, 7999);
    log.event(7999, 100);
    expectState(walk(log.bytes).state, {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, RING + 60,
                                        RING + 60, 0, 8000, false, 8000});
}

TEST(Verdict, RecordBehindTheLastHeaderOffsetIsLeft) {
    LogImage log;
    log.events(0, 7999);
    log.event(7999, 0);
    log.event(8000);
    expectState(walk(log.bytes).state, {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NO_ROOM, 1'599'960,
                                        RING, 0, 8000, false, 8000});
}

TEST(Verdict, SurplusBehindTheRingIsIgnored) {
    LogImage log;
    log.events(0, 3);
    log.dummy();
    log.zerosTo();
    log.event(3);
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 600, RING, 0, 3, false, 3});
}

TEST(Verdict, HeaderAtTheNominalEndIsStillFound) {
    LogImage log;
    log.event(0);
    log.zerosTo();
    log.event(5);
    EvlogState_t state = walk(log.bytes).state;
    expectState(state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_NOT_FOUND, 200, RING, 0, 1, true, 2});
    EXPECT_EQ(state.dummyOffset, RING + 200);
}

TEST(Verdict, LengthLimitIsWaivedForIdOneOfAnySource) {
    LogImage log;
    log.firstEntry();
    log.raw(test::record({.id = 1, .source = 5, .eventId = 1}, std::string(60'000, 'b')));
    log.raw(test::record({.id = 2, .source = 27, .eventId = 9}, std::string(3849, 'b')));
    log.raw(test::record({.id = 3, .source = 5, .eventId = 9}, std::string(3849, 'b')));
    log.dummy();
    log.zerosTo();
    EvlogState_t state = walk(log.bytes).state;
    EXPECT_EQ(state.empEventInLogFile, 3U);
    EXPECT_EQ(state.empWrite, 200U + 60'160 + 4009);
    EXPECT_TRUE(state.foundGap);
}

TEST(Verdict, SequenceIdsContinueAcrossZero) {
    LogImage log;
    log.event(0xFFFFFFFF);
    log.event(0);
    log.dummy();
    log.zerosTo();
    expectState(walk(log.bytes).state,
                {EVLOG_E_VERDICT_UNWRAPPED, EVLOG_E_END_DUMMY, 400, RING, 0xFFFFFFFF, 1, false, 2});
}
