/**
 * Appending where the space before the oldest record, or behind it, suffices: literal bytes, exact
 * fits, every way out. Each step is also compared with the model.
 */
#include "bug_check_texts.h"
#include "model_fixture.h"
#include "store/entry.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using logimage::Bytes;
using logimage::hex;
using logimage::Image;
using logimage::Record;
using logimage::slice;

class Append : public ModelTest {
  protected:
    /** Changes bytes under a running event manager. */
    void overwrite(const Bytes& bytes, uint32_t offset) {
        std::copy(bytes.begin(), bytes.end(),
                  model.file.begin() + static_cast<std::ptrdiff_t>(offset));
        putImage(model.file);
    }
    /** Gives product and model the same positions. */
    void setPositions(uint32_t write, uint32_t start) {
        model.write = empControl.empWrite = write;
        model.start = empControl.empStart = start;
    }
    static constexpr uint32_t LAST = 1'599'840; ///< last offset at which a header fits
    void setWrapped(bool wrapped) {
        model.wrapped = wrapped;
        empControl.empWrapOver = wrapped ? EMP_E_WRAP_OVER_TRUE : EMP_E_WRAP_OVER_FALSE;
    }
    bool saw(const std::string& text) const { return lastOutput.find(text) != std::string::npos; }
};

// --- Room before the oldest record ---

TEST_F(Append, RecordIsTheMessageBehindASealedHeader) {
    ASSERT_EQ(scanBoth(Image()), "");
    empControl.empSequenceId = model.nextId = 0x01020304;
    empControl.empInstanceNumber = model.instance = 6;
    ASSERT_EQ(appendBodyBoth(Bytes{'h', 'e', 'l', 'l', 'o'}), "");
    Bytes wanted = hex("b68f01002911da86"
                       "454e434c4f535552452d53455249414c2d303132333435363738392d41424300"
                       "0000000000000000000000000000000000000000000000000000000000000000"
                       "424c4144452d3030343200000000000000000000000000000000000000000000"
                       "0000000000000000000000000000000000000000000000000000000000000000"
                       "00000003"
                       "00000006"
                       "01020304"
                       "65a0b0c0"
                       "0005110102010007"
                       "68656c6c6f");
    EXPECT_EQ(slice(readLog(), 200, 165), wanted);
    EXPECT_EQ(slice(readLog(), 365, 4), hex("b68f0100")); // the fresh dummy
    EXPECT_EQ(eventEntryDatabase[0x01020304 % 10'000].evOffset, 200U);
    EXPECT_EQ(position(), 365); // behind the last write of the record
}

TEST_F(Append, LinesOfTheEverydayCase) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(1, 40).dummyToEnd()), "");
    ASSERT_EQ(appendBodyBoth(Bytes(100, 'x')), "");
    EXPECT_EQ(lastOutput,
              "empSaveEventLogMsgToLogFile(): Current File Position at [400].\n"
              "empSaveEventLogMsgToLogFile(): Enough space for new Event Entry length = [260].\n"
              "empSaveEventLogMsgToLogFile(): Current empWrite = [400], empStart = [1600000], "
              "empStartSequenceId = [0].\n"
              "empSaveEventLogMsgToLogFile(): Current Event Entry Length = [1599600].\n"
              "empSaveEventLogMsgToLogFile(): Enough space to the bottom for new Event Entry.\n"
              "empSaveEventLogMsgToLogFile(): empWrite = [400], empStart = [1600000], "
              "empStartSequenceId = [0].\n"
              "empSaveEventLogMsgToLogFile(): Write total [260] bytes into Event Log File.\n"
              "empSaveEventLogMsgToLogFile(): Record eventEntryDatabase[2], Offset = [400], Flag = "
              "[0x1] for new Event Entry.\n"
              "empSaveEventLogMsgToLogFile(): new empWrite = [660].\n"
              "empWriteDummyEntryToLogFile(): Dummy Entry CRCChecksum = [0xB93D72D9].\n"
              "empSaveEventLogMsgToLogFile(): Recreate Dummy Entry for wipping out space.\n");
}

