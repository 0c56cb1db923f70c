/**
 * Starts on wrapped logs whose gap holds what should not be there, and on logs of other blades.
 */
#include "bug_check_texts.h"
#include "model_fixture.h"

#include <algorithm>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

/** Three newest records of 660 bytes, a gap of 1180 from 1980 on, oldest record 1 at 3160. */
class WrappedState : public ModelTest {
  protected:
    /** Puts @p bytes at @p offset, inside the gap. */
    Image withInGap(const Bytes& bytes, uint32_t offset) {
        Image image = log.image;
        std::copy(bytes.begin(), bytes.end(),
                  image.bytes.begin() + static_cast<std::ptrdiff_t>(offset));
        return image;
    }

    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
};

TEST_F(WrappedState, DamagedNewestRecordWidensTheGap) {
    EXPECT_EQ(scanBoth(log.image.flip(1320 + 200)), "");
    EXPECT_EQ(state(),
              (LogState{1320, 3160, 1, log.nextId - 1, WRAP_TRUE, 1, log.inFile - 1, 0, 0, 0}));
    EXPECT_EQ(appendBoth(1000), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrappedState, DamagedOldestRecordWidensTheGap) {
    EXPECT_EQ(scanBoth(log.image.flip(3160 + 200)), "");
    EXPECT_EQ(state(),
              (LogState{1980, 6320, 2, log.nextId, WRAP_TRUE, 1, log.inFile - 1, 0, 0, 0}));
    EXPECT_EQ(appendBoth(3848), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrappedState, DamageAmongTheOldRecordsIsASecondGap) {
    EXPECT_EQ(scanBoth(log.image.flip(3160 * 20 + 200)), "");
    EXPECT_TRUE(rebuilt);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
}

TEST_F(WrappedState, DamageAmongTheOldRecordsWithoutAGapMovesTheStartToTheWrongPlace) {
    logimage::Wrapped full = logimage::wrapped(3, 500, 500);
    Image image = full.image;
    EXPECT_EQ(scanBoth(image.flip(660 * 20 + 200)), "");
    EXPECT_EQ(state(),
              (LogState{1980, 1980 + 660, 3, full.nextId, WRAP_TRUE, 1, full.inFile - 1, 0, 0, 0}));
    // One that fits into the wrong gap discards the oldest although it does not stand at the start.
    EXPECT_EQ(appendBoth(500), "");
    EXPECT_EQ(empControl.empStartSequenceId, 4U);
    EXPECT_EQ(appendBoth(500), "");
}

TEST_F(WrappedState, DamageAmongTheOldRecordsWithoutAGapStopsALargerEvent) {
    logimage::Wrapped full = logimage::wrapped(3, 500, 500);
    Image image = full.image;
    image.flip(660 * 20 + 200);
    for (int start = 0; start < 2; start++) {
        EXPECT_EQ(start == 0 ? scanBoth(image) : restartBoth(), "");
        std::string text = appendBoth(501);
        EXPECT_TRUE(text == MISMATCHING || text == SIGNATURE) << text;
    }
}

TEST_F(WrappedState, StaleDummyInTheGapHidesAllOldRecords) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::dummy(100)), 2500)), "");
    EXPECT_EQ(state(),
              (LogState{1980, END_OF_FILE, log.nextId - 3, log.nextId, WRAP_FALSE, 1, 3, 0, 0, 0}));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrappedState, StaleDummyAtTheWritePositionHidesThemWithoutAGap) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::dummy(100)), 1980)), "");
    EXPECT_EQ(state(),
              (LogState{1980, END_OF_FILE, log.nextId - 3, log.nextId, WRAP_FALSE, 0, 3, 0, 0, 0}));
    EXPECT_EQ(appendBoth(3848), "");
}

