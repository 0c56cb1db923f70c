/**
 * What a start makes of every kind of log file, and what the next event does to it. Each case is
 * also compared with the model: bytes, state, index, output.
 */
#include "bug_check_texts.h"
#include "model_fixture.h"

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

class ScanState : public ModelTest {
  protected:
    static constexpr LogState FRESH = {200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0};

    void expectFresh(const Image& image) {
        EXPECT_EQ(scanBoth(image), "");
        EXPECT_EQ(state(), FRESH);
        EXPECT_EQ(logSize(), END_OF_FILE);
        EXPECT_TRUE(indexed(0));
        EXPECT_EQ(offsetOf(0), 0U);
    }
    /** Unwrapped log of ids 0 to 10, each 200 bytes: 2200 bytes. */
    static Image elevenRecords() { return logimage::unwrapped(10, 40); }
    bool sawLine(const std::string& text) const {
        return lastOutput.find(text) != std::string::npos;
    }
};

// --- Without a valid record ---

TEST_F(ScanState, MissingFileBecomesAFreshLog) {
    model = logmodel::Log();
    EXPECT_EQ(restartBoth(), "");
    EXPECT_EQ(state(), FRESH);
    EXPECT_EQ(logSize(), END_OF_FILE);
}

TEST_F(ScanState, EmptyFileBecomesAFreshLog) {
    expectFresh(Image());
}

TEST_F(ScanState, FileShorterThanAHeaderBecomesAFreshLog) {
    expectFresh(Image().fill(159, 0xB6));
}

TEST_F(ScanState, ZerosBecomeAFreshLog) {
    expectFresh(Image().zerosTo());
}

TEST_F(ScanState, GarbageBecomesAFreshLog) {
    Image image;
    for (uint32_t i = 0; i < 5000; i++) {
        image.fill(1, static_cast<uint8_t>(i * 131));
    }
    expectFresh(image);
}

TEST_F(ScanState, GarbageBeyondTheEndBecomesAFreshLogAndStaysLonger) {
    EXPECT_EQ(scanBoth(Image().fill(1'600'500, 0x11)), "");
    EXPECT_EQ(state(), FRESH);
    EXPECT_EQ(logSize(), 1'600'500U);
    EXPECT_TRUE(sawLine("empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = "
                        "[1600001]\n"));
}

TEST_F(ScanState, FirstEventGoesBehindTheFirstEntry) {
    expectFresh(Image());
    EXPECT_EQ(appendBoth(100), "");
    EXPECT_EQ(state(), (LogState{460, END_OF_FILE, 0, 2, WRAP_FALSE, 0, 2, 2, 0, 0}));
    EXPECT_EQ(offsetOf(1), 200U);
    // The fresh dummy: 1,599,840 - 460 bytes are more than a length can say.
    EXPECT_EQ(logimage::get16(readLog(), 460 + 152), 0xFFFF);
}

// --- Unwrapped ---

TEST_F(ScanState, FreshLogKeepsItsInstance) {
    Image image;
    image.add(Record::first(0, 5)).dummyToEnd(5);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 5}));
    EXPECT_EQ(readLog(), image.bytes);
}

TEST_F(ScanState, UnwrappedLogEndsAtItsDummyAndIsNotRewritten) {
    Image image = elevenRecords().dummyToEnd();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(readLog(), image.bytes);
    EXPECT_EQ(validSlots(), 11U);
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(state(), (LogState{2400, END_OF_FILE, 0, 12, WRAP_FALSE, 0, 12, 1, 0, 0}));
}

TEST_F(ScanState, MissingDummyIsWrittenAndStartStaysAtTheEnd) {
    EXPECT_EQ(scanBoth(elevenRecords()), "");
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(logSize(), END_OF_FILE);
    EXPECT_EQ(logimage::get16(readLog(), 2200 + 152), 0xFFFF);
    EXPECT_EQ(appendBoth(100), "");
    EXPECT_EQ(state(), (LogState{2460, END_OF_FILE, 0, 12, WRAP_FALSE, 0, 12, 1, 0, 0}));
}

TEST_F(ScanState, DamagedDummyIsWrittenAgain) {
    EXPECT_EQ(scanBoth(elevenRecords().dummyToEnd().flip(2200 + 20)), "");
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(readLog(), elevenRecords().dummyToEnd().bytes);
}

TEST_F(ScanState, TornHeaderIsOverwrittenByADummy) {
    Image image = elevenRecords().event(11, 500).truncate(2200 + 100);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
}

