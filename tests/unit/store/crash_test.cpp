/**
 * The process killed before each write of one append, of a rebuild and of a clear, and in the write
 * of a record, behind its header: what the next start makes of the file.
 */
#include "store_fixture.h"

#include <filesystem>

namespace {

using logimage::Bytes;
using logimage::Image;
using logimage::Record;

class Crash : public StoreTest {
  protected:
    /** Kills @p action before its write number @p write, then starts anew. */
    void killBefore(int write, const std::function<void()>& action) {
        ChildEnd end = inChild([&] {
            hooks::state.exitBeforeWrite = write;
            action();
        });
        ASSERT_EQ(end.exitStatus, hooks::EXIT_STATUS) << "no write number " << write;
        start();
    }
    /** Kills @p action in its write number @p write, behind a header, then starts anew. */
    void killBehindHeader(int write, const std::function<void()>& action) {
        ChildEnd end = inChild([&] {
            hooks::state.exitInWrite = write;
            hooks::state.exitInWriteBytes = 160;
            action();
        });
        ASSERT_EQ(end.exitStatus, hooks::EXIT_STATUS) << "no write number " << write;
        start();
    }
    /** @p action ends by itself after @p writes writes, then a new start. */
    void complete(int writes, const std::function<void()>& action) {
        ChildEnd end = inChild([&] {
            hooks::state.exitBeforeWrite = writes + 1;
            action();
        });
        ASSERT_EQ(end.exitStatus, 0) << "more than " << writes << " writes";
        start();
    }
    void start() {
        restart();
        outputOf([&] { rebuilt = empScanEventLogFile() == EMP_E_SCAN_REBUILT; });
    }
    /** Appends go through, and the next start finds them. */
    void expectHealthy() {
        for (int i = 0; i < 3; i++) {
            outputOf([&] { append(500); });
        }
        LogState before = state();
        start();
        EXPECT_EQ(empControl.empSequenceId, before.nextId);
        EXPECT_EQ(empControl.empWrite, before.write);
    }
    bool rebuilt = false;
    uint32_t nextId = 0;
};

// --- Unwrapped ---

/** Records 0 to 10, end at 2200; the event takes 660 bytes. */
class CrashUnwrapped : public Crash {
  protected:
    CrashUnwrapped() { scanImage(logimage::unwrapped(10, 40).dummyToEnd()); }
    std::function<void()> event = [this] { append(500); };
};

TEST_F(CrashUnwrapped, BeforeTheHeaderNothingHasHappened) {
    Bytes before = readLog();
    killBefore(1, event);
    EXPECT_EQ(readLog(), before);
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
}

TEST_F(CrashUnwrapped, BeforeTheBodyTheEventIsLostAndTheDummyRewritten) {
    killBehindHeader(1, event);
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashUnwrapped, BeforeTheBodyAnEmptyEventIsStored) {
    killBehindHeader(1, [&] { append(0); });
    EXPECT_EQ(state(), (LogState{2360, 2360, 0, 12, WRAP_FALSE, 0, 12, 0, 0, 0}));
}

TEST_F(CrashUnwrapped, BeforeTheBodyAnEventOfZerosOverZerosIsStored) {
    killBehindHeader(1, [&] { appendBody(logimage::zeros(500)); });
    EXPECT_EQ(empControl.empSequenceId, 12U);
}

TEST_F(CrashUnwrapped, BeforeTheFreshDummyTheEventIsRecovered) {
    killBefore(2, event);
    EXPECT_EQ(state(), (LogState{2860, 2860, 0, 12, WRAP_FALSE, 0, 12, 0, 0, 0}));
    EXPECT_EQ(offsetOf(11), 2200U);
    expectHealthy();
}

TEST_F(CrashUnwrapped, CompleteInTwoWrites) {
    complete(2, event);
    EXPECT_EQ(state(), (LogState{2860, END_OF_FILE, 0, 12, WRAP_FALSE, 0, 12, 0, 0, 0}));
}

// --- Wrapped, in the gap ---

/** Newest to 1980, gap to 3160, oldest id 1. */
class CrashInGap : public Crash {
  protected:
    CrashInGap() { scanImage(log.image); }
    logimage::Wrapped log = logimage::wrapped(3, 500, 3000);
};

TEST_F(CrashInGap, BeforeTheHeaderNothingHasHappened) {
    killBefore(1, [&] { append(100); });
    EXPECT_EQ(readLog(), log.image.bytes);
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, log.inFile, 0, 0, 0}));
}

TEST_F(CrashInGap, BeforeTheBodyTheGapRemains) {
    killBehindHeader(1, [&] { append(100); });
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, log.inFile, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashInGap, CompleteInOneWrite) {
    complete(1, [&] { append(100); });
    EXPECT_EQ(state(),
              (LogState{2240, 3160, 1, log.nextId + 1, WRAP_TRUE, 1, log.inFile + 1, 0, 0, 0}));
}

