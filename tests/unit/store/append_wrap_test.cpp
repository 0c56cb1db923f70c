/**
 * Appending round the end of the file: the dummy at the bottom, the wiped records, the sizing from
 * the index and its oddities. Each step is also compared with the model.
 */
#include "bug_check_texts.h"
#include "model_fixture.h"

#include <algorithm>
#include <cstring>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;
using logimage::slice;

class WrapOver : public ModelTest {
  protected:
    void overwrite(const Bytes& bytes, uint32_t offset) {
        std::copy(bytes.begin(), bytes.end(),
                  model.file.begin() + static_cast<std::ptrdiff_t>(offset));
        putImage(model.file);
    }
    /** What a "clear prior than" of the archiver does: slots up to @p last are emptied. */
    void clearUpTo(uint32_t last) {
        while (model.startId <= last) {
            uint32_t slot = model.startId % 10'000;
            model.index[slot] = {};
            empIndexClear(slot);
            model.startId = ++empControl.empStartSequenceId;
            model.inFile = --empControl.empEventInLogFile;
        }
    }
    bool saw(const std::string& text) const { return lastOutput.find(text) != std::string::npos; }
    uint32_t nextId = 0;
};

TEST_F(WrapOver, FirstWrapStoresOverTheOldestRecordsAtTheTop) {
    // 200, then records of 4008 bytes; 2000 bytes are left.
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'598'000, nextId).dummyToEnd()), "");
    overwrite(Bytes(100, 0xEE), 1'599'000);
    uint32_t records = nextId;
    ASSERT_EQ(appendBoth(3848), "");
    // The first entry and record 1 go: 200 + 4008 bytes.
    EXPECT_EQ(state(), (LogState{4008, 4208, 2, records + 1, WRAP_TRUE, 0, records - 1, 1, 2, 0}));
    EXPECT_FALSE(indexed(0));
    EXPECT_FALSE(indexed(1));
    EXPECT_EQ(offsetOf(2), 4208U);
    EXPECT_EQ(offsetOf(records), 0U);
    EXPECT_TRUE(indexed(records));
    EXPECT_EQ(validSlots(), empControl.empEventInLogFile);
    EXPECT_EQ(logimage::get16(readLog(), 1'598'000 + 152), 1840);
    EXPECT_EQ(slice(readLog(), 1'599'000, 100), Bytes(100, 0xEE)); // not filled yet
}

TEST_F(WrapOver, LinesOfTheFirstWrap) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    std::string id = std::to_string(nextId);
    ASSERT_EQ(appendBodyBoth(Bytes(1000, 'x')), "");
    EXPECT_EQ(
        lastOutput.substr(0, lastOutput.find("empWriteDummy")),
        "empSaveEventLogMsgToLogFile(): Current File Position at [1599000].\n"
        "empSaveEventLogMsgToLogFile(): Not enough space for new Event Entry between empWrite = "
        "[1599000] and empStart = [1600000].\n"
        "empSaveEventLogMsgToLogFile(): New Event Entry Length = [1160], need to wrap to the Top "
        "of Event Log Fiel.\n"
        "empSaveEventLogMsgToLogFile(): Check Event Record from the top to wipe out # of "
        "eventEntryDatabase in the bottom.\n"
        "empSaveEventLogMsgToLogFile(): Write Dummy Entry for wipping out space.\n");
    EXPECT_EQ(
        lastOutput.substr(lastOutput.find("empSaveEventLogMsgToLogFile(): Event Log File is")),
        "empSaveEventLogMsgToLogFile(): Event Log File is wrapped over.\n"
        "empSaveEventLogMsgToLogFile(): Not enough space to the bottom for new Event Entry. Start "
        "from the Top.\n"
        "empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[0], new empStartSequenceId = "
        "[1]\n"
        "empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[1], new empStartSequenceId = "
        "[2]\n"
        "empSaveEventLogMsgToLogFile(): Including Event with SequenceId = [1] got enough space\n"
        "empSaveEventLogMsgToLogFile(): empWrite = [0], empStart = [4208], empStartSequenceId = "
        "[2].\n"
        "empSaveEventLogMsgToLogFile(): empWrite = [0], empStart = [4208], empStartSequenceId = "
        "[2].\n"
        "empSaveEventLogMsgToLogFile(): Write total [1160] bytes into Event Log File.\n"
        "empSaveEventLogMsgToLogFile(): Record eventEntryDatabase[" +
            id +
            "], Offset = [0], Flag = [0x1] for new Event Entry.\n"
            "empSaveEventLogMsgToLogFile(): new empWrite = [1160].\n");
}