TEST_F(Append, EmptyEventTakes160Bytes) {
    ASSERT_EQ(scanBoth(Image()), "");
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(empControl.empWrite, 360U);
    ASSERT_EQ(appendBoth(1), "");
    EXPECT_EQ(empControl.empWrite, 521U);
    ASSERT_EQ(appendBoth(3848), "");
    EXPECT_EQ(empControl.empWrite, 4529U);
    EXPECT_EQ(validSlots(), 4U);
    EXPECT_EQ(empControl.empEventInLogFile, 4U);
}

TEST_F(Append, UnwrappedDummyIsNotFilled) {
    ASSERT_EQ(scanBoth(Image()), "");
    overwrite(Bytes(50, 0xEE), 1000);
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(slice(readLog(), 1000, 50), Bytes(50, 0xEE));
}

TEST_F(Append, DummyLengthIsExactFromSixtyFiveThousandFiveHundredThirtyFourDown) {
    uint32_t nextId = 0;
    // Behind the record 65,535, 65,534, 1 and 0 bytes remain after the dummy's header.
    for (uint32_t left : {65'535U, 65'534U, 1U, 0U}) {
        ASSERT_EQ(scanBoth(logimage::unwrappedTo(LAST - left - 160, nextId).dummyToEnd()), "");
        ASSERT_EQ(appendBoth(0), "");
        EXPECT_EQ(logimage::get16(readLog(), LAST - left + 152), left);
    }
}

TEST_F(Append, LastRecordThatLeavesNoRoomForADummyIsFollowedByZeros) {
    uint32_t nextId = 0;
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(END_OF_FILE - 500, nextId).dummyToEnd()), "");
    ASSERT_EQ(appendBoth(500 - 160 - 159), "");
    EXPECT_EQ(empControl.empWrite, END_OF_FILE - 159);
    EXPECT_TRUE(saw("Write [159] bytes of 0 to Event Log File.\n"));
    EXPECT_EQ(empControl.empWrapOver, WRAP_FALSE);
}

TEST_F(Append, RecordThatEndsAtTheEndOfTheFile) {
    uint32_t nextId = 0;
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(END_OF_FILE - 500, nextId).dummyToEnd()), "");
    ASSERT_EQ(appendBoth(500 - 160), "");
    EXPECT_EQ(empControl.empWrite, END_OF_FILE);
    EXPECT_TRUE(saw("Write [0] bytes of 0 to Event Log File.\n"));
    EXPECT_EQ(logSize(), END_OF_FILE);
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(), (LogState{160, 200, 1, nextId + 2, WRAP_TRUE, 0, nextId + 1, 2, 1, 0}));
}

TEST_F(Append, ExactFitBeforeTheOldestDiscardsNothing) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000); // gap 1980 to 3160
    ASSERT_EQ(scanBoth(log.image), "");
    ASSERT_EQ(appendBoth(1180 - 160), "");
    EXPECT_TRUE(saw("No valid Event Entry between empWrite = [1980] and empStart = [3160]\n"));
    EXPECT_EQ(empControl.empEventDelFromLogFile, 0U);
    EXPECT_FALSE(saw("Dummy"));
}

TEST_F(Append, OneByteMoreDiscardsTheOldest) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    ASSERT_EQ(scanBoth(log.image), "");
    ASSERT_EQ(appendBoth(1181 - 160), "");
    EXPECT_TRUE(saw("Not enough space for new Event Entry between empWrite = [1980] and empStart = "
                    "[3160].\n"));
    EXPECT_TRUE(saw("New Event Entry Length = [1181], no need to wrap to the Top of Event Log "
                    "Fiel.\n"));
    EXPECT_EQ(empControl.empEventDelFromLogFile, 1U);
    EXPECT_FALSE(indexed(1));
    EXPECT_EQ(empControl.empStart, 6320U);
}