TEST_F(ScanState, BodyCutByTheEndOfFileEndsTheSearchForAllThatFollows) {
    // The cut record hides nothing but itself here; what counts is that no byte is stepped over.
    Image image = elevenRecords().event(11, 3000).truncate(2200 + 160 + 100);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_FALSE(sawLine("not match with calculated"));
}

TEST_F(ScanState, RecordsBehindABodyThatSeemsCutAreLost) {
    // A torn header announces more bytes than the file has; a sound record stands behind it.
    Image image = elevenRecords();
    Record torn = Record::dummy(60'000);
    torn.evId = 5;
    image.add(torn).event(11, 20);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(logimage::slice(readLog(), 2360, 1000), logimage::zeros(1000));
}

class SmallRemainder : public ScanState {
  protected:
    static constexpr uint32_t END = 1'599'840 - 24 * 65'536 - 10; // 10 left over modulo 65,536
    uint32_t nextId = 0;
};

TEST_F(SmallRemainder, IsTheDummysLengthAndOneEventIsLostToIt) {
    Image image = logimage::unwrappedTo(END, nextId).zerosTo();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{END, END, 0, nextId, WRAP_FALSE, 0, nextId, 0, 0, 0}));
    EXPECT_EQ(logimage::get16(readLog(), END + 152), 10);
    EXPECT_EQ(appendBoth(100), REACH_DUMMY);
    // The next start finds the dummy and is healed.
    EXPECT_EQ(restartBoth(), "");
    EXPECT_EQ(state(), (LogState{END, END_OF_FILE, 0, nextId, WRAP_FALSE, 0, nextId, 0, 0, 0}));
    EXPECT_EQ(appendBoth(100), "");
}

TEST_F(SmallRemainder, TakesAnEventThatFits) {
    EXPECT_EQ(scanBoth(logimage::unwrappedTo(END, nextId).zerosTo()), "");
    EXPECT_EQ(appendBoth(10), "");
    EXPECT_EQ(state(), (LogState{END + 170, END_OF_FILE, 0, nextId + 1, WRAP_FALSE, 0, nextId + 1,
                                 1, 0, 0}));
}

TEST_F(SmallRemainder, DoesNotMatterInAShortFile) {
    EXPECT_EQ(scanBoth(logimage::unwrappedTo(END, nextId)), "");
    EXPECT_EQ(logSize(), END + 170);
    EXPECT_EQ(appendBoth(100), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
}

TEST_F(SmallRemainder, Of3844IsUsedAndOf3845RunsToTheEnd) {
    EXPECT_EQ(scanBoth(logimage::unwrappedTo(END + 10 - 3844, nextId)), "");
    EXPECT_EQ(logimage::get16(readLog(), END + 10 - 3844 + 152), 3844);
    EXPECT_EQ(scanBoth(logimage::unwrappedTo(END + 10 - 3845, nextId)), "");
    EXPECT_EQ(logimage::get16(readLog(), END + 10 - 3845 + 152), 0xFFFF);
    EXPECT_EQ(logSize(), END_OF_FILE);
}

TEST_F(ScanState, LessThanAHeaderLeftIsZeroedAndTheNextEventWraps) {
    for (uint32_t left : {1U, 100U, 159U}) {
        where = std::to_string(left) + " bytes left";
        uint32_t nextId = 0;
        Image image = logimage::unwrappedTo(END_OF_FILE - left, nextId).fill(left, 0xEE);
        EXPECT_EQ(scanBoth(image), "");
        uint32_t end = END_OF_FILE - left;
        EXPECT_EQ(state(), (LogState{end, end, 0, nextId, WRAP_FALSE, 0, nextId, 0, 0, 0}));
        EXPECT_EQ(logimage::slice(readLog(), end, 1000), logimage::zeros(left));
        EXPECT_EQ(appendBoth(0), "");
        EXPECT_EQ(state(), (LogState{160, 200, 1, nextId + 1, WRAP_TRUE, 0, nextId, 1, 1, 0}));
    }
}

TEST_F(ScanState, ExactlyFullLogEndsAtTheEndOfTheFile) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(END_OF_FILE, nextId);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(),
              (LogState{END_OF_FILE, END_OF_FILE, 0, nextId, WRAP_FALSE, 0, nextId, 0, 0, 0}));
    EXPECT_TRUE(sawLine("Reach end of the Event Log Files. Read position = [1600000]\n"));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_TRUE(sawLine("Write [0] bytes of 0 to Event Log File.\n"));
    EXPECT_EQ(state(), (LogState{200, 200, 1, nextId + 1, WRAP_TRUE, 0, nextId, 1, 1, 0}));
}