TEST_F(WrappedState, StaleDummyAtRunTimeStopsAnEventThatItCannotTake) {
    EXPECT_EQ(scanBoth(log.image), "");
    // Such a dummy comes with an event's data that quotes it; it becomes part of the gap later.
    Bytes dummy = encode(Record::dummy(100));
    std::copy(dummy.begin(), dummy.end(), model.file.begin() + 2000);
    putImage(model.file);
    EXPECT_EQ(appendBoth(100), ""); // need 260 - 20 <= 260
    restart();
    EXPECT_EQ(scanBoth(log.image), "");
    std::copy(dummy.begin(), dummy.end(), model.file.begin() + 2000);
    putImage(model.file);
    EXPECT_EQ(appendBoth(400), REACH_DUMMY);
}

TEST_F(WrappedState, OldRecordInTheMiddleOfTheGapCostsTheLog) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::event(0, 40)), 2500)), "");
    EXPECT_TRUE(rebuilt);
}

TEST_F(WrappedState, OldRecordInTheMiddleOfTheGapStopsAnAppendAtRunTime) {
    EXPECT_EQ(scanBoth(log.image), "");
    Bytes stale = encode(Record::event(0, 40));
    std::copy(stale.begin(), stale.end(), model.file.begin() + 2500);
    putImage(model.file);
    EXPECT_EQ(appendBoth(1000), MISMATCHING);
}

TEST_F(WrappedState, OldRecordThatEndsAtTheStartIsTakenForTheOldest) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::event(0, 40)), 3160 - 200)), "");
    EXPECT_EQ(state(),
              (LogState{1980, 2960, 0, log.nextId, WRAP_TRUE, 1, log.inFile + 1, 0, 0, 0}));
    // Its id is the oldest's less one, so that it can be discarded.
    EXPECT_EQ(appendBoth(3000), "");
}

TEST_F(WrappedState, OldRecordWithAnotherIdThatEndsAtTheStartStopsALaterDiscard) {
    logimage::Wrapped later = logimage::wrapped(3, 500, 3000, 100);
    Image image = later.image;
    Bytes stale = encode(Record::event(50, 40));
    std::copy(stale.begin(), stale.end(), image.bytes.begin() + 3160 - 200);
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(empControl.empStartSequenceId, 50U);
    EXPECT_EQ(appendBoth(3000), MISMATCHING);
}

TEST_F(WrappedState, RecordWithTheNextIdAtTheWritePositionIsSwallowed) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::event(log.nextId, 40)), 1980)), "");
    EXPECT_EQ(state(),
              (LogState{2180, 3160, 1, log.nextId + 1, WRAP_TRUE, 1, log.inFile + 1, 0, 0, 0}));
}

TEST_F(WrappedState, RecordWithTheNextIdElsewhereInTheGapStopsEveryStart) {
    EXPECT_EQ(scanBoth(withInGap(encode(Record::event(log.nextId, 40)), 2500)), CONTINUOUS);
    EXPECT_EQ(restartBoth(), CONTINUOUS);
}

TEST_F(WrappedState, BadEventSourceInTheGapStopsEveryStart) {
    Bytes bad = logimage::zeros(160);
    bad[0] = 0xB6;
    bad[1] = 0x8F;
    bad[2] = 1;
    bad[154] = 35;
    bad[155] = 3;
    std::string text =
        "Bad Event Source [35] in the Corrupted Event Log File! Please Delete the File.";
    EXPECT_EQ(scanBoth(withInGap(bad, 2500)), text);
    EXPECT_EQ(lastFunction, "empFindValidEventEntry");
    bad[155] = 4; // an unknown type is only passed over
    EXPECT_EQ(scanBoth(withInGap(bad, 2500)), "");
    bad[155] = 3;
    bad[2] = 2; // so is an unknown version
    EXPECT_EQ(scanBoth(withInGap(bad, 2500)), "");
}

TEST_F(WrappedState, InvalidSequenceIdStopsTheStart) {
    // Ids go back, but not behind the first one.
    Image image;
    image.event(5, 40).event(6, 40).event(7, 40).event(5, 40).dummyToEnd();
    EXPECT_EQ(scanBoth(image), "Invalid Sequence ID? Bug somewhere!");
    EXPECT_EQ(lastFunction, "empProcessEventLogFile");
}