TEST_F(Append, RecordFoundBeforeTheOldestIsDiscardedWithoutMovingTheStart) {
    // Valid records stand between the two positions: as after a wrong start.
    ASSERT_EQ(scanBoth(logimage::unwrapped(20, 40).dummyToEnd()), "");
    setPositions(200, 4200);
    model.startId = empControl.empStartSequenceId = 1;
    setWrapped(true);
    ASSERT_EQ(appendBoth(241), ""); // 401 bytes: records 1, 2 and 3
    EXPECT_EQ(empControl.empStart, 4200U);
    EXPECT_EQ(empControl.empStartSequenceId, 4U);
    EXPECT_EQ(empControl.empEventDelFromLogFile, 3U);
    EXPECT_TRUE(saw("Wipe out eventEntryDatabase[3], new empStartSequenceId = [4]\n"));
}

TEST_F(Append, RecordFoundBeforeTheOldestWithAnotherIdIsABugCheck) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(20, 40).dummyToEnd()), "");
    setPositions(200, 4200);
    setWrapped(true);
    ASSERT_EQ(appendBoth(241), MISMATCHING);
    EXPECT_EQ(lastFunction, "empSaveEventLogMsgToLogFile");
}

TEST_F(Append, GarbageBehindAFoundRecordIsABugCheck) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(20, 40).dummyToEnd()), "");
    setPositions(200, 4200);
    setWrapped(true);
    model.startId = empControl.empStartSequenceId = 1;
    overwrite(Bytes(160, 0x99), 400);
    ASSERT_EQ(appendBoth(100), SIGNATURE);
    EXPECT_EQ(empControl.empStartSequenceId, 2U); // record 1 is already gone
}

TEST_F(Append, EndOfFileBehindAFoundRecordIsABugCheck) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(20, 40).dummyToEnd()), "");
    setPositions(200, 4200);
    model.startId = empControl.empStartSequenceId = 1;
    model.file.resize(450);
    putImage(model.file);
    ASSERT_EQ(appendBoth(100), READ_FAILS);
}

TEST_F(Append, ShortDummyInAWrappedLogIsABugCheck) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    ASSERT_EQ(scanBoth(log.image), "");
    overwrite(encode(Record::dummy(10)), 1980);
    ASSERT_EQ(appendBoth(100), REACH_DUMMY);
}

TEST_F(Append, ShortDummyInAnUnwrappedLogIsSubtractedUntilItSuffices) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(5, 40).dummyToEnd()), "");
    overwrite(encode(Record::dummy(10)), 1200);
    ASSERT_EQ(appendBoth(1000), "");
    // 1160 - 6 * 170 = 140: six rounds, and the seventh suffices.
    size_t rounds = 0;
    for (size_t at = lastOutput.find("Current Event Entry Length = [170]"); at != std::string::npos;
         at = lastOutput.find("Current Event Entry Length = [170]", at + 1)) {
        rounds++;
    }
    EXPECT_EQ(rounds, 7U);
}

TEST_F(Append, WritePositionAtTheEndWithAStartBeyondStartsAtTheTop) {
    ASSERT_EQ(scanBoth(logimage::unwrapped(5, 40).dummyToEnd()), "");
    setPositions(END_OF_FILE, 0xFFFFFFF0);
    appendBoth(100);
    EXPECT_TRUE(saw("This shall not happen. This is for debugging purpose.\n"));
}

// --- Discarding behind the oldest record ---

TEST_F(Append, AsManyOldRecordsGoAsTheEventNeeds) {
    logimage::Wrapped log = logimage::wrapped(3, 0, 0); // 480 bytes, no gap, old ones of 160
    ASSERT_EQ(scanBoth(log.image), "");
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(), (LogState{640, 640, 4, log.nextId + 1, WRAP_TRUE, 0, log.inFile, 1, 1, 0}));
    ASSERT_EQ(appendBoth(1), "");
    EXPECT_EQ(state(),
              (LogState{801, 960, 6, log.nextId + 2, WRAP_TRUE, 0, log.inFile - 1, 2, 3, 0}));
    ASSERT_EQ(appendBoth(3848), ""); // 4008 - 159 = 3849 bytes: 25 records
    EXPECT_EQ(state(),
              (LogState{4809, 4960, 31, log.nextId + 3, WRAP_TRUE, 0, log.inFile - 25, 3, 28, 0}));
    EXPECT_EQ(validSlots(), empControl.empEventInLogFile);
}