// --- Wrapped ---

TEST_F(ScanState, WrappedLogWithGap) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    EXPECT_EQ(log.write, 1980U);
    EXPECT_EQ(log.start, 3160U);
    EXPECT_EQ(scanBoth(log.image), "");
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, log.inFile, 0, 0, 0}));
    EXPECT_EQ(readLog(), log.image.bytes);
    // Fits in the gap: nothing is discarded.
    EXPECT_EQ(appendBoth(1180 - 160), "");
    EXPECT_EQ(state(),
              (LogState{3160, 3160, 1, log.nextId + 1, WRAP_TRUE, 1, log.inFile + 1, 1, 0, 0}));
    // Does not fit any more: the oldest record goes.
    EXPECT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(),
              (LogState{3320, 6320, 2, log.nextId + 2, WRAP_TRUE, 1, log.inFile + 1, 2, 1, 0}));
}

TEST_F(ScanState, WrappedLogWithoutGap) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 500);
    EXPECT_EQ(scanBoth(log.image), "");
    EXPECT_EQ(state(), (LogState{1980, 1980, 3, log.nextId, WRAP_TRUE, 0, log.inFile, 0, 0, 0}));
    EXPECT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(),
              (LogState{2140, 2640, 4, log.nextId + 1, WRAP_TRUE, 0, log.inFile, 1, 1, 0}));
}

TEST_F(ScanState, WrappedLogWithoutOldRecordsLooksUnwrapped) {
    Image image;
    for (uint32_t id = 500; id < 510; id++) {
        image.event(id, 40);
    }
    image.dummyToEnd();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2000, END_OF_FILE, 500, 510, WRAP_FALSE, 0, 10, 0, 0, 0}));
    EXPECT_EQ(appendBoth(0), "");
    EXPECT_EQ(empControl.empWrite, 2160U);
}

TEST_F(ScanState, GapBeforeTheBottomDummyTakesRoundsOfUnderflow) {
    uint32_t nextId = 0;
    constexpr uint32_t END = END_OF_FILE - 300 - 3000;
    Image image = logimage::unwrappedTo(END, nextId).fill(3000, 0x22);
    image.add(Record::dummy(140)).zerosTo();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{END, END_OF_FILE, 0, nextId, WRAP_FALSE, 1, nextId, 0, 0, 0}));
    EXPECT_EQ(appendBoth(0), "");
    // 160 - 3000 is 62,696 in 16 bits; the dummy of 300 bytes is taken off 208 times.
    size_t rounds = 0;
    for (size_t at = lastOutput.find("Current Event Entry Length = [300]"); at != std::string::npos;
         at = lastOutput.find("Current Event Entry Length = [300]", at + 1)) {
        rounds++;
    }
    EXPECT_EQ(rounds, 209U);
    EXPECT_EQ(state(), (LogState{END + 160, END_OF_FILE, 0, nextId + 1, WRAP_FALSE, 1, nextId + 1,
                                 1, 0, 0}));
}

TEST_F(ScanState, TruncatedWrappedLogEndsInADummyAtTheCut) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    uint32_t cut = 3160 * 400 + 777; // behind record 399
    EXPECT_EQ(scanBoth(log.image.truncate(cut)), "");
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, 402, 0, 0, 0}));
    EXPECT_EQ(logimage::get16(readLog(), 3160 * 400 + 152), 0xFFFF);
    EXPECT_EQ(logSize(), END_OF_FILE);
}

TEST_F(ScanState, ShortLogStaysShortAndGrowsByAppends) {
    Image image = elevenRecords();
    image.add(Record::dummy(65535)).fill(100, 0);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(logSize(), 2460U);
    EXPECT_EQ(appendBoth(1000), "");
    EXPECT_EQ(logSize(), 2200U + 1160 + 160);
}

TEST_F(ScanState, SurplusBehindTheEndIsIgnored) {
    Image image = elevenRecords().dummyToEnd().fill(5000, 0xB6);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(logSize(), 1'605'000U);
}

TEST_F(ScanState, RecordAcrossTheEndPutsTheWritePositionBehindItAndTheNextEventWraps) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(1'599'840, nextId).event(nextId, 300);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(),
              (LogState{1'600'300, 1'600'300, 0, nextId + 1, WRAP_FALSE, 0, nextId + 1, 0, 0, 0}));
    EXPECT_TRUE(sawLine("Write [-300] bytes of 0 to Event Log File.\n"));
    EXPECT_EQ(readLog(), image.bytes);
    EXPECT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(), (LogState{160, 200, 1, nextId + 2, WRAP_TRUE, 0, nextId + 1, 1, 1, 0}));
}