TEST_F(WrapOver, EventOfTheOldestRecordsSizeDiscardsOnlyThat) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'900, nextId)), "");
    ASSERT_EQ(appendBoth(40), "");
    EXPECT_EQ(state(), (LogState{200, 200, 1, nextId + 1, WRAP_TRUE, 0, nextId, 1, 1, 0}));
}

TEST_F(WrapOver, OneByteMoreDiscardsTheNextToo) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'900, nextId)), "");
    ASSERT_EQ(appendBoth(41), "");
    EXPECT_EQ(state(), (LogState{201, 4208, 2, nextId + 1, WRAP_TRUE, 0, nextId - 1, 1, 2, 0}));
}

TEST_F(WrapOver, LessThanAHeaderAtTheBottomIsZeroed) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'900, nextId)), "");
    overwrite(Bytes(100, 0xEE), 1'599'900);
    ASSERT_EQ(appendBoth(40), "");
    EXPECT_EQ(slice(readLog(), 1'599'900, 100), logimage::zeros(100));
    EXPECT_TRUE(saw("Write [100] bytes of 0 to Event Log File.\n"));
}

TEST_F(WrapOver, LaterWrapWipesTheOldRecordsAtTheBottomAndFillsIt) {
    ASSERT_EQ(scanBoth(logimage::nearBottom(3, 900, true, nextId)), "");
    uint32_t inFile = empControl.empEventInLogFile;
    overwrite(Bytes(10, 0xEE), 1'599'980);
    ASSERT_EQ(appendBoth(3848), "");
    // 997 to 999 at the bottom, then 1000 at the top.
    EXPECT_EQ(state(), (LogState{4008, 4008, 1001, nextId + 1, WRAP_TRUE, 0, inFile - 3, 1, 4, 0}));
    EXPECT_TRUE(saw("Wipe out eventEntryDatabase[999], empStartSequenceId = [1000]\n"));
    EXPECT_TRUE(saw("Wipe out eventEntryDatabase[1000], new empStartSequenceId = [1001]\n"));
    uint32_t dummy = END_OF_FILE - 900 - 480;
    EXPECT_EQ(logimage::get16(readLog(), dummy + 152), 900 + 480 - 160);
    EXPECT_EQ(slice(readLog(), dummy + 160, END_OF_FILE), logimage::zeros(900 + 480 - 160));
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(state(), (LogState{4008, 4008, 1001, nextId + 1, WRAP_TRUE, 0, inFile - 3, 0, 0, 0}));
}