TEST_F(WrappedState, RepeatedFirstIdIsNoWrap) {
    Image image;
    image.event(5, 40).event(5, 40).dummyToEnd();
    EXPECT_EQ(scanBoth(image), "Invalid Sequence ID? Bug somewhere!");
}

// --- Another blade's log ---

class ForeignState : public ModelTest {
  protected:
    static Image logOf(const char* enclosure, const char* blade, uint32_t slot) {
        Image image;
        for (uint32_t id = 0; id < 5; id++) {
            Record record = Record::event(id, 40, 8);
            record.enclosure = enclosure;
            record.blade = blade;
            record.slot = slot;
            image.add(record);
        }
        return image.dummyToEnd();
    }
    static constexpr LogState CLEARED = {200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 9};
};

TEST_F(ForeignState, OtherSlotIsClearedWithAHigherInstance) {
    EXPECT_EQ(scanBoth(logOf(logimage::ENCLOSURE, logimage::BLADE, 4)), "");
    EXPECT_EQ(state(), CLEARED);
    EXPECT_EQ(validSlots(), 1U);
    Bytes log = readLog();
    EXPECT_EQ(logimage::get32(log, 140), 9U);
    EXPECT_EQ(logimage::slice(log, 360, END_OF_FILE), logimage::zeros(END_OF_FILE - 360));
    EXPECT_NE(lastOutput.find("EnclosureId[ENCLOSURE-SERIAL-0123456789-ABC] or SlotId [4] in "
                              "Event Log File Different from Run Time.\n"),
              std::string::npos);
}

TEST_F(ForeignState, OtherEnclosureIsCleared) {
    EXPECT_EQ(scanBoth(logOf("ENCLOSURE-SERIAL-0123456789-ABD", logimage::BLADE, 3)), "");
    EXPECT_EQ(state(), CLEARED);
}

TEST_F(ForeignState, OtherBladeIdAloneIsOwn) {
    EXPECT_EQ(scanBoth(logOf(logimage::ENCLOSURE, "BLADE-0043", 3)), "");
    EXPECT_EQ(state(), (LogState{1000, END_OF_FILE, 0, 5, WRAP_FALSE, 0, 5, 0, 0, 8}));
}

TEST_F(ForeignState, GapBeforeTheForeignRecordStaysNoted) {
    EXPECT_EQ(scanBoth(logOf(logimage::ENCLOSURE, logimage::BLADE, 4).flip(50)), "");
    LogState wanted = CLEARED;
    wanted.foundGap = 1;
    EXPECT_EQ(state(), wanted);
}

TEST_F(ForeignState, LaterForeignRecordsAreOwn) {
    Image image;
    image.add(Record::first()).event(1, 40);
    Record other = Record::event(2, 40);
    other.slot = 9;
    image.add(other).dummyToEnd();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{600, END_OF_FILE, 0, 3, WRAP_FALSE, 0, 3, 0, 0, 0}));
}

// --- A dummy first ---

TEST_F(ForeignState, DummyAtTheTopLeavesALogWithoutFirstEntry) {
    EXPECT_EQ(scanBoth(Image().dummyToEnd(7)), "");
    EXPECT_EQ(state(), (LogState{0, END_OF_FILE, 0, 0, WRAP_FALSE, 0, 0, 0, 0, 0}));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
    EXPECT_EQ(offsetOf(0), 0U);
}

TEST_F(ForeignState, DummyBehindAGapLeavesALogWithoutFirstEntry) {
    Image image;
    image.fill(50, 0x44).dummyToEnd();
    EXPECT_EQ(scanBoth(image), "");
    EXPECT_EQ(state(), (LogState{0, END_OF_FILE, 0, 0, WRAP_FALSE, 1, 0, 0, 0, 0}));
    EXPECT_EQ(appendBoth(40), "");
    EXPECT_EQ(empControl.empWrite, 200U);
}

} // namespace