TEST_F(ScanState, RecordThatBeginsInTheLast159BytesIsDropped) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(1'599'841, nextId).event(nextId, 300);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(),
              (LogState{1'599'841, END_OF_FILE, 0, nextId, WRAP_FALSE, 0, nextId, 0, 0, 0}));
    EXPECT_EQ(readLog(), image.bytes);
}

// --- Damage ---

TEST_F(ScanState, DamagedFirstRecordIsTheGap) {
    EXPECT_EQ(scanBoth(elevenRecords().dummyToEnd().flip(50)), "");
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 1, 11, WRAP_FALSE, 1, 10, 0, 0, 0}));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(state(), (LogState{2400, END_OF_FILE, 1, 12, WRAP_FALSE, 1, 11, 1, 0, 0}));
}

TEST_F(ScanState, DamagedFirstRecordCostsOneBugCheckAfterTheWrap) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(1'599'000, nextId).dummyToEnd().flip(50);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(appendBoth(2000), "");
    EXPECT_EQ(empControl.empWrapOver, WRAP_TRUE);
    std::string text = appendBoth(3848);
    EXPECT_TRUE(text == MISMATCHING || text == SIGNATURE) << text;
    EXPECT_EQ(restartBoth(), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(ScanState, DestroyedFirstSignatureForbidsEveryWrap) {
    uint32_t nextId = 0;
    Image image = logimage::unwrappedTo(1'599'000, nextId).dummyToEnd().flip(0);
    for (int start = 0; start < 2; start++) {
        EXPECT_EQ(start == 0 ? scanBoth(image) : restartBoth(), "");
        EXPECT_EQ(appendBoth(2000), SIGNATURE);
    }
}

TEST_F(ScanState, DamagedRecordInsideAnUnwrappedLogForbidsEveryAppend) {
    Image image = elevenRecords().dummyToEnd().flip(1000 + 50);
    for (int start = 0; start < 2; start++) {
        EXPECT_EQ(start == 0 ? scanBoth(image) : restartBoth(), "");
        EXPECT_EQ(state(), (LogState{1000, END_OF_FILE, 0, 5, WRAP_FALSE, 1, 10, 0, 0, 0}));
        EXPECT_TRUE(indexed(10));
        EXPECT_EQ(appendBoth(300), MISMATCHING);
    }
}

TEST_F(ScanState, DamagedNewestRecordIsOverwritten) {
    EXPECT_EQ(scanBoth(elevenRecords().dummyToEnd().flip(2000 + 170)), "");
    EXPECT_EQ(state(), (LogState{2000, END_OF_FILE, 0, 10, WRAP_FALSE, 1, 10, 0, 0, 0}));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 1, 11, 1, 0, 0}));
}

TEST_F(ScanState, BytesInsertedBetweenConsecutiveRecordsStopEveryStart) {
    Image image = elevenRecords().dummyToEnd().insert(1000, Bytes(77, 0x33));
    EXPECT_EQ(scanBoth(image), CONTINUOUS);
    EXPECT_EQ(lastFunction, "empProcessEventLogFile");
    EXPECT_EQ(restartBoth(), CONTINUOUS);
}

TEST_F(ScanState, SecondGapRebuildsTheFile) {
    Image image = logimage::unwrapped(10, 40).dummyToEnd().flip(600 + 50).flip(1400 + 50);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_TRUE(rebuilt);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
    // The first of the two lines still shows the start position of the damaged file.
    EXPECT_TRUE(sawLine("empWrite = [200], new empStart = [800].\n"));
    EXPECT_TRUE(sawLine("Because of creation of Dummy Entry, empWrite = [200], new empStart = "
                        "[1600000].\n"));
}

TEST_F(ScanState, RebuildKeepsTheInstance) {
    Image image;
    for (uint32_t id = 0; id < 9; id++) {
        image.event(id, 40, 6);
    }
    EXPECT_EQ(scanBoth(image.dummyToEnd().flip(400 + 50).flip(1000 + 50)), "");
    EXPECT_TRUE(rebuilt);
    EXPECT_EQ(empControl.empInstanceNumber, 6U);
    EXPECT_EQ(logimage::get32(readLog(), 140), 6U);
}

} // namespace