TEST_F(WrapOver, SlotNumbersThatPass9999BetweenBottomAndTopCostOneBugCheck) {
    ASSERT_EQ(scanBoth(logimage::nearBottom(3, 900, true, nextId, 10'000)), "");
    ASSERT_EQ(empControl.empStartSequenceId, 9'997U);
    ASSERT_EQ(appendBoth(3848), "");
    // 9997 and 9998 are sized by what follows them (160 each); behind 9999 comes offset 0.
    EXPECT_EQ(empControl.empStartSequenceId, 10'000U);
    EXPECT_EQ(empControl.empStart, 0U - (END_OF_FILE - 900 - 480));
    EXPECT_GT(empControl.empStart, 4'293'000'000U);
    EXPECT_EQ(appendBoth(3848), MISMATCHING);
    EXPECT_EQ(restartBoth(), "");
    EXPECT_EQ(appendBoth(3848), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrapOver, IdsMayPass9999OnTheWay) {
    ASSERT_EQ(scanBoth(logimage::nearBottom(3, 900, true, nextId, 9'900)), "");
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(appendBoth(3848), "");
        EXPECT_EQ(validSlots(), empControl.empEventInLogFile);
    }
}

TEST_F(WrapOver, IdsPassTheirLastValueWithAHigherInstance) {
    ASSERT_EQ(scanBoth(Image().event(0xFFFFFFFE, 0).dummyToEnd()), "");
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(state(), (LogState{320, END_OF_FILE, 0xFFFFFFFE, 0, WRAP_FALSE, 0, 2, 1, 0, 1}));
    ASSERT_EQ(appendBoth(0), "");
    EXPECT_EQ(logimage::get32(readLog(), 160 + 140), 0U);
    EXPECT_EQ(logimage::get32(readLog(), 320 + 140), 1U);
    EXPECT_EQ(logimage::get32(readLog(), 320 + 144), 0U);
    EXPECT_TRUE(saw("empSaveEventLogMsgToLogFile(): Record eventEntryDatabase[0], Offset = [320], "
                    "Flag = [0x1] for new Event Entry.\n"));
}

// --- The record at the top ---

TEST_F(WrapOver, DamagedSignatureAtTheTopIsABugCheck) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    overwrite(Bytes(1, 0), 1);
    EXPECT_EQ(appendBoth(3848), SIGNATURE);
}

TEST_F(WrapOver, MissingTopIsABugCheck) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    model.file.resize(159);
    putImage(model.file);
    EXPECT_EQ(appendBoth(3848), READ_FAILS);
}

// --- Nothing left to size from ---

TEST_F(WrapOver, ClearOfEverythingBeforeAWrapLeavesALogOfOneRecord) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    uint32_t id = nextId;
    clearUpTo(id - 1);
    ASSERT_EQ(validSlots(), 0U);
    ASSERT_EQ(appendBoth(3848), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(empControl.empStartSequenceId, id);
    EXPECT_EQ(empControl.empEventInLogFile, 1U);
    EXPECT_EQ(validSlots(), 1U);
    EXPECT_EQ(empControl.empWrite, 4008U);
    EXPECT_EQ(slice(readLog(), 4168, END_OF_FILE), logimage::zeros(END_OF_FILE - 4168));
    EXPECT_TRUE(saw("Including Event with SequenceId = [" + std::to_string(id - 1) +
                    "] got enough space\n"));
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(state(), (LogState{4008, END_OF_FILE, id, id + 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
    ASSERT_EQ(appendBoth(3848), "");
}

TEST_F(WrapOver, OnlyTheRecordAtTheTopLeftIsNothingToSizeFrom) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    uint32_t id = nextId;
    clearUpTo(id - 1);
    model.index[5] = {true, 0}; // a valid slot that leads to offset 0
    empIndexRecord(5, 0);
    ASSERT_EQ(appendBoth(3848), "");
    EXPECT_EQ(validSlots(), 1U);
    EXPECT_FALSE(indexed(5));
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
}

TEST_F(WrapOver, HighIdAtTheTopWipesTheIndexAndTheLogBeginsAnew) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    Bytes top = slice(model.file, 0, 200);
    logimage::put32(top, 144, 9'999); // not sealed again: only the signature is looked at
    overwrite(top, 0);
    ASSERT_EQ(appendBoth(3848), "");
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(validSlots(), 1U);
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(empControl.empEventInLogFile, 1U);
}

// --- After the archiver has had entries cleared ---

TEST_F(WrapOver, ClearedEntriesInAWrappedLogCostOneBugCheckAndAreBackAfterAStart) {
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
    ASSERT_EQ(scanBoth(log.image), "");
    clearUpTo(log.oldestId + 4);
    EXPECT_EQ(appendBoth(2000), MISMATCHING);
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(empControl.empStartSequenceId, log.oldestId);
    EXPECT_EQ(appendBoth(2000), "");
}

TEST_F(WrapOver, ClearedEntriesInAnUnwrappedLogCostOneBugCheckBehindTheFirstWrap) {
    ASSERT_EQ(scanBoth(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()), "");
    clearUpTo(10);
    ASSERT_EQ(appendBoth(3848), ""); // sized from the index: record 11's length from the top
    std::string text = appendBoth(3848);
    EXPECT_TRUE(text == MISMATCHING || text == SIGNATURE) << text;
    ASSERT_EQ(restartBoth(), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrapOver, RecordCounterUnderflowsAfterAClear) {
    ASSERT_EQ(scanBoth(logimage::nearBottom(3, 900, true, nextId)), "");
    model.inFile = empControl.empEventInLogFile = 1;
    ASSERT_EQ(appendBoth(3848), "");
    EXPECT_EQ(empControl.empEventInLogFile, 0xFFFFFFFEU); // 1 - 4 + 1
}

} // namespace