/** The last old records are just before the bottom. */
class NearBottom : public Append {
  protected:
    void build(uint32_t oldRecords, uint32_t bottom, bool withDummy) {
        ASSERT_EQ(scanBoth(logimage::nearBottom(oldRecords, bottom, withDummy, nextId)), "");
        ASSERT_EQ(empControl.empWrite, END_OF_FILE - bottom - 160 * oldRecords);
        ASSERT_EQ(empControl.empStart, empControl.empWrite);
        ASSERT_EQ(empControl.empWrapOver, WRAP_TRUE);
    }
    uint32_t nextId = 0;
};

TEST_F(NearBottom, DummyAtTheBottomEndsTheOldRecords) {
    build(1, 400, true);
    ASSERT_EQ(appendBoth(160), ""); // 320 bytes: the record and the dummy
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(empControl.empEventDelFromLogFile, 1U);
    EXPECT_TRUE(saw("Enough space to the bottom for new Event Entry.\n"));
    EXPECT_EQ(logimage::get16(readLog(), END_OF_FILE - 240 + 152), 80);
    // It looks unwrapped at the next start.
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(empControl.empWrapOver, WRAP_FALSE);
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
}

TEST_F(NearBottom, DummyInAWrappedLogIsFilled) {
    build(1, 4000, true);
    overwrite(Bytes(100, 0xEE), END_OF_FILE - 100);
    ASSERT_EQ(appendBoth(160), "");
    EXPECT_EQ(slice(readLog(), END_OF_FILE - 100, 100), logimage::zeros(100));
}

TEST_F(NearBottom, ShortDummyInAFullFileIsABugCheck) {
    build(1, 4000, true);
    Record dummy = Record::dummy(3);
    overwrite(encode(dummy), END_OF_FILE - 4000);
    ASSERT_EQ(appendBoth(1000), REACH_DUMMY);
    EXPECT_EQ(lastFunction, "empSaveEventLogMsgToLogFile");
}