TEST_F(CrashInGap, DiscardedOnlyInMemoryBeforeTheHeader) {
    killBefore(1, [&] { append(3000); });
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, log.inFile, 0, 0, 0}));
}

TEST_F(CrashInGap, DiscardedRecordIsFoundAgainBeforeTheBody) {
    killBehindHeader(1, [&] { append(3000); });
    EXPECT_EQ(state(), (LogState{1980, 3160, 1, log.nextId, WRAP_TRUE, 1, log.inFile, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashInGap, TornHeaderOverTheOldestRecordCostsOnlyThat) {
    logimage::Wrapped full = logimage::wrapped(3, 500, 500);
    scanImage(full.image);
    killBehindHeader(1, [&] { append(300); });
    EXPECT_EQ(state(),
              (LogState{1980, 2640, 4, full.nextId, WRAP_TRUE, 1, full.inFile - 1, 0, 0, 0}));
    expectHealthy();
}

// --- Reaching the bottom dummy ---

/** One old record of 160 bytes, then a dummy of 4000 bytes; the event needs both. */
class CrashAtBottom : public Crash {
  protected:
    CrashAtBottom() {
        scanImage(logimage::nearBottom(1, 4000, true, nextId));
        write = empControl.empWrite;
        inFile = empControl.empEventInLogFile;
    }
    uint32_t write = 0;
    uint32_t inFile = 0;
    std::function<void()> event = [this] { append(840); };
};

TEST_F(CrashAtBottom, BeforeTheBodyItLooksUnwrapped) {
    killBehindHeader(1, event);
    EXPECT_EQ(state(),
              (LogState{write, END_OF_FILE, 1000, nextId, WRAP_FALSE, 1, inFile - 1, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashAtBottom, BeforeTheDummyTheEventIsRecovered) {
    killBefore(2, event);
    EXPECT_EQ(state(), (LogState{write + 1000, write + 1000, 1000, nextId + 1, WRAP_FALSE, 0,
                                 inFile, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashAtBottom, BeforeTheFillTheEventIsRecovered) {
    killBefore(3, event);
    EXPECT_EQ(state(), (LogState{write + 1000, END_OF_FILE, 1000, nextId + 1, WRAP_FALSE, 0, inFile,
                                 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashAtBottom, BeforeTheLastZerosTheEventIsRecovered) {
    killBefore(2, [&] { append(3848); }); // 152 bytes are left
    EXPECT_EQ(state(), (LogState{write + 4008, write + 4008, 1000, nextId + 1, WRAP_FALSE, 0,
                                 inFile, 0, 0, 0}));
    expectHealthy();
}

// --- Wrapping ---

/** Unwrapped to 1,599,000; the event of 4008 bytes goes over the first entry and record 1. */
class CrashWrapping : public Crash {
  protected:
    CrashWrapping() { scanImage(logimage::unwrappedTo(1'599'000, nextId).dummyToEnd()); }
    std::function<void()> event = [this] { append(3848); };
};

TEST_F(CrashWrapping, BeforeTheDummyAndBeforeTheHeaderNothingHasHappened) {
    LogState before = state();
    killBefore(1, event);
    EXPECT_EQ(state(), before);
    killBefore(2, event);
    EXPECT_EQ(state(), before);
}

TEST_F(CrashWrapping, BeforeTheBodyTheTornHeaderIsTheGap) {
    killBehindHeader(2, event);
    // The first entry lies under the torn header; record 1 at 200 has survived.
    EXPECT_EQ(state(),
              (LogState{1'599'000, END_OF_FILE, 1, nextId, WRAP_FALSE, 1, nextId - 1, 0, 0, 0}));
    // What still fits below is fine.
    outputOf([&] { append(100); });
    EXPECT_EQ(empControl.empWrite, 1'599'260U);
}

TEST_F(CrashWrapping, FirstWrapAfterATornHeaderStartsTheLogAgainWithThatEvent) {
    killBehindHeader(2, event);
    uint32_t id = empControl.empSequenceId;
    // The torn header's id wipes the whole index: there is nothing to size from.
    outputOf(event);
    EXPECT_EQ(empControl.empStart, END_OF_FILE);
    EXPECT_EQ(validSlots(), 1U);
    start();
    EXPECT_EQ(state(), (LogState{4008, END_OF_FILE, id, id + 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
    expectHealthy();
}

TEST_F(CrashWrapping, WrapAfterATornHeaderAndEventsThatFittedCostsAtMostOneBugCheck) {
    killBehindHeader(2, event);
    outputOf([&] { append(100); });
    int bugChecks = 0;
    for (int i = 0; i < 4; i++) {
        Bytes before = readLog();
        ChildEnd end = inChild(event);
        if (end.aborted) {
            EXPECT_TRUE(end.message == "Mismatching empStartSequenceId in Event Entry!" ||
                        end.message == "Incorrect Signature in Event Entry!")
                << end.message;
            bugChecks++;
            start();
        } else {
            putImage(before); // here once more, so that this process knows of it
            outputOf(event);
        }
    }
    EXPECT_LE(bugChecks, 1);
}

TEST_F(CrashWrapping, CompleteInTwoWrites) {
    complete(2, event);
    EXPECT_EQ(state(), (LogState{4008, 4208, 2, nextId + 1, WRAP_TRUE, 1, nextId - 1, 0, 0, 0}));
}

TEST_F(CrashWrapping, AgainInAWrappedLogTheBottomRecordsAreDropped) {
    scanImage(logimage::nearBottom(3, 900, true, nextId));
    uint32_t write = empControl.empWrite;
    uint32_t inFile = empControl.empEventInLogFile;
    LogState dropped = {write, END_OF_FILE, 1000, nextId, WRAP_FALSE, 0, inFile - 3, 0, 0, 0};
    Bytes image = readLog();
    killBefore(2, event); // before the fill
    EXPECT_EQ(state(), dropped);
    scanImage(image);
    killBefore(3, event); // before the header
    EXPECT_EQ(state(), dropped);
    expectHealthy();
}

// --- A fresh log ---

TEST_F(Crash, FreshLogBeforeItsFirstEntry) {
    killBefore(1, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
}

TEST_F(Crash, FreshLogBeforeItsDummy) {
    killBefore(2, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{200, 200, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
    expectHealthy();
}

TEST_F(Crash, FreshLogBeforeItsZerosStaysShort) {
    killBefore(3, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 0}));
    EXPECT_EQ(logSize(), 360U);
    expectHealthy();
}

// --- A dummy at the end of the scan ---

TEST_F(Crash, DummyOfTheScanIsWrittenByTheNextStart) {
    putImage(logimage::unwrapped(10, 40));
    killBefore(1, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{2200, 2200, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
    EXPECT_EQ(logSize(), END_OF_FILE);
    putImage(logimage::unwrapped(10, 40));
    killBefore(2, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{2200, END_OF_FILE, 0, 11, WRAP_FALSE, 0, 11, 0, 0, 0}));
}

// --- Rebuild ---

class CrashRebuild : public Crash {
  protected:
    CrashRebuild() {
        Image image;
        for (uint32_t id = 0; id < 11; id++) {
            image.event(id, 40, 4);
        }
        putImage(image.dummyToEnd().flip(650).flip(1450));
    }
};

TEST_F(CrashRebuild, BeforeTheFirstEntryTheInstanceIsLost) {
    killBefore(1, [&] { empScanEventLogFile(); });
    EXPECT_FALSE(rebuilt);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 1, 0, 0}));
    EXPECT_FALSE(std::filesystem::exists(debugPath));
}

TEST_F(CrashRebuild, BeforeTheDummyTheInstanceIsKept) {
    killBefore(2, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{200, 200, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 4}));
}

TEST_F(CrashRebuild, BeforeItsEventTheNextStartKnowsNothingOfIt) {
    complete(2 + (1'599'640 + 4063) / 4064, [&] { empScanEventLogFile(); });
    EXPECT_FALSE(rebuilt);
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 1, 0, 0, 4}));
    EXPECT_FALSE(std::filesystem::exists(debugPath));
}

// --- Clear of a foreign log ---

class CrashForeign : public Crash {
  protected:
    /** Ids from @p first on, 200 bytes each, from slot 9. */
    static Image foreign(uint32_t first) {
        Image image;
        for (uint32_t id = first; id < first + 5; id++) {
            Record record = Record::event(id, 40, 2);
            record.slot = 9;
            image.add(record);
        }
        return image.dummyToEnd();
    }
};

TEST_F(CrashForeign, BeforeTheDummyRecordsThatContinueAreTakenForOwn) {
    putImage(foreign(0));
    killBefore(2, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{1000, END_OF_FILE, 0, 5, WRAP_FALSE, 0, 5, 0, 0, 3}));
}

TEST_F(CrashForeign, BeforeTheDummyOthersAreKeptAsAJumpOfIds) {
    putImage(foreign(70));
    killBefore(2, [&] { empScanEventLogFile(); });
    EXPECT_EQ(state(), (LogState{200, END_OF_FILE, 0, 1, WRAP_FALSE, 0, 5, 0, 0, 3}));
}

} // namespace