TEST_F(NearBottom, ShortDummyInAShortFileFreesTheRest) {
    build(1, 4000, true);
    overwrite(encode(Record::dummy(3)), END_OF_FILE - 4000);
    model.file.resize(END_OF_FILE - 1);
    putImage(model.file);
    ASSERT_EQ(appendBoth(1000), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
}

TEST_F(NearBottom, DummyThatSaysToTheEndIsTakenAtItsWord) {
    // 65,535 counts as 65,695 here even a few bytes before the end.
    build(1, 400, true);
    overwrite(encode(Record::dummy(65535)), END_OF_FILE - 400);
    ASSERT_EQ(appendBoth(160), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
}

TEST_F(NearBottom, LessThanAHeaderBehindTheOldRecordsFreesTheRest) {
    build(2, 159, false);
    ASSERT_EQ(appendBoth(320 + 150 - 160), "");
    EXPECT_TRUE(saw("No wipe out eventEntryDatabase[] b/c no space for Dummy Record at empStart = "
                    "[1599841].\n"));
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(empControl.empEventDelFromLogFile, 2U);
    EXPECT_TRUE(saw("Write [9] bytes of 0 to Event Log File.\n"));
}

TEST_F(NearBottom, StartInTheLast159BytesIsTheEnd) {
    build(1, 300, true);
    setPositions(empControl.empWrite, END_OF_FILE - 159);
    model.file.resize(END_OF_FILE);
    ASSERT_EQ(appendBoth(460 - 160), "");
    EXPECT_TRUE(saw("b/c no space for Dummy Record at empStart = [1599841].\n"));
    EXPECT_EQ(empControl.empEventDelFromLogFile, 0U);
}

TEST_F(NearBottom, StartAtTheLastHeaderIsRead) {
    build(1, 160, true);
    ASSERT_EQ(appendBoth(160), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(empControl.empWrite, END_OF_FILE);
}

TEST_F(NearBottom, OldRecordWithAnotherIdIsABugCheck) {
    build(3, 300, true);
    model.startId = empControl.empStartSequenceId = 998;
    ASSERT_EQ(appendBoth(0), MISMATCHING);
}

TEST_F(NearBottom, OldRecordWithTheSameSlotIsNoBugCheck) {
    build(3, 300, true);
    model.startId = empControl.empStartSequenceId = 20'997;
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(empControl.empStartSequenceId, 20'998U);
}

TEST_F(NearBottom, DamagedOldRecordIsABugCheck) {
    build(3, 300, true);
    overwrite(Bytes(2, 0), empControl.empStart);
    ASSERT_EQ(appendBoth(0), SIGNATURE);
}

TEST_F(NearBottom, MissingOldRecordIsABugCheck) {
    build(3, 300, true);
    model.file.resize(empControl.empStart + 159);
    putImage(model.file);
    ASSERT_EQ(appendBoth(0), READ_FAILS);
}

// --- Reading back ---

class ReadBack : public Append {
  protected:
    static constexpr EmpSite_t SITE = {1, "readBack"};
    /** The record at an offset, header and data, and how many calls it took to read it. */
    static Bytes readAt(uint32_t offset, int& reads) {
        Bytes bytes(160 + 3848);
        EmpEvRecord_t record;
        hooks::resetCounts();
        empLogSeek(offset, SITE);
        empReadRecord(&record, SITE);
        memcpy(bytes.data(), &record, 160);
        empReadRecordData(&record, bytes.data() + 160, SITE);
        reads = hooks::state.reads.count;
        bytes.resize(160U + record.evStructLength);
        EXPECT_EQ(position(), static_cast<int64_t>(offset + bytes.size()));
        return bytes;
    }
};

TEST_F(ReadBack, RecordWrittenLastIsInMemory) {
    ASSERT_EQ(scanBoth(Image()), "");
    for (size_t size : {size_t{0}, size_t{100}, size_t{3848}}) {
        uint32_t offset = empControl.empWrite;
        ASSERT_EQ(appendBoth(size), "");
        int reads = -1;
        EXPECT_EQ(readAt(offset, reads), slice(model.file, offset, 160 + size));
        EXPECT_EQ(reads, 0);
    }
}

TEST_F(ReadBack, OlderRecordTakesOneReadAndLongDataAnother) {
    ASSERT_EQ(scanBoth(Image()), "");
    const size_t sizes[] = {0, 864, 865, 3848};
    const int wanted[] = {1, 1, 2, 2};
    std::vector<uint32_t> offsets;
    for (size_t size : sizes) {
        offsets.push_back(empControl.empWrite);
        ASSERT_EQ(appendBoth(size), "");
    }
    ASSERT_EQ(appendBoth(0), "");
    for (size_t i = 0; i < offsets.size(); i++) {
        int reads = -1;
        EXPECT_EQ(readAt(offsets[i], reads), slice(model.file, offsets[i], 160 + sizes[i]));
        EXPECT_EQ(reads, wanted[i]) << sizes[i];
    }
}

TEST_F(ReadBack, RecordThatWasWrittenOverIsReadFromTheFile) {
    ASSERT_EQ(scanBoth(Image()), "");
    uint32_t offset = empControl.empWrite;
    ASSERT_EQ(appendBoth(100), "");
    empWriteDummyEntryToLogFile(offset + 259, 0, 0);
    int reads = -1;
    EXPECT_EQ(readAt(offset, reads)[259], 0xB6);
    EXPECT_EQ(reads, 1);
}

} // namespace
